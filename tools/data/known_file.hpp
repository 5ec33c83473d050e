// A file of any of the library's formats: which one it is, and which tensors it has.
#pragma once

#include "regular_file.hpp"
#include "stored_tensor.hpp"

#include <string>
#include <vector>

namespace zxtool {

struct KnownFile {
    std::string format;  // "model", "tensor", "npy", "safetensors", "raw", "json"
    // In the order of their data. JSON has none: its tensors are those of the model that it
    // describes, and have shapes but no bytes.
    std::vector<StoredTensor> tensors;
};

// The format is the one that zx_detect_format() finds. Throws Error(kBadInput) for a file of no
// known format and for one that is not what its format says, Error(kBadModel) for model and tensor
// files that are not, and Error(kInputOutput).
KnownFile read_known_file(const RegularFile& file);

}  // namespace zxtool
