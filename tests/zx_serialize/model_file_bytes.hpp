// Model files put together byte by byte, independently of the library's structs.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace zx::test {

// Grows a file from its beginning. All integers are little-endian.
class FileBytes {
  public:
    FileBytes& text(std::string_view value, std::size_t width) {
        bytes_.append(value);
        return zeros(width - value.size());
    }
    FileBytes& zeros(std::size_t count) {
        bytes_.append(count, '\0');
        return *this;
    }
    FileBytes& zeros_up_to(std::size_t size) { return zeros(size - bytes_.size()); }
    FileBytes& u32(std::uint32_t value) { return integer(value, 4); }
    FileBytes& u64(std::uint64_t value) { return integer(value, 8); }
    FileBytes& floats(const std::vector<float>& values) {
        for (const float value : values) u32(std::bit_cast<std::uint32_t>(value));
        return *this;
    }

    // Writes over bytes, all of which must be there.
    FileBytes& replace(std::size_t offset, std::string_view value) {
        std::copy(value.begin(), value.end(), &bytes_.at(offset));
        return *this;
    }
    FileBytes& replace_u32(std::size_t offset, std::uint32_t value) {
        return replace(offset, FileBytes().u32(value).bytes());
    }
    FileBytes& replace_u64(std::size_t offset, std::uint64_t value) {
        return replace(offset, FileBytes().u64(value).bytes());
    }
    FileBytes& cut(std::size_t size) {
        bytes_.resize(size);
        return *this;
    }

    [[nodiscard]] const std::string& bytes() const { return bytes_; }

  private:
    FileBytes& integer(std::uint64_t value, int width) {
        for (int byte = 0; byte < width; ++byte)
            bytes_.push_back(static_cast<char>(value >> (8 * byte) & 0xff));
        return *this;
    }

    std::string bytes_;
};

// Where the fields stand that tests write over.
constexpr std::size_t kVersionAt = 4;
constexpr std::size_t kModelTypeAt = 8;
constexpr std::size_t kNumTensorsAt = 12;
constexpr std::size_t kHeaderBytes = 152;
constexpr std::size_t kDescriptorBytes = 304;
constexpr std::size_t kNdimInDescriptor = 256;
constexpr std::size_t kDimsInDescriptor = 260;
constexpr std::size_t kOffsetInDescriptor = 280;
constexpr std::size_t kSizeInDescriptor = 288;

constexpr std::size_t descriptor_at(std::size_t index) {
    return kHeaderBytes + index * kDescriptorBytes;
}

inline FileBytes& add_header(FileBytes& file, std::uint32_t num_tensors, std::uint64_t data_offset,
                             std::uint64_t file_size,
                             std::string_view model_name = "MatrixFactorization") {
    return file.text("ZXQM", 4)
        .u32(1)
        .u32(0)
        .u32(num_tensors)
        .u64(data_offset)
        .u64(file_size)
        .text(model_name, 64)
        .zeros(56);
}

inline FileBytes& add_descriptor(FileBytes& file, std::string_view name, std::uint32_t ndim,
                                 std::uint32_t rows, std::uint32_t cols, std::uint64_t offset,
                                 std::uint64_t size) {
    return file.text(name, 256)
        .u32(ndim)
        .u32(rows)
        .u32(cols)
        .u32(1)
        .u32(1)
        .zeros(4)
        .u64(offset)
        .u64(size)
        .zeros(8);
}

inline std::string file_content(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// How many files the process has open; one is this look itself.
inline std::ptrdiff_t open_files() {
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator("/proc/self/fd"), Iterator());
}

}  // namespace zx::test
