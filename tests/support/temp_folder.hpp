// A folder of a test's own to work in, so that tests that run at the same time do not see each
// other's files and no kernel file is found by accident.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace zx::test {

// Makes root() and, one level below it, the folder that is the working folder while this object
// lives; so that paths which begin with "../" stay inside root() too.
class TempFolder {
  public:
    TempFolder() : before_(std::filesystem::current_path()) {
        std::string name = before_ / "temp-XXXXXX";
        if (!mkdtemp(name.data())) ADD_FAILURE() << "no temporary folder: " << name;
        root_ = name;
        std::filesystem::create_directory(root_ / "work");
        std::filesystem::current_path(root_ / "work");
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::current_path(before_, ignored);
        std::filesystem::remove_all(root_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& root() const { return root_; }

  private:
    std::filesystem::path before_;
    std::filesystem::path root_;
};

// Writes a file, making the folders on its path.
inline void write_file(const std::filesystem::path& path, std::string_view content) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    ASSERT_TRUE(file) << path;
}

}  // namespace zx::test
