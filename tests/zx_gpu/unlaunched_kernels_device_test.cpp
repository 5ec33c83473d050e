// The kernels that the library delivers but never launches, run the way the kernel file says.

#include "batch_device.hpp"
#include "kernel_launch.hpp"

namespace zx::test {
namespace {

constexpr float kUntouched = 4711.0f;

class UnlaunchedKernels : public BatchDeviceTest {};

TEST_F(UnlaunchedKernels, MultiplyInTilesWhateverTheSizes) {
    struct Case {
        std::size_t m, k, n;
    };
    RandomNumbers random(3);
    for (const Case& c : {Case{1, 1, 1}, Case{16, 16, 16}, Case{15, 17, 33}, Case{33, 3, 17},
                          Case{5, 40, 1}, Case{1, 31, 50}}) {
        SCOPED_TRACE(testing::Message() << c.m << " x " << c.k << " x " << c.n);
        // Sums of eighths are exact in whatever order.
        const std::vector<float> a = random.all_eighths(c.m * c.k);
        const std::vector<float> b = random.all_eighths(c.n * c.k);
        std::vector<float> expected;
        for (std::size_t i = 0; i < c.m; ++i)
            for (std::size_t j = 0; j < c.n; ++j)
                expected.push_back(
                    static_cast<float>(exact_dot(a.data() + i * c.k, b.data() + j * c.k, c.k)));
        expected.push_back(kUntouched);
        const BufferPtr out = uploaded(std::vector<float>(expected.size(), kUntouched));
        const BufferPtr a_buffer = uploaded(a);
        const BufferPtr b_buffer = uploaded(b);
        Kernel kernel("matmul_tiled");
        kernel.arg(a_buffer).arg(b_buffer).arg(out).arg(c.m).arg(c.k).arg(c.n);
        ASSERT_EQ(zx_kernel_exec_2d(kernel.get(), round_up(c.m, 16), round_up(c.n, 16), 16, 16),
                  ZX_OK);
        EXPECT_EQ(read_back(out, expected.size()), expected);
    }
}

TEST_F(UnlaunchedKernels, AddVectorsFourAtATimeWithTails) {
    RandomNumbers random(4);
    for (const std::size_t n : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 63u}) {
        // A global size that is larger than needed is harmless.
        for (const std::size_t more : {0u, 1u}) {
            SCOPED_TRACE(testing::Message() << n << ", " << more << " more");
            // Two elements behind the vectors show what a tail may not touch.
            const std::vector<float> a = random.all_eighths(n + 2);
            const std::vector<float> b = random.all_eighths(n + 2);
            std::vector<float> sums(n + 2, kUntouched);
            std::vector<float> moved = b;
            for (std::size_t i = 0; i < n; ++i) {
                sums[i] = a[i] + b[i];
                moved[i] = 0.5f * a[i] + b[i];
            }
            const BufferPtr x = uploaded(a);
            const BufferPtr y = uploaded(b);
            const BufferPtr out = uploaded(std::vector<float>(n + 2, kUntouched));
            Kernel add("vec_add_vec4");
            add.arg(x).arg(y).arg(out).arg(n);
            ASSERT_EQ(zx_kernel_exec_1d(add.get(), (n + 3) / 4 + more, 0), ZX_OK);
            EXPECT_EQ(read_back(out, n + 2), sums);
            Kernel axpy("vec_axpy_vec4");
            axpy.arg(0.5f).arg(x).arg(y).arg(n);
            ASSERT_EQ(zx_kernel_exec_1d(axpy.get(), (n + 3) / 4 + more, 0), ZX_OK);
            EXPECT_EQ(read_back(y, n + 2), moved);
            EXPECT_EQ(read_back(x, n + 2), a);
        }
    }
}

TEST_F(UnlaunchedKernels, ReduceWithAnyWorkGroupSize) {
    RandomNumbers random(5);
    for (const std::size_t n : {1u, 5u, 64u, 1001u}) {
        std::vector<float> values = random.all_eighths(n);
        // A maximum that is not negative would not tell a wrong start from a result.
        for (float& value : values) value -= 2.0f;
        double sum = 0.0;
        for (const float value : values) sum += value;
        const float largest = *std::ranges::max_element(values);
        for (const std::size_t local : {1u, 3u, 5u, 7u, 64u}) {
            for (const std::size_t groups : {1u, 3u}) {
                SCOPED_TRACE(testing::Message() << n << " in " << groups << " x " << local);
                const BufferPtr input = uploaded(values);
                const BufferPtr out = uploaded(std::vector<float>(groups + 1, kUntouched));
                Kernel add("reduce_sum");
                add.arg(input).arg(out).local(local * sizeof(float)).arg(n);
                ASSERT_EQ(zx_kernel_exec_1d(add.get(), groups * local, local), ZX_OK);
                const std::vector<float> sums = read_back(out, groups + 1);
                double total = 0.0;
                for (std::size_t g = 0; g < groups; ++g) total += sums[g];
                EXPECT_EQ(total, sum);
                EXPECT_EQ(sums[groups], kUntouched);
                Kernel top("reduce_max");
                top.arg(input).arg(out).local(local * sizeof(float)).arg(n);
                ASSERT_EQ(zx_kernel_exec_1d(top.get(), groups * local, local), ZX_OK);
                std::vector<float> maxima = read_back(out, groups + 1);
                EXPECT_EQ(maxima.back(), kUntouched);
                maxima.pop_back();
                EXPECT_EQ(*std::ranges::max_element(maxima), largest);
            }
        }
    }
}

}  // namespace
}  // namespace zx::test
