#include "regular_file.hpp"

#include "error.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace zxtool {

namespace {

constexpr std::uint64_t kBlockBytes = 1U << 20U;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

int open_now(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

}  // namespace

RegularFile::RegularFile(const std::string& path) : RegularFile(path, open_now(path)) {}

RegularFile::RegularFile(const std::string& path, int descriptor)
    : path_(path), descriptor_(descriptor) {
    if (descriptor_ < 0) fail(path_, "cannot be opened");
    struct stat status = {};
    if (fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor_);
        throw Error(
            Exit::kInputOutput,
            fmt::format("{}: is no regular file, expected one that can be read at any place",
                        path_));
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
}

std::optional<RegularFile> RegularFile::find(const std::string& path) {
    const int descriptor = open_now(path);
    if (descriptor < 0 && errno == ENOENT) return std::nullopt;
    return RegularFile(path, descriptor);
}

RegularFile::RegularFile(RegularFile&& other) noexcept
    : path_(std::move(other.path_)),
      descriptor_(std::exchange(other.descriptor_, -1)),
      size_(other.size_) {}

RegularFile::~RegularFile() {
    if (descriptor_ >= 0) close(descriptor_);
}

void RegularFile::read(std::uint64_t offset, void* out, std::size_t bytes) const {
    for (std::size_t done = 0; done < bytes;) {
        const ssize_t count = pread(descriptor_, static_cast<char*>(out) + done, bytes - done,
                                    static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(path_, "cannot be read");
        if (count == 0)
            throw Error(Exit::kInputOutput,
                        fmt::format("{}: became shorter while it was read", path_));
        done += static_cast<std::size_t>(count);
    }
}

std::string RegularFile::start(std::uint64_t bytes) const {
    std::string text(std::min(bytes, size_), '\0');
    read(0, text.data(), text.size());
    return text;
}

void RegularFile::for_each_block(
    std::uint64_t begin, std::uint64_t end,
    const std::function<void(std::uint64_t, std::string_view)>& on_block) const {
    std::vector<char> block(std::min(kBlockBytes, end - begin));
    for (std::uint64_t at = begin; at < end; at += block.size()) {
        const std::size_t bytes = std::min<std::uint64_t>(block.size(), end - at);
        read(at, block.data(), bytes);
        on_block(at, {block.data(), bytes});
    }
}

}  // namespace zxtool
