// Raw files: a tensor's floats and nothing else, read back into a shape that the caller knows.

#include "failing_allocator.hpp"
#include "file_fixture.hpp"
#include "float_bits.hpp"

#include <string>
#include <vector>

namespace zx::test {
namespace {

class TensorToRaw : public FileTest {};
class TensorFromRaw : public FileTest {};

TensorPtr from_raw(const Extents& dims) {
    return closing_files([&] {
        return TensorPtr(
            zx_tensor_from_raw("t.bin", static_cast<std::uint32_t>(dims.size()), dims.data()));
    });
}

void expect_refused(const Extents& dims, zx_status_t code, const char* module,
                    const char* message) {
    zx_clear_error();
    EXPECT_EQ(from_raw(dims), nullptr);
    expect_recorded(code, module, message);
}

TEST_F(TensorToRaw, WritesTheElementsAlone) {
    const TensorPtr tensor(zx_tensor_create_2d(2, 2));
    ASSERT_NE(tensor, nullptr);
    fill(tensor.get(), {1.0f, -2.0f, 0.15625f, kInfinity});
    ASSERT_EQ(zx_tensor_to_raw(tensor.get(), "t.bin"), ZX_OK);
    const std::string expected("\x00\x00\x80\x3f\x00\x00\x00\xc0\x00\x00\x20\x3e\x00\x00\x80\x7f",
                               16);
    EXPECT_TRUE(file_content("t.bin") == expected);
}

TEST_F(TensorToRaw, WritesNothingOfATensorWithoutElements) {
    const TensorPtr tensor = wrapped_tensor({4, 0});
    ASSERT_NE(tensor, nullptr);
    tensor->data = nullptr;
    ASSERT_EQ(zx_tensor_to_raw(tensor.get(), "t.bin"), ZX_OK);
    EXPECT_EQ(file_content("t.bin"), "");
}

TEST_F(TensorFromRaw, BringsBackWhatWasWritten) {
    for (const Extents& dims : {Extents{1}, {7}, {2, 3}, {5, 1, 2}, {2, 3, 4, 5}, {1000, 300}}) {
        const TensorPtr written = counted_tensor(dims);
        ASSERT_NE(written, nullptr);
        ASSERT_EQ(zx_tensor_to_raw(written.get(), "t.bin"), ZX_OK);
        plant_record();
        const TensorPtr read = from_raw(dims);
        ASSERT_NE(read, nullptr);
        expect_untouched();
        EXPECT_EQ(read->ndim, written->ndim);
        for (std::size_t axis = 0; axis < 4; ++axis)
            EXPECT_EQ(read->dims[axis], written->dims[axis]);
        EXPECT_TRUE(same_numbers(contents(read.get()), contents(written.get())));
    }
}

TEST_F(TensorFromRaw, NeedsEveryElementAndIgnoresTheRest) {
    const std::string numbers = FileBytes().floats({1, 2, 3, 4, 5, 6, 7}).bytes();
    for (std::size_t size = 0; size <= numbers.size(); ++size) {
        SCOPED_TRACE(size);
        write_file("t.bin", numbers.substr(0, size));
        if (size < 24) {
            expect_refused({2, 3}, ZX_ERR_FILE_READ, kModule, "Incomplete read");
        } else {
            const TensorPtr tensor = from_raw({2, 3});
            ASSERT_NE(tensor, nullptr);
            EXPECT_TRUE(same_numbers(contents(tensor.get()), {1, 2, 3, 4, 5, 6}));
        }
    }
}

TEST_F(TensorFromRaw, RefusesNullFirst) {
    const std::uint32_t dims[1] = {1};
    zx_clear_error();
    EXPECT_EQ(zx_tensor_from_raw(nullptr, 1, dims), nullptr);
    expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL path or dims");
    zx_clear_error();
    EXPECT_EQ(zx_tensor_from_raw("absent.bin", 0, nullptr), nullptr);
    expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL path or dims");
}

// The file is opened before the shape is looked at.
TEST_F(TensorFromRaw, RefusesAFileItCannotOpen) {
    const std::uint32_t dims[1] = {0};
    for (const char* path : {"absent.bin", "no-such-folder/t.bin", ""}) {
        SCOPED_TRACE(path);
        zx_clear_error();
        EXPECT_EQ(zx_tensor_from_raw(path, 5, dims), nullptr);
        expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
    }
}

TEST_F(TensorFromRaw, FindsNoElementsInAFolder) {
    const std::uint32_t dims[1] = {1};
    EXPECT_EQ(zx_tensor_from_raw(".", 1, dims), nullptr);
    expect_recorded(ZX_ERR_FILE_READ, kModule, "Incomplete read");
}

TEST_F(TensorFromRaw, RefusesShapesThatTensorsRefuse) {
    write_file("t.bin", std::string(64, '\0'));
    constexpr std::uint32_t kMost = 0xffffffff;
    expect_refused({1, 1, 1, 1, 1}, ZX_ERR_INVALID_ARGUMENT, "src/zx_memory",
                   "Invalid tensor dimensions");
    expect_refused({3, 0}, ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
    expect_refused({kMost, kMost, kMost}, ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
    expect_refused({0x80000000, 0x80000000}, ZX_ERR_OUT_OF_MEMORY, "src/zx_memory",
                   "Failed to allocate tensor data");
    const std::uint32_t dims[1] = {1};
    for (const std::uint32_t ndim : {0u, 0x80000001u, kMost}) {
        SCOPED_TRACE(ndim);
        zx_clear_error();
        EXPECT_EQ(zx_tensor_from_raw("t.bin", ndim, dims), nullptr);
        expect_recorded(ZX_ERR_INVALID_ARGUMENT, "src/zx_memory", "Invalid tensor dimensions");
    }
}

TEST_F(TensorFromRaw, ReportsShortMemory) {
    write_file("t.bin", std::string(24, '\0'));
    const char* const messages[] = {"Failed to allocate tensor", "Failed to allocate tensor data"};
    for (std::uint64_t failing = 1; failing <= 2; ++failing) {
        SCOPED_TRACE(failing);
        const FailingAllocator allocator(failing);
        expect_refused({2, 3}, ZX_ERR_OUT_OF_MEMORY, "src/zx_memory", messages[failing - 1]);
    }
}

}  // namespace
}  // namespace zx::test
