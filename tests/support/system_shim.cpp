#include "system_shim.hpp"

#include <cerrno>
#include <cstdio>

namespace {

std::string redirected(const char* path) {
    const std::string original = path;
    const std::string& root = zx::test::system_shim().root;
    const bool absolute = original.starts_with("/usr/") || original.starts_with("/opt/");
    return absolute && !root.empty() ? root + original : original;
}

}  // namespace

// The linker prescribes these names.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

int __real_access(const char* path, int mode);
std::FILE* __real_fopen(const char* path, const char* mode);
int __real_fseek(std::FILE* file, long offset, int whence);
long __real_ftell(std::FILE* file);
std::time_t __real_time(std::time_t* out);

int __wrap_access(const char* path, int mode) {
    if (path == zx::test::system_shim().unreadable) {
        errno = EACCES;
        return -1;
    }
    return __real_access(redirected(path).c_str(), mode);
}

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    return __real_fopen(redirected(path).c_str(), mode);
}

int __wrap_fseek(std::FILE* file, long offset, int whence) {
    int& failing = zx::test::system_shim().failing_seek;
    if (failing != 0 && --failing == 0) {
        errno = EIO;
        return -1;
    }
    return __real_fseek(file, offset, whence);
}

long __wrap_ftell(std::FILE* file) {
    const auto& position = zx::test::system_shim().position;
    return position ? *position : __real_ftell(file);
}

std::time_t __wrap_time(std::time_t* out) {
    const auto& now = zx::test::system_shim().now;
    if (!now) return __real_time(out);
    if (out) *out = *now;
    return *now;
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace zx::test {

SystemShim& system_shim() {
    static SystemShim shim;
    return shim;
}

}  // namespace zx::test
