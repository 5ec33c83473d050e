#include "folder_files.hpp"

#include "error.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zxtool {

namespace {

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

std::string path_in(const std::string& folder, const std::string& name) {
    return (std::filesystem::path(folder) / name).string();
}

}  // namespace

FolderFiles::FolderFiles(std::string folder)
    : folder_(std::move(folder)), is_new_(mkdir(folder_.c_str(), 0777) == 0) {
    if (!is_new_ && errno != EEXIST) fail(folder_, "cannot be made");
    struct stat status = {};
    if (stat(folder_.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw Error(Exit::kInputOutput,
                    fmt::format("{}: is no folder, expected one or nothing", folder_));
}

FolderFiles::~FolderFiles() {
    files_.clear();
    // A folder that something stands in stays.
    if (is_new_) rmdir(folder_.c_str());
}

AtomicFile& FolderFiles::add(const std::string& name) {
    return files_.emplace_back(path_in(folder_, name));
}

void FolderFiles::commit(const std::vector<std::string>& others) {
    std::vector<std::string> old;
    for (const std::string& other : others) {
        const std::string& path = old.emplace_back(path_in(folder_, other));
        struct stat status = {};
        if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
            throw Error(Exit::kInputOutput,
                        fmt::format("{}: is a folder, expected a file or nothing", path));
    }
    for (const std::string& path : old)
        if (unlink(path.c_str()) != 0 && errno != ENOENT) fail(path, "cannot be removed");
    // The first renaming that is flushed makes the removals last too.
    for (AtomicFile& file : files_) file.place();
    if (std::exchange(is_new_, false)) sync_folder_of(path_in(folder_, "../"));
}

}  // namespace zxtool
