// The library's container, read with care: a model file, or a tensor file, which has the same head.
//
// A header, a table of tensor descriptors, zeros up to a multiple of 64, then each tensor's 32-bit
// floats; in a model file, each tensor's are followed by zeros up to a multiple of 64. All integers
// are little-endian, and so are the processors this runs on: the structs are the bytes.
#pragma once

#include "regular_file.hpp"
#include "stored_tensor.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zxtool {

static_assert(std::endian::native == std::endian::little);

inline constexpr std::string_view kContainerMagic = "ZXQM";
inline constexpr std::uint32_t kContainerVersion = 1;
// The type of a container that holds a tensor and no model, and that of the only kind of model.
inline constexpr std::uint32_t kNoModel = 0xFFFFFFFF;
inline constexpr std::uint32_t kFactorisation = 0;

struct ContainerHeader {
    char magic[4];
    std::uint32_t version;
    std::uint32_t model_type;
    std::uint32_t num_tensors;
    std::uint64_t data_offset;  // of the first tensor's data
    std::uint64_t file_size;
    char model_name[64];
    char reserved[56];
};
static_assert(sizeof(ContainerHeader) == 152);
static_assert(offsetof(ContainerHeader, data_offset) == 16);
static_assert(offsetof(ContainerHeader, model_name) == 32);

struct ContainerDescriptor {
    char name[256];
    std::uint32_t ndim;
    std::uint32_t dims[4];
    std::uint32_t padding;
    std::uint64_t offset;  // of the data, from the start of the file
    std::uint64_t size;    // of the data, in bytes
    std::uint64_t reserved;
};
static_assert(sizeof(ContainerDescriptor) == 304);
static_assert(offsetof(ContainerDescriptor, padding) == 276);
static_assert(offsetof(ContainerDescriptor, offset) == 280);

// Where a descriptor begins.
constexpr std::uint64_t descriptor_at(std::uint64_t index) {
    return sizeof(ContainerHeader) + index * sizeof(ContainerDescriptor);
}

// The length of data with the zeros behind it.
constexpr std::uint64_t padded(std::uint64_t bytes) {
    constexpr std::uint64_t kAlignment = 64;
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

// Throws Error(kBadModel): "PATH: offset N: what".
[[noreturn]] void refuse_at(const RegularFile& file, std::uint64_t offset, const std::string& what);

// Whether the file begins like a container.
bool is_container(const RegularFile& file);

struct Container {
    ContainerHeader header{};
    std::vector<StoredTensor> tensors;
};

// What the head says, all of it possible: every tensor has 1 to 4 axes, none empty, and its numbers
// are in the file, which is as long as all of them together: going through them takes no longer
// than going through the file. Throws Error(kBadModel) that names the offset of what is not, and
// Error(kInputOutput).
Container read_container(const RegularFile& file);

}  // namespace zxtool
