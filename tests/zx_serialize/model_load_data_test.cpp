// The data of a model file: sizes and offsets that fit, that do not, and that no file can have.

#include "float_bits.hpp"
#include "load_fixture.hpp"
#include "model_records.hpp"

#include <cstring>
#include <vector>

namespace zx::test {
namespace {

using ModelLoadData = ModelLoad;

// The embeddings that creation draws for small_file() after this seed.
struct Drawn {
    std::vector<float> users;
    std::vector<float> items;
};

Drawn drawn_after(std::uint64_t seed) {
    zx_rng_seed(seed);
    const ModelPtr model(zx_model_mf_create(3, 2, 2, false));
    zx_rng_seed(seed);
    return {contents(model->user_embeddings), contents(model->item_embeddings)};
}

TEST_F(ModelLoadData, RefusesDataLongerThanItsTensor) {
    const struct {
        std::size_t descriptor;
        std::uint64_t size;
    } cases[] = {{0, 25}, {0, 28}, {0, 64}, {1, 17}, {1, 20}, {1, 0xffffffffffffffff}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        FileBytes file = small_file();
        file.replace_u64(descriptor_at(c.descriptor) + kSizeInDescriptor, c.size);
        file.zeros(4096);  // there would be enough to read
        expect_unreadable(file.bytes(), kTensorData);
    }
}

TEST_F(ModelLoadData, KeepsDrawnNumbersWhereDataIsShort) {
    const Drawn drawn = drawn_after(4);
    const struct {
        std::uint64_t size;
        std::size_t whole;  // numbers that the data replaces
    } cases[] = {{0, 0}, {4, 1}, {20, 5}, {24, 6}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        FileBytes file = small_file();
        file.replace_u64(descriptor_at(0) + kSizeInDescriptor, c.size);
        zx_rng_seed(4);
        const ModelPtr model = load(file.bytes());
        ASSERT_NE(model, nullptr);
        std::vector<float> expected = drawn.users;
        for (std::size_t i = 0; i < c.whole; ++i) expected[i] = kUserData[i];
        EXPECT_TRUE(same_numbers(contents(model->user_embeddings), expected));
        EXPECT_TRUE(same_numbers(contents(model->item_embeddings), kItemData));
    }
}

// Sizes are bytes: two of the four of a number can come from the file.
TEST_F(ModelLoadData, ReadsSizesThatAreNoWholeNumberOfFloats) {
    const Drawn drawn = drawn_after(5);
    FileBytes file = small_file();
    file.replace_u64(descriptor_at(0) + kSizeInDescriptor, 6);
    zx_rng_seed(5);
    const ModelPtr model = load(file.bytes());
    ASSERT_NE(model, nullptr);
    std::vector<float> expected = drawn.users;
    std::memcpy(expected.data(), file.bytes().data() + 768, 6);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), expected));
}

TEST_F(ModelLoadData, RefusesOffsetsPastTheEnd) {
    for (const std::uint64_t offset :
         {std::uint64_t{881}, std::uint64_t{896}, std::uint64_t{897}, std::uint64_t{1} << 40}) {
        SCOPED_TRACE(offset);
        FileBytes file = small_file();
        file.replace_u64(descriptor_at(1) + kOffsetInDescriptor, offset);
        expect_unreadable(file.bytes(), kTensorData);
    }
}

TEST_F(ModelLoadData, ReadsWhereverAnOffsetPoints) {
    FileBytes file = small_file();
    // Unaligned, overlapping, and into the header: all of it is file.
    file.replace_u64(descriptor_at(0) + kOffsetInDescriptor, 0);
    file.replace_u64(descriptor_at(1) + kOffsetInDescriptor, 772);
    const ModelPtr model = load(file.bytes());
    ASSERT_NE(model, nullptr);
    std::vector<float> expected(6);
    std::memcpy(expected.data(), file.bytes().data(), 24);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), expected));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {2, 3, 4, 5}));
}

// No position can be negative. The seek fails, is not tested, and leaves the position behind the
// users' data, at 792.
TEST_F(ModelLoadData, ReadsOnWhereAnOffsetCannotBeReached) {
    for (const std::uint64_t offset : {std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
        SCOPED_TRACE(offset);
        FileBytes file = small_file();
        file.replace_u64(descriptor_at(1) + kOffsetInDescriptor, offset);
        file.replace(792, FileBytes().floats({9, 8, 7, 6}).bytes());
        const ModelPtr model = load(file.bytes());
        ASSERT_NE(model, nullptr);
        EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {9, 8, 7, 6}));
    }
}

}  // namespace
}  // namespace zx::test
