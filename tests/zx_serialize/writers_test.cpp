// What every writer of a file promises alike: what it refuses before it opens anything, whose bytes
// it writes, and that writing itself is not tested.

#include "file_fixture.hpp"

#include <functional>
#include <string>
#include <vector>

namespace zx::test {
namespace {

using Write = std::function<zx_status_t(const char* path)>;

struct Writer {
    const char* name;
    Write write;
};

class Writers : public FileTest {
  protected:
    void SetUp() override {
        FileTest::SetUp();
        tensor_ = counted_tensor({2, 3});
        model_.reset(zx_model_mf_create(3, 5, 4, true));
        ASSERT_TRUE(tensor_ && model_);
    }

    // All that write one file, for a small tensor or model.
    [[nodiscard]] std::vector<Writer> writers() const {
        return {
            {"tensor file",
             [this](const char* path) { return zx_tensor_save(tensor_.get(), path, "t"); }},
            {"raw file",
             [this](const char* path) { return zx_tensor_to_raw(tensor_.get(), path); }},
            {"array file",
             [this](const char* path) { return zx_tensor_to_npy(tensor_.get(), path); }},
            {"safetensors file",
             [this](const char* path) {
                 zx_tensor_t* const tensors[] = {tensor_.get()};
                 const char* const names[] = {"t"};
                 return zx_tensors_to_safetensors(tensors, names, 1, path);
             }},
            {"model as safetensors",
             [this](const char* path) { return zx_model_to_safetensors(model_.get(), path); }},
            {"metadata",
             [this](const char* path) { return zx_model_metadata_json(model_.get(), path); }},
            {"schema",
             [this](const char* path) { return zx_model_to_json_schema(model_.get(), path); }},
        };
    }

    TensorPtr tensor_;
    ModelPtr model_;
};

using WriteTensor = zx_status_t (*)(const zx_tensor_t*, const char*);

const struct {
    const char* name;
    WriteTensor write;
} kTensorWriters[] = {
    {"tensor file",
     [](const zx_tensor_t* tensor, const char* path) { return zx_tensor_save(tensor, path, "t"); }},
    {"raw file", zx_tensor_to_raw},
    {"array file", zx_tensor_to_npy},
};

TEST_F(Writers, RefuseANullTensorOrPath) {
    for (const auto& writer : kTensorWriters) {
        SCOPED_TRACE(writer.name);
        for (const bool has_tensor : {false, true}) {
            zx_clear_error();
            EXPECT_EQ(writer.write(has_tensor ? tensor_.get() : nullptr,
                                   has_tensor ? nullptr : "out.file"),
                      ZX_ERR_NULL_POINTER);
            expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL tensor or path");
        }
        EXPECT_FALSE(std::filesystem::exists("out.file"));
    }
}

// Such a record is made by hand only. What stands at the path stays.
TEST_F(Writers, RefuseATensorWhoseElementsNobodyHolds) {
    const TensorPtr tensor = wrapped_tensor({2, 3});
    ASSERT_TRUE(tensor);
    tensor->data = nullptr;
    write_file("out.file", "before");
    for (const auto& writer : kTensorWriters) {
        SCOPED_TRACE(writer.name);
        zx_clear_error();
        EXPECT_EQ(writer.write(tensor.get(), "out.file"), ZX_ERR_NULL_POINTER);
        expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL tensor data");
        EXPECT_EQ(file_content("out.file"), "before");
    }
}

TEST_F(Writers, RefuseAFileTheyCannotOpen) {
    for (const Writer& writer : writers()) {
        SCOPED_TRACE(writer.name);
        for (const char* path : {"no-such-folder/out.file", ".", ""}) {
            SCOPED_TRACE(path);
            zx_clear_error();
            EXPECT_EQ(writer.write(path), ZX_ERR_FILE_OPEN);
            expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
        }
    }
}

TEST_F(Writers, ReplaceALongerFileAndCloseTheirOwn) {
    for (const Writer& writer : writers()) {
        SCOPED_TRACE(writer.name);
        ASSERT_EQ(writer.write("fresh.file"), ZX_OK);
        write_file("long.file", std::string(5000, 'x'));
        plant_record();
        EXPECT_EQ(closing_files([&] { return writer.write("long.file"); }), ZX_OK);
        expect_untouched();
        EXPECT_NE(file_content("fresh.file"), "");
        EXPECT_TRUE(file_content("long.file") == file_content("fresh.file"));
    }
}

// Deliberately: they say nothing of it, and return as if all were well.
TEST_F(Writers, DoNotNoticeAFullDisk) {
    for (const Writer& writer : writers()) {
        SCOPED_TRACE(writer.name);
        plant_record();
        EXPECT_EQ(closing_files([&] { return writer.write("/dev/full"); }), ZX_OK);
        expect_untouched();
    }
}

}  // namespace
}  // namespace zx::test
