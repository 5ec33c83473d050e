// safetensors files, whoever wrote them, of any bytes.
// The format: README of the safetensors project, "Format".
#pragma once

#include "regular_file.hpp"
#include "stored_tensor.hpp"

#include <vector>

namespace zxtool {

// What the header says, in the order of the data, which tensors fill without gaps or overlaps.
// Headers of more than a mebibyte are refused. Throws Error(kBadInput), and Error(kInputOutput).
std::vector<StoredTensor> read_safetensors(const RegularFile& file);

}  // namespace zxtool
