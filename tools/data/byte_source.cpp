#include "byte_source.hpp"

#include "error.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <zlib.h>

namespace zxtool {

namespace {

constexpr unsigned kGzipBuffer = 256U << 10U;
// gzip data begins with these two bytes; zlib would hand anything else through as it stands.
constexpr unsigned char kGzipMagic[2] = {0x1F, 0x8B};

[[noreturn]] void fail(const std::string& name, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", name, what, std::strerror(errno)));
}

bool begins_with_gzip_magic(int descriptor) {
    unsigned char start[2] = {};
    return pread(descriptor, start, 2, 0) == 2 && std::equal(start, start + 2, kGzipMagic);
}

}  // namespace

ByteSource::ByteSource(const std::string& path, std::function<void()> on_signal)
    : name_(path), on_signal_(std::move(on_signal)) {
    if (path == "-") {
        name_ = "standard input";
        descriptor_ = STDIN_FILENO;
        return;
    }
    descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0) fail(name_, "cannot be opened");
    struct stat status = {};
    const bool known = fstat(descriptor_, &status) == 0;
    if (known && S_ISDIR(status.st_mode)) {
        close(descriptor_);
        errno = EISDIR;
        fail(name_, "cannot be read");
    }
    if (!path.ends_with(".gz")) {
        if (known && S_ISREG(status.st_mode))
            size_hint_ = static_cast<std::uint64_t>(status.st_size);
        return;
    }
    if (known && S_ISREG(status.st_mode) && status.st_size > 0 &&
        !begins_with_gzip_magic(descriptor_)) {
        close(descriptor_);
        throw Error(Exit::kBadInput,
                    name_ + ": is not gzip data, expected it because the name ends in .gz");
    }
    gzip_ = gzdopen(descriptor_, "rb");
    if (gzip_ == nullptr) {
        close(descriptor_);
        throw Error(Exit::kOutOfMemory, name_ + ": no memory to decompress it");
    }
    gzbuffer(gzip_, kGzipBuffer);
}

ByteSource::~ByteSource() {
    if (gzip_ != nullptr)
        gzclose(gzip_);
    else if (descriptor_ != STDIN_FILENO)
        close(descriptor_);
}

std::size_t ByteSource::read(char* out, std::size_t size) {
    return gzip_ != nullptr ? read_gzip(out, size) : read_plain(out, size);
}

std::size_t ByteSource::read_plain(char* out, std::size_t size) {
    for (;;) {
        const ssize_t count = ::read(descriptor_, out, size);
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EINTR) fail(name_, "cannot be read");
        if (on_signal_) on_signal_();
    }
}

std::size_t ByteSource::read_gzip(char* out, std::size_t size) {
    const auto wanted = static_cast<unsigned>(std::min<std::size_t>(size, INT_MAX));
    const int count = gzread(gzip_, out, wanted);
    int status = Z_OK;
    // zlib's name for a stream that ends too early is a "buffer error", also after a short read.
    std::string_view text = gzerror(gzip_, &status);
    text.remove_prefix(std::min(text.size(), text.find(": ") + 2));  // zlib's name for the file
    if (status == Z_BUF_ERROR)
        throw Error(Exit::kBadInput, name_ + ": gzip data is cut off, expected its end");
    if (status == Z_ERRNO) fail(name_, "cannot be read");
    if (status == Z_MEM_ERROR)
        throw Error(Exit::kOutOfMemory, name_ + ": no memory to decompress it");
    if (count < 0 || (status != Z_OK && status != Z_STREAM_END))
        throw Error(Exit::kBadInput, fmt::format("{}: gzip data is damaged: {}", name_, text));
    return static_cast<std::size_t>(count);
}

}  // namespace zxtool
