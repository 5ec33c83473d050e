// The layout of model files, and of tensor files, which begin like them: a header, a table of
// tensor descriptors, zeros up to a multiple of 64, then each tensor's data, padded to a multiple
// of 64 bytes. All integers are little-endian, and so are the processors this library runs on: the
// structs are the bytes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace zx {

static_assert(std::endian::native == std::endian::little);

inline constexpr char kModelMagic[4] = {'Z', 'X', 'Q', 'M'};
inline constexpr std::uint32_t kModelFileVersion = 1;
inline constexpr std::uint64_t kDataAlignment = 64;

struct ModelFileHeader {
    char magic[4];
    std::uint32_t version;
    std::uint32_t model_type;
    std::uint32_t num_tensors;
    std::uint64_t data_offset;  // of the first tensor's data
    std::uint64_t file_size;    // of the whole file
    char model_name[64];
    char reserved[56];
};
static_assert(sizeof(ModelFileHeader) == 152);
static_assert(offsetof(ModelFileHeader, data_offset) == 16);
static_assert(offsetof(ModelFileHeader, model_name) == 32);

struct TensorDescriptor {
    char name[256];
    std::uint32_t ndim;
    std::uint32_t dims[4];
    std::uint32_t padding;
    std::uint64_t offset;  // of the tensor's data, from the start of the file
    std::uint64_t size;    // of the data, in bytes
    std::uint64_t reserved;
};
static_assert(sizeof(TensorDescriptor) == 304);
static_assert(offsetof(TensorDescriptor, offset) == 280);

constexpr std::uint64_t padded_to_64(std::uint64_t bytes) {
    return (bytes + kDataAlignment - 1) / kDataAlignment * kDataAlignment;
}

}  // namespace zx
