// The frame of the tests that load files: a folder of their own, a small file that loads, and the
// ways to say what becomes of a file.
#pragma once

#include "error_record.hpp"
#include "model_file_bytes.hpp"
#include "model_records.hpp"
#include "temp_folder.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace zx::test {

class ModelLoad : public testing::Test {
  protected:
    void SetUp() override { zx_set_verbosity(0); }
    void TearDown() override { zx_set_verbosity(-1); }

    TempFolder folder_;
};

// Loads the bytes as a file, and sees that no file stays open.
inline ModelPtr load(const std::string& bytes) {
    write_file("model.zxm", bytes);
    const std::ptrdiff_t open_before = open_files();
    ModelPtr model(zx_model_load("model.zxm"));
    EXPECT_EQ(open_files(), open_before);
    return model;
}

inline void expect_refused(const std::string& bytes, zx_status_t code, const char* file,
                           const char* message) {
    zx_clear_error();
    EXPECT_EQ(load(bytes), nullptr);
    expect_recorded(code, file, message);
}

inline void expect_unreadable(const std::string& bytes, const char* message) {
    expect_refused(bytes, ZX_ERR_FILE_READ, "src/zx_serialize", message);
}

inline constexpr char kTensorData[] = "Failed to read tensor data";

inline const std::vector<float> kUserData = {1, 2, 3, 4, 5, 6};
inline const std::vector<float> kItemData = {-1, -2, -3, -4};

// 3 users, 2 items, dimension 2: 24 bytes at 768, 16 bytes at 832, 896 in all.
inline FileBytes small_file() {
    FileBytes file;
    add_header(file, 2, 768, 896);
    add_descriptor(file, "mf.user_embeddings", 2, 3, 2, 768, 24);
    add_descriptor(file, "mf.item_embeddings", 2, 2, 2, 832, 16);
    file.zeros_up_to(768).floats(kUserData);
    file.zeros_up_to(832).floats(kItemData);
    file.zeros_up_to(896);
    return file;
}

}  // namespace zx::test
