// Files that are in memory only: a reader opens them by name like any other, and no disk slows it.
#pragma once

#include "target.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zx::fuzz {

class MemoryFile {
  public:
    MemoryFile()
        : descriptor_(memfd_create("input", 0)),
          path_("/proc/self/fd/" + std::to_string(descriptor_)) {
        require(descriptor_ >= 0, "there is memory for a file");
    }
    ~MemoryFile() { (void)close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // Has no dot, which would be taken for the beginning of an extension.
    [[nodiscard]] const char* path() const { return path_.c_str(); }

    void hold(std::string_view bytes) {
        const bool held = pwrite(descriptor_, bytes.data(), bytes.size(), 0) ==
                              static_cast<ssize_t>(bytes.size()) &&
                          ftruncate(descriptor_, static_cast<off_t>(bytes.size())) == 0;
        require(held, "a file in memory takes its bytes");
    }
    [[nodiscard]] std::string contents() const {
        struct stat status = {};
        require(fstat(descriptor_, &status) == 0, "a file in memory has a length");
        std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
        const bool read =
            pread(descriptor_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
        require(read, "a file in memory gives its bytes back");
        return bytes;
    }

  private:
    int descriptor_;
    std::string path_;
};

// A folder in which files in memory have names, for readers that look at these.
class NameFolder {
  public:
    NameFolder() {
        std::string path = std::filesystem::temp_directory_path() / "zorvex-fuzz-XXXXXX";
        require(mkdtemp(path.data()) != nullptr, "there is a folder for names");
        path_ = path;
    }
    ~NameFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    NameFolder(const NameFolder&) = delete;
    NameFolder& operator=(const NameFolder&) = delete;

    // The path under which the file has this name from now on.
    std::string give(const std::string& name, const MemoryFile& file) const {
        std::string path = path_ + "/" + name;
        require(symlink(file.path(), path.c_str()) == 0, "a file in memory gets a name");
        return path;
    }
    static void take(const std::string& path) {
        require(unlink(path.c_str()) == 0, "a name is taken back");
    }

  private:
    std::string path_;
};

// A file in memory that keeps one name.
class NamedFile {
  public:
    explicit NamedFile(const std::string& name) : path_(folder_.give(name, file_)) {}

    [[nodiscard]] const std::string& path() const { return path_; }
    void hold(std::string_view bytes) { file_.hold(bytes); }

  private:
    NameFolder folder_;
    MemoryFile file_;
    std::string path_;
};

}  // namespace zx::fuzz
