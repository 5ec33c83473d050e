// The kernel of a single BPR update, which needs all of its three vectors as they stood before any
// write: with every length, however the device forms its work-groups.

#include "batch_device.hpp"
#include "kernel_launch.hpp"

#include <algorithm>
#include <array>

namespace zx::test {
namespace {

constexpr float kRate = 0.5f;
constexpr float kShrink = 0.1f;
constexpr float kDecay = 0.95f;

// Which of three vectors takes the place of the user, of the positive and of the negative.
using Places = std::array<std::size_t, 3>;
constexpr Places kApart = {0, 1, 2};

class BprGradient : public BatchDeviceTest {
  protected:
    void SetUp() override {
        BatchDeviceTest::SetUp();
        ASSERT_EQ(clGetDeviceInfo(g_engine.device, CL_DEVICE_MAX_WORK_GROUP_SIZE,
                                  sizeof(largest_group_), &largest_group_, nullptr),
                  CL_SUCCESS);
    }

    // Updates vectors of length d, one launch after the other without a wait, and compares with the
    // passes on the host. A local size of 0 leaves the work-groups to the device.
    void expect_host_result(std::size_t d, std::size_t global, std::size_t local, int launches,
                            const Places& places = kApart) {
        SCOPED_TRACE(testing::Message() << "d " << d << " in " << global << " / " << local);
        // A score difference of about 1: one element seen too late moves the step.
        const double range = 1.5 / std::sqrt(std::sqrt(static_cast<double>(d)));
        std::vector<std::vector<float>> vectors;
        std::vector<BufferPtr> buffers;
        for (std::size_t i = 0; i < 3; ++i) {
            vectors.push_back(random_.floats(d, -range, range));
            // Behind the end stands what no launch may touch.
            vectors.back().push_back(kBeyond);
            buffers.push_back(uploaded(vectors.back()));
        }
        Kernel kernel("bpr_gradient_update");
        for (const std::size_t place : places) kernel.arg(buffers[place]);
        kernel.arg(kRate).arg(kShrink).arg(d);
        for (int i = 0; i < launches; ++i)
            ASSERT_EQ(zx_kernel_exec_1d(kernel.get(), global, local), ZX_OK);

        float* const w = vectors[places[0]].data();
        float* const p = vectors[places[1]].data();
        float* const n = vectors[places[2]].data();
        for (int i = 0; i < launches; ++i) {
            const double x = exact_dot(w, p, d) - exact_dot(w, n, d);
            bpr_passes(w, p, n, d, kDecay, bpr_factor(x, kRate), true);
        }
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_TRUE(near_numbers(read_back(buffers[i], d + 1), vectors[i])) << "vector " << i;
    }

    // Each work-group size up to the device's largest. The global size is rounded up where the
    // length is no multiple.
    void expect_host_result_in_groups(const std::vector<std::size_t>& lengths,
                                      const std::vector<std::size_t>& groups, int launches,
                                      const Places& places = kApart) {
        for (const std::size_t d : lengths)
            for (const std::size_t group : groups)
                if (group <= largest_group_)
                    expect_host_result(d, round_up(d, group), group, launches, places);
    }

    static constexpr float kBeyond = 4711.0f;
    RandomNumbers random_{9};
    std::size_t largest_group_ = 0;
};

TEST_F(BprGradient, IsTheHostsForEveryLength) {
    for (std::size_t d = 1; d <= 4096; ++d) expect_host_result(d, round_up(d, 64), 64, 1);
}

// A device may take another size for each length, and compile the kernel again for it.
TEST_F(BprGradient, IsTheHostsInGroupsOfTheDevicesChoice) {
    for (const std::size_t d :
         {1u, 2u, 3u, 61u, 64u, 65u, 127u, 513u, 1021u, 1024u, 2047u, 2053u, 4093u, 4095u, 4096u})
        expect_host_result(d, d, 0, 3);
}

TEST_F(BprGradient, IsTheHostsHoweverOftenItRuns) {
    for (int round = 0; round < 200; ++round) {
        expect_host_result(4096, 4096, 0, 1);
        expect_host_result(4096, 4096, 64, 1);
        expect_host_result(4095, 4095, 1, 1);
    }
}

TEST_F(BprGradient, IsTheHostsInLongVectorsWithEachWorkGroupSize) {
    expect_host_result_in_groups({257, 511, 512, 513, 1021, 1031, 2048, 4095, 4096},
                                 {1, 2, 3, 63, 64, 65, 128, 256, 512, 1024, 4096}, 2);
}

// Few enough for a simulator that watches every access.
TEST_F(BprGradient, IsTheHostsInAFewWorkGroupSizesOfLongVectors) {
    expect_host_result_in_groups({257, 513, 1021, 4096}, {1, 3, 64, 65, 256}, 1);
}

TEST_F(BprGradient, IsTheHostsInShortVectorsWithEachWorkGroupSize) {
    expect_host_result_in_groups({1, 2, 3, 5, 7, 16, 31, 63, 64, 65, 97, 128, 130},
                                 {1, 2, 3, 5, 16, 63, 64, 65, 128}, 2);
}

TEST_F(BprGradient, TakesOneVectorInSeveralPlacesWithEachWorkGroupSize) {
    for (const Places& places :
         {Places{0, 1, 1}, Places{0, 0, 1}, Places{0, 1, 0}, Places{0, 0, 0}}) {
        SCOPED_TRACE(testing::PrintToString(places));
        expect_host_result_in_groups({1, 3, 64, 65, 130}, {1, 3, 64, 65, 128}, 2, places);
    }
}

}  // namespace
}  // namespace zx::test
