#include "atomic_file.hpp"

#include "error.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <random>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace zxtool {

namespace {

namespace fs = std::filesystem;

constexpr int kMaxLinks = 40;  // as the system's own limit on a chain of links
constexpr int kMaxNames = 100;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

std::string folder_of(const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? "." : folder.string();
}

// Creates a file that was not there before, under a name that no other process takes.
int create_beside(const std::string& target, std::string& name) {
    std::random_device random;
    for (int i = 0; i < kMaxNames; ++i) {
        name = fmt::format("{}/.zorvex-{:08x}{:08x}.tmp", folder_of(target), random(), random());
        const int descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0 || errno != EEXIST) return descriptor;
    }
    return -1;
}

}  // namespace

AtomicFile::AtomicFile(const std::string& target) : target_(follow_links(target)) {
    struct stat status = {};
    if (stat(target_.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw Error(
            Exit::kInputOutput,
            fmt::format("{}: is no regular file, expected a file that can be replaced", target_));
    const int descriptor = create_beside(target_, temporary_);
    if (descriptor < 0) fail(target_, "cannot be written");
    stream_ = fdopen(descriptor, "wb");
    if (stream_ == nullptr) {
        close(descriptor);
        unlink(temporary_.c_str());
        fail(target_, "cannot be written");
    }
}

AtomicFile::~AtomicFile() {
    if (stream_ != nullptr) (void)std::fclose(stream_);
    if (!temporary_.empty()) unlink(temporary_.c_str());
}

void AtomicFile::write(std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stream_) != bytes.size())
        fail(target_, "cannot be written");
}

void AtomicFile::settle() {
    if (std::fflush(stream_) != 0 || std::ferror(stream_) != 0) fail(target_, "cannot be written");
    const off_t written = ftello(stream_);
    if (written < 0) fail(target_, "cannot be written");
    settle(static_cast<std::uint64_t>(written));
}

void AtomicFile::settle(std::uint64_t expected_bytes) {
    struct stat status = {};
    if (fstat(fileno(stream_), &status) != 0) fail(target_, "cannot be written");
    if (static_cast<std::uint64_t>(status.st_size) != expected_bytes)
        throw Error(Exit::kInputOutput, fmt::format("{}: {} bytes were written, expected {}",
                                                    target_, status.st_size, expected_bytes));
    if (fsync(fileno(stream_)) != 0) fail(target_, "cannot be flushed to disk");
    std::FILE* const stream = std::exchange(stream_, nullptr);
    if (std::fclose(stream) != 0) fail(target_, "cannot be written");
}

void AtomicFile::place() {
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) fail(target_, "cannot be replaced");
    temporary_.clear();
    sync_folder_of(target_);
}

void AtomicFile::commit() {
    settle();
    place();
}

void AtomicFile::commit(std::uint64_t expected_bytes) {
    settle(expected_bytes);
    place();
}

std::string follow_links(const std::string& path) {
    fs::path followed = path;
    std::error_code error;
    for (int i = 0; i < kMaxLinks && fs::is_symlink(followed, error); ++i) {
        const fs::path destination = fs::read_symlink(followed, error);
        if (error) break;
        followed = followed.parent_path() / destination;
    }
    return followed.string();
}

void sync_folder_of(const std::string& path) {
    const std::string folder = folder_of(path);
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // A folder that may be written but not listed cannot be opened, and some file systems cannot
    // flush a folder: the file is in its place all the same.
    if (descriptor < 0) return;
    const int result = fsync(descriptor);
    const int reason = errno;
    close(descriptor);
    if (result == 0 || reason == EINVAL || reason == ENOTSUP) return;
    errno = reason;
    fail(folder, "cannot be flushed to disk");
}

}  // namespace zxtool
