#include "tensor_source.hpp"

#include "error.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace zxtool::test {
namespace {

namespace fs = std::filesystem;

class TensorSource : public testing::Test {
  protected:
    TensorSource() { write({1.0F, 2.0F, 3.0F}); }
    ~TensorSource() override { fs::remove_all(folder_); }

    // Writes a new file of the name; one that is open stays what it is.
    void write(const std::vector<float>& numbers) const {
        fs::remove(path_);
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(numbers.data()),
                   static_cast<std::streamsize>(numbers.size() * sizeof(float)));
    }
    // The last two of the three numbers.
    [[nodiscard]] static StoredTensor last_two() {
        return {.name = "t",
                .dtype = "float32",
                .is_float32 = true,
                .shape = {2},
                .offset = 4,
                .bytes = 8};
    }

    const fs::path folder_ = [] {
        std::string name = (fs::temp_directory_path() / "zorvex-test-XXXXXX").string();
        return fs::path(mkdtemp(name.data()));
    }();
    const std::string path_ = (folder_ / "f").string();
};

std::vector<float> elements(const NamedTensor& source) {
    return {source.tensor->data, source.tensor->data + source.tensor->size};
}

TEST_F(TensorSource, IsTheFileThatWasOpenedAndNoLaterOneOfItsName) {
    const RegularFile file(path_);
    write({7.0F, 8.0F, 9.0F});
    EXPECT_EQ(elements(load_raw(file, {3})), (std::vector<float>{1.0F, 2.0F, 3.0F}));
    EXPECT_EQ(elements(load_tensor(file, last_two())), (std::vector<float>{2.0F, 3.0F}));
}

TEST_F(TensorSource, OfAFileThatBecameShorterFails) {
    const RegularFile file(path_);
    fs::resize_file(path_, 10);
    const std::function<void()> loads[] = {[&] { load_raw(file, {3}); },
                                           [&] { load_tensor(file, last_two()); }};
    for (const auto& load : loads) {
        try {
            load();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const Error& error) {
            EXPECT_EQ(error.status(), Exit::kInputOutput);
            EXPECT_EQ(error.what(), path_ + ": became shorter while it was read");
        }
    }
}

}  // namespace
}  // namespace zxtool::test
