// Single tensors from files that the library reads: raw floats, tensor files, and tensors of
// models.
#pragma once

#include "regular_file.hpp"
#include "stored_tensor.hpp"
#include "zorvex.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zxtool {

struct TensorRelease {
    void operator()(zx_tensor_t* tensor) const { zx_tensor_release(tensor); }
};
using TensorPtr = std::unique_ptr<zx_tensor_t, TensorRelease>;

struct NamedTensor {
    TensorPtr tensor;
    std::string name;
};

// The extents in a text such as 3,4: 1 to 4 whole numbers from 1 on. Throws Error(kUsage).
std::vector<std::uint32_t> parse_shape(const std::string& text);

// Reads a file of nothing but a tensor's floats. It must have as many as the shape, or else
// Error(kBadInput) is thrown: the library would do without those that are left over. Also throws
// Error(kInputOutput) and Error(kOutOfMemory).
NamedTensor load_raw(const RegularFile& file, const std::vector<std::uint32_t>& shape);

// Reads a tensor of a tensor file whose head was read, and is thus possible. One without a name, or
// with the one name that no tensor of a safetensors file can have, is called "tensor". Throws as
// above.
NamedTensor load_tensor(const RegularFile& file, const StoredTensor& tensor);

}  // namespace zxtool
