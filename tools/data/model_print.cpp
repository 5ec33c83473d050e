#include "model_print.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#define XXH_INLINE_ALL
#include "error.hpp"

#include <xxhash.h>

namespace zxtool {

namespace {

// Where the head of a model file has what is looked at here; its numbers are little-endian.
constexpr std::string_view kMagic = "ZXQM";
constexpr std::size_t kHeadBytes = 152;
constexpr std::size_t kTensorCountAt = 12;
constexpr std::size_t kFileLengthAt = 24;
constexpr std::size_t kDescriptorBytes = 304;
constexpr std::size_t kExtentsAt = 260;
constexpr std::size_t kBlockBytes = 1U << 20U;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
    throw Error(Exit::kBadModel, fmt::format("{}: {}", path, what));
}

class File {
  public:
    explicit File(const std::string& path)
        : path_(path), descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~File() {
        if (is_open()) close(descriptor_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }
    // Fills `out` as far as the file goes and returns how far that was.
    std::size_t read(char* out, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t count = ::read(descriptor_, out + done, size - done);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) fail(path_, "cannot be read");
            if (count == 0) break;
            done += static_cast<std::size_t>(count);
        }
        return done;
    }

  private:
    const std::string& path_;
    int descriptor_;
};

std::uint64_t number_at(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
    return value;
}

// The first `size` bytes of a file, or fewer when it is shorter.
std::string read_start(const std::string& path, std::size_t size) {
    File file(path);
    if (!file.is_open()) fail(path, "cannot be opened");
    std::string bytes(size, '\0');
    bytes.resize(file.read(bytes.data(), size));
    return bytes;
}

std::uint64_t length_of(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) fail(path, "cannot be opened");
    if (!S_ISREG(status.st_mode)) refuse(path, "is no regular file, expected a model file");
    return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace

std::optional<std::string> read_whole_file(const std::string& path) {
    File file(path);
    if (!file.is_open()) {
        if (errno == ENOENT) return std::nullopt;
        fail(path, "cannot be opened");
    }
    std::string contents;
    for (std::size_t done = 0;;) {
        contents.resize(done + kBlockBytes);
        const std::size_t count = file.read(contents.data() + done, kBlockBytes);
        done += count;
        if (count < kBlockBytes) {
            contents.resize(done);
            return contents;
        }
    }
}

ModelPrint print_of(const std::string& path) {
    File file(path);
    if (!file.is_open()) fail(path, "cannot be opened");
    const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(),
                                                                                XXH3_freeState);
    if (!state) throw std::bad_alloc();
    XXH3_64bits_reset(state.get());
    ModelPrint print;
    std::vector<char> block(kBlockBytes);
    for (std::size_t count = block.size(); count == block.size();) {
        count = file.read(block.data(), block.size());
        XXH3_64bits_update(state.get(), block.data(), count);
        print.bytes += count;
    }
    print.hash = XXH3_64bits_digest(state.get());
    return print;
}

std::uint64_t declared_length(const std::string& path) {
    const std::string head = read_start(path, kHeadBytes);
    if (head.size() < kHeadBytes || !head.starts_with(kMagic)) refuse(path, "is no model file");
    return number_at(head, kFileLengthAt, 8);
}

void check_model_file(const std::string& path) {
    const std::uint64_t length = length_of(path);
    const std::uint64_t declared = declared_length(path);
    if (length != declared)
        refuse(path, fmt::format("model file is {} bytes long, expected the {} that its head says",
                                 length, declared));

    const std::uint64_t count = number_at(read_start(path, kHeadBytes), kTensorCountAt, 4);
    const std::uint64_t start_bytes = kHeadBytes + count * kDescriptorBytes;
    if (count == 0 || start_bytes > length)
        refuse(path, fmt::format("model file is damaged: it says that it has {} tensors", count));
    const std::string start = read_start(path, start_bytes);
    if (start.size() < start_bytes) refuse(path, "model file ends too early");
    std::uint64_t most_rows = 0;
    std::uint64_t most_columns = 0;
    for (std::size_t at = kHeadBytes; at < start.size(); at += kDescriptorBytes) {
        most_rows = std::max(most_rows, number_at(start, at + kExtentsAt, 4));
        most_columns = std::max(most_columns, number_at(start, at + kExtentsAt + 4, 4));
    }
    // Two numbers of 32 bits: the product fits.
    if (most_rows * most_columns > length / sizeof(float))
        refuse(path, fmt::format("model file is damaged: a table of {} x {} is not in it",
                                 most_rows, most_columns));
}

}  // namespace zxtool
