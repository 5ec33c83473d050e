#include "program_folder.hpp"

#include "error.hpp"
#include "output.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace zxtool {
namespace {

constexpr const char* kProgram = "/proc/self/exe";

// Where the engine looks before it looks in ../share/zorvex. They serve who builds the library;
// beside an installed program such a file is there by mistake or by malice.
constexpr const char* kPlacesBefore[] = {"zorvex_kernels.cl", "src/kernels/zorvex_kernels.cl",
                                         "../src/kernels/zorvex_kernels.cl"};

// What leads to the installed kernel file, and the file.
constexpr const char* kWay[] = {".", "..", "../share", "../share/zorvex",
                                "../share/zorvex/zorvex_kernels.cl"};

// An open folder.
class Folder {
  public:
    // O_PATH needs no permission to read the folder.
    explicit Folder(const char* path) : descriptor_(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    ~Folder() {
        if (descriptor_ != -1) static_cast<void>(close(descriptor_));
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    [[nodiscard]] bool enter() const { return descriptor_ != -1 && fchdir(descriptor_) == 0; }

  private:
    int descriptor_;
};

// Whether only root, the program's owner and this user decide what stands there, or a group that
// they let (as Debian does with /usr/local): a symbolic link and what it leads to. What is not
// there belongs to whoever may write to the folder above.
bool is_in_good_hands(const char* path) {
    struct stat program {};
    struct stat entry {};
    struct stat target {};
    if (stat(kProgram, &program) != 0) return false;
    if (lstat(path, &entry) != 0) return errno == ENOENT;
    if (stat(path, &target) != 0) return false;
    const auto is_known = [&program](uid_t owner) {
        return owner == 0 || owner == geteuid() || owner == program.st_uid;
    };
    return is_known(entry.st_uid) && is_known(target.st_uid) && (target.st_mode & S_IWOTH) == 0;
}

std::string absolute(const char* path) {
    std::error_code none;  // a folder that is gone has no name; the relative one has to do
    const std::filesystem::path whole =
        (std::filesystem::current_path(none) / path).lexically_normal();
    // A path that ends in "." or ".." is a folder's, and then ends in a slash.
    return printable((whole.has_filename() ? whole : whole.parent_path()).string());
}

}  // namespace

bool in_program_folder(const std::function<void()>& work) {
    const Folder here(".");
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink(kProgram, error);
    if (error) return false;
    const Folder there(program.parent_path().c_str());
    // Entering the folder that it stands in shows that the way back will be open.
    if (!here.enter() || !there.enter()) return false;
    work();
    if (!here.enter())
        throw Error(Exit::kInputOutput, fmt::format("cannot return to the working directory: {}",
                                                    std::strerror(errno)));
    return true;
}

std::string distrust_of_kernel_file() {
    for (const char* path : kPlacesBefore)
        if (access(path, F_OK) == 0)
            return fmt::format("{} stands where the engine looks before the installed kernel file",
                               absolute(path));
    for (const char* path : kWay)
        if (!is_in_good_hands(path))
            return fmt::format("others than root, you and the program's owner may change {}",
                               absolute(path));
    return {};
}

}  // namespace zxtool
