// Tensor files: the bytes that are written, what comes back of them, and what is made of any other
// bytes.

#include "failing_allocator.hpp"
#include "file_fixture.hpp"
#include "float_bits.hpp"

#include <cstring>
#include <string>
#include <vector>

namespace zx::test {
namespace {

class TensorSave : public FileTest {};
class TensorLoad : public FileTest {};

constexpr std::size_t kDescriptor = kHeaderBytes;
constexpr std::size_t kDataAt = 512;

FileBytes head(std::uint64_t data_bytes, std::string_view name, std::uint32_t ndim,
               const Extents& four_dims) {
    FileBytes file;
    file.text("ZXQM", 4).u32(1).u32(0xffffffff).u32(1).u64(512).u64(512 + data_bytes).zeros(120);
    file.text(name, 256).u32(ndim);
    for (const std::uint32_t extent : four_dims) file.u32(extent);
    return file.zeros(4).u64(512).u64(data_bytes).zeros(8).zeros(56);
}

// 2 x 3: 536 bytes.
FileBytes small_file() {
    return head(24, "w", 2, {2, 3, 1, 1}).floats({1, 2, 3, 4, 5, 6});
}

TensorPtr load(const std::string& bytes) {
    write_file("tensor.zxm", bytes);
    return closing_files([] { return TensorPtr(zx_tensor_load("tensor.zxm")); });
}

void expect_refused(const std::string& bytes, zx_status_t code, const char* module,
                    const char* message) {
    zx_clear_error();
    EXPECT_EQ(load(bytes), nullptr);
    expect_recorded(code, module, message);
}

TEST_F(TensorSave, WritesTheSmallFile) {
    const TensorPtr tensor(zx_tensor_create_2d(2, 3));
    ASSERT_NE(tensor, nullptr);
    fill(tensor.get(), {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(zx_tensor_save(tensor.get(), "t.zxm", "w"), ZX_OK);
    const std::string written = file_content("t.zxm");
    EXPECT_EQ(written.size(), 536u);
    EXPECT_TRUE(written == small_file().bytes());
}

// The fields of the file as bytes, independently of the helpers that put files together.
TEST_F(TensorSave, WritesLittleEndianFields) {
    const TensorPtr tensor(zx_tensor_create_2d(2, 3));
    ASSERT_NE(tensor, nullptr);
    fill(tensor.get(), {1, -2, 3, 4, 5, 6});
    ASSERT_EQ(zx_tensor_save(tensor.get(), "t.zxm", "w"), ZX_OK);
    std::string expected(536, '\0');
    const auto put = [&](std::size_t at, const std::vector<unsigned>& bytes) {
        for (const unsigned byte : bytes) expected[at++] = static_cast<char>(byte);
    };
    put(0, {0x5a, 0x58, 0x51, 0x4d, 1, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0});
    put(16, {0, 2, 0, 0, 0, 0, 0, 0, 0x18, 2});
    put(152, {'w'});
    put(408, {2, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 1});
    put(432, {0, 2, 0, 0, 0, 0, 0, 0, 24});
    put(512, {0, 0, 0x80, 0x3f, 0, 0, 0, 0xc0, 0, 0, 0x40, 0x40});
    put(524, {0, 0, 0x80, 0x40, 0, 0, 0xa0, 0x40, 0, 0, 0xc0, 0x40});
    EXPECT_TRUE(file_content("t.zxm") == expected);
}

TEST_F(TensorSave, WritesEveryRank) {
    const struct {
        Extents dims, four_dims;
        std::uint64_t bytes;
    } cases[] = {
        {{5}, {5, 1, 1, 1}, 20},       {{1}, {1, 1, 1, 1}, 4},           {{2, 3}, {2, 3, 1, 1}, 24},
        {{2, 3, 4}, {2, 3, 4, 1}, 96}, {{2, 1, 3, 2}, {2, 1, 3, 2}, 48},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dims.size());
        const TensorPtr tensor = counted_tensor(c.dims);
        ASSERT_NE(tensor, nullptr);
        ASSERT_EQ(zx_tensor_save(tensor.get(), "t.zxm", "name"), ZX_OK);
        const auto ndim = static_cast<std::uint32_t>(c.dims.size());
        EXPECT_TRUE(
            file_content("t.zxm") ==
            head(c.bytes, "name", ndim, c.four_dims).floats(contents(tensor.get())).bytes());
    }
}

// The unused extents of a wrapped tensor are 0, and stand so in the file.
TEST_F(TensorSave, WritesTheExtentsOfAWrappedTensor) {
    float numbers[3] = {7, 8, 9};
    const std::uint32_t three = 3;
    const TensorPtr tensor(zx_tensor_wrap(numbers, 1, &three));
    ASSERT_NE(tensor, nullptr);
    ASSERT_EQ(zx_tensor_save(tensor.get(), "t.zxm", nullptr), ZX_OK);
    EXPECT_TRUE(file_content("t.zxm") == head(12, "", 1, {3, 0, 0, 0}).floats({7, 8, 9}).bytes());
}

TEST_F(TensorSave, WritesATensorWithoutElements) {
    const TensorPtr none = wrapped_tensor({0, 3});
    const TensorPtr too_many = wrapped_tensor({0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff});
    ASSERT_TRUE(none && too_many);
    none->data = nullptr;
    ASSERT_EQ(zx_tensor_save(none.get(), "t.zxm", "n"), ZX_OK);
    EXPECT_TRUE(file_content("t.zxm") == head(0, "n", 2, {0, 3, 0, 0}).bytes());
    ASSERT_EQ(zx_tensor_save(too_many.get(), "t.zxm", "n"), ZX_OK);
    EXPECT_TRUE(file_content("t.zxm") ==
                head(0, "n", 4, {0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff}).bytes());
}

TEST_F(TensorSave, CutsTheNameTo255Characters) {
    const std::string longest(255, 'n');
    const TensorPtr tensor = counted_tensor({1});
    ASSERT_NE(tensor, nullptr);
    const auto written = [&](const char* name) {
        EXPECT_EQ(zx_tensor_save(tensor.get(), "t.zxm", name), ZX_OK);
        return file_content("t.zxm").substr(kDescriptor, 256);
    };
    const std::string kept = FileBytes().text(longest, 256).bytes();
    EXPECT_TRUE(written(nullptr) == std::string(256, '\0'));
    EXPECT_TRUE(written("") == std::string(256, '\0'));
    EXPECT_TRUE(written(longest.c_str()) == kept);
    EXPECT_TRUE(written((longest + "n").c_str()) == kept);
}

TEST_F(TensorLoad, BringsBackWhatWasSaved) {
    for (const Extents& dims : {Extents{1}, {7}, {2, 3}, {5, 1, 2}, {2, 3, 4, 5}, {1000, 300}}) {
        const TensorPtr saved = counted_tensor(dims);
        ASSERT_NE(saved, nullptr);
        saved->data[0] = kNaN;
        ASSERT_EQ(zx_tensor_save(saved.get(), "t.zxm", "name"), ZX_OK);
        plant_record();
        const TensorPtr loaded(zx_tensor_load("t.zxm"));
        ASSERT_NE(loaded, nullptr);
        expect_untouched();
        EXPECT_EQ(loaded->refcount, 1u);
        EXPECT_EQ(loaded->ndim, saved->ndim);
        for (std::size_t axis = 0; axis < 4; ++axis)
            EXPECT_EQ(loaded->dims[axis], saved->dims[axis]);
        EXPECT_EQ(loaded->owns_data, 1);
        EXPECT_EQ(loaded->on_device, 0);
        EXPECT_TRUE(same_numbers(contents(loaded.get()), contents(saved.get())));
    }
}

TEST_F(TensorLoad, ReadsTheFirstTensorOfAModelFile) {
    RandomNumbers random(1);
    const ModelPtr model = random_model({3, 5, 4, true}, random);
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    const TensorPtr tensor(zx_tensor_load("model.zxm"));
    ASSERT_NE(tensor, nullptr);
    EXPECT_EQ(tensor->ndim, 2);
    EXPECT_EQ(tensor->dims[0], 3u);
    EXPECT_EQ(tensor->dims[1], 4u);
    EXPECT_TRUE(same_numbers(contents(tensor.get()), contents(model->user_embeddings)));
}

TEST_F(TensorLoad, RefusesNull) {
    EXPECT_EQ(zx_tensor_load(nullptr), nullptr);
    expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL path");
}

TEST_F(TensorLoad, RefusesAFileItCannotOpen) {
    for (const char* path : {"absent.zxm", "no-such-folder/t.zxm", ""}) {
        SCOPED_TRACE(path);
        zx_clear_error();
        EXPECT_EQ(zx_tensor_load(path), nullptr);
        expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
    }
}

TEST_F(TensorLoad, FindsNoMagicInAFolder) {
    EXPECT_EQ(zx_tensor_load("."), nullptr);
    expect_recorded(ZX_ERR_DATA_CORRUPTED, kModule, "Invalid magic");
}

TEST_F(TensorLoad, RefusesOtherMagics) {
    for (const char* magic : {"ZXQN", "zxqm", "MQXZ", "\x93NUM"})
        expect_refused(small_file().replace(0, magic).bytes(), ZX_ERR_DATA_CORRUPTED, kModule,
                       "Invalid magic");
}

TEST_F(TensorLoad, IgnoresWhatDoesNotMatter) {
    FileBytes file = small_file();
    file.replace_u32(kVersionAt, 0xffffffff);
    file.replace_u32(kModelTypeAt, 77);
    file.replace_u32(kNumTensorsAt, 0xffffffff);
    file.replace_u64(16, 0xffffffffffffffff);                  // data offset
    file.replace_u64(24, 1);                                   // file size
    file.replace(32, std::string(120, '\xff'));                // model name, reserved
    file.replace(kDescriptor, std::string(256, 'n'));          // a name without an end
    file.replace(kDescriptor + 268, std::string(12, '\xff'));  // two extents, padding
    file.replace_u64(kDescriptor + 296, 0xffffffffffffffff);   // reserved
    const TensorPtr tensor = load(file.bytes());
    ASSERT_NE(tensor, nullptr);
    EXPECT_EQ(tensor->ndim, 2);
    EXPECT_EQ(tensor->dims[2], 1u);
    EXPECT_EQ(tensor->dims[3], 1u);
    EXPECT_TRUE(same_numbers(contents(tensor.get()), {1, 2, 3, 4, 5, 6}));
}

// Every length: without a magic and a shape there is no tensor, and elements beyond the end are 0.
TEST_F(TensorLoad, ReadsZerosBehindTheEnd) {
    const std::string whole = small_file().bytes();
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        // The extents of axes that the file cuts off are 0, and so is the number of axes.
        if (size < 4) {
            expect_refused(whole.substr(0, size), ZX_ERR_DATA_CORRUPTED, kModule, "Invalid magic");
        } else if (size <= kDescriptor + kNdimInDescriptor) {
            expect_refused(whole.substr(0, size), ZX_ERR_INVALID_ARGUMENT, "src/zx_memory",
                           "Invalid tensor dimensions");
        } else if (size <= kDescriptor + kDimsInDescriptor + 4) {
            expect_refused(whole.substr(0, size), ZX_ERR_OVERFLOW, "src/zx_memory",
                           "Tensor size overflow");
        } else {
            plant_record();
            const TensorPtr tensor = load(whole.substr(0, size));
            ASSERT_NE(tensor, nullptr);
            expect_untouched();
            std::vector<float> expected(6, 0.0f);
            if (size > kDataAt)
                std::memcpy(expected.data(), whole.data() + kDataAt, size - kDataAt);
            EXPECT_TRUE(same_numbers(contents(tensor.get()), expected));
        }
        if (HasFailure()) return;
    }
}

TEST_F(TensorLoad, RefusesDataLongerThanTheTensor) {
    for (const std::uint64_t size :
         {std::uint64_t{25}, std::uint64_t{28}, std::uint64_t{1} << 32, ~std::uint64_t{0}}) {
        SCOPED_TRACE(size);
        FileBytes file = small_file();
        file.replace_u64(kDescriptor + kSizeInDescriptor, size);
        file.zeros(4096);  // there would be enough to read
        expect_refused(file.bytes(), ZX_ERR_FILE_READ, kModule, "Failed to read tensor data");
    }
}

// Sizes are bytes: two of the four of a number can come from the file.
TEST_F(TensorLoad, ReadsNoMoreThanTheSize) {
    for (const std::size_t size : {0u, 4u, 6u, 20u, 24u}) {
        SCOPED_TRACE(size);
        FileBytes file = small_file();
        file.replace_u64(kDescriptor + kSizeInDescriptor, size);
        const TensorPtr tensor = load(file.bytes());
        ASSERT_NE(tensor, nullptr);
        std::vector<float> expected(6, 0.0f);
        std::memcpy(expected.data(), file.bytes().data() + kDataAt, size);
        EXPECT_TRUE(same_numbers(contents(tensor.get()), expected));
    }
}

TEST_F(TensorLoad, ReadsZerosWhereAnOffsetIsPastTheEnd) {
    const struct {
        std::uint64_t offset;
        std::vector<float> expected;
    } cases[] = {
        {512, {1, 2, 3, 4, 5, 6}},
        {516, {2, 3, 4, 5, 6, 0}},
        {536, {0, 0, 0, 0, 0, 0}},
        {537, {0, 0, 0, 0, 0, 0}},
        {std::uint64_t{1} << 40, {0, 0, 0, 0, 0, 0}},
        {INT64_MAX, {0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offset);
        const TensorPtr tensor =
            load(small_file().replace_u64(kDescriptor + kOffsetInDescriptor, c.offset).bytes());
        ASSERT_NE(tensor, nullptr);
        EXPECT_TRUE(same_numbers(contents(tensor.get()), c.expected));
    }
}

// No position can be negative: the seek fails, and reading goes on behind the descriptor.
TEST_F(TensorLoad, ReadsOnWhereAnOffsetCannotBeReached) {
    for (const std::uint64_t offset : {std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
        SCOPED_TRACE(offset);
        FileBytes file = small_file();
        file.replace_u64(kDescriptor + kOffsetInDescriptor, offset);
        file.replace(456, FileBytes().floats({9, 8, 7, 6, 5, 4}).bytes());
        const TensorPtr tensor = load(file.bytes());
        ASSERT_NE(tensor, nullptr);
        EXPECT_TRUE(same_numbers(contents(tensor.get()), {9, 8, 7, 6, 5, 4}));
    }
}

TEST_F(TensorLoad, RefusesShapesThatTensorsRefuse) {
    constexpr const char* kRank = "Invalid tensor dimensions";
    constexpr const char* kOverflow = "Tensor size overflow";
    constexpr std::uint32_t kMost = 0xffffffff;
    const struct {
        std::uint32_t ndim;
        Extents four_dims;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {0, {2, 3, 1, 1}, ZX_ERR_INVALID_ARGUMENT, kRank},
        {5, {2, 3, 1, 1}, ZX_ERR_INVALID_ARGUMENT, kRank},
        {0x80000000, {2, 3, 1, 1}, ZX_ERR_INVALID_ARGUMENT, kRank},
        {kMost, {2, 3, 1, 1}, ZX_ERR_INVALID_ARGUMENT, kRank},
        {2, {0, 3, 1, 1}, ZX_ERR_OVERFLOW, kOverflow},
        {2, {2, 0, 1, 1}, ZX_ERR_OVERFLOW, kOverflow},
        {3, {2, 3, 0, 1}, ZX_ERR_OVERFLOW, kOverflow},
        {4, {kMost, kMost, kMost, kMost}, ZX_ERR_OVERFLOW, kOverflow},
        {2, {0x80000000, 0x80000000, 1, 1}, ZX_ERR_OUT_OF_MEMORY, "Failed to allocate tensor data"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ndim << " axes, the first of " << c.four_dims[0]);
        expect_refused(head(24, "", c.ndim, c.four_dims).zeros(24).bytes(), c.code, "src/zx_memory",
                       c.message);
    }
}

TEST_F(TensorLoad, ReportsShortMemory) {
    write_file("tensor.zxm", small_file().bytes());
    const char* const messages[] = {"Failed to allocate tensor", "Failed to allocate tensor data"};
    for (std::uint64_t failing = 1; failing <= 2; ++failing) {
        SCOPED_TRACE(failing);
        zx_clear_error();
        const FailingAllocator allocator(failing);
        EXPECT_EQ(closing_files([] { return TensorPtr(zx_tensor_load("tensor.zxm")); }), nullptr);
        expect_recorded(ZX_ERR_OUT_OF_MEMORY, "src/zx_memory", messages[failing - 1]);
    }
    const FailingAllocator allocator(3);
    EXPECT_NE(TensorPtr(zx_tensor_load("tensor.zxm")), nullptr);
    EXPECT_EQ(allocator.requests(), 2u) << "the record and its data";
}

}  // namespace
}  // namespace zx::test
