// A regular file, read at given places and never beyond its end: what a format reader may trust is
// the length that the system gives, and nothing that stands in the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zxtool {

class RegularFile {
  public:
    // Opens without waiting, so that a pipe is refused rather than waited for. Throws
    // Error(kInputOutput), also for what is no regular file.
    explicit RegularFile(const std::string& path);
    // The same; nothing if there is no such file.
    static std::optional<RegularFile> find(const std::string& path);
    ~RegularFile();
    RegularFile(RegularFile&& other) noexcept;
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    RegularFile& operator=(RegularFile&&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::uint64_t size() const { return size_; }

    // Fills `out` from an offset; offset + bytes is at most size(). Throws Error(kInputOutput),
    // also when the file has become shorter.
    void read(std::uint64_t offset, void* out, std::size_t bytes) const;
    // The first bytes, as many as wanted or as there are.
    [[nodiscard]] std::string start(std::uint64_t bytes) const;
    // Hands out the bytes [begin, end), end at most size(), in blocks of a multiple of 64 bytes,
    // the last one shorter. `on_block` gets each block and its offset.
    void for_each_block(
        std::uint64_t begin, std::uint64_t end,
        const std::function<void(std::uint64_t offset, std::string_view bytes)>& on_block) const;

  private:
    RegularFile(const std::string& path, int descriptor);

    std::string path_;
    int descriptor_;
    std::uint64_t size_ = 0;
};

}  // namespace zxtool
