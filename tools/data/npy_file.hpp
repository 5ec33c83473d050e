// NumPy's array files, versions 1 to 3, whoever wrote them, of any bytes.
// The format: the NumPy manual, numpy.lib.format.
#pragma once

#include "regular_file.hpp"
#include "stored_tensor.hpp"

namespace zxtool {

// What the head says: an array of numbers or truth values whose elements are all the rest of the
// file. Throws Error(kBadInput), and Error(kInputOutput).
StoredTensor read_npy(const RegularFile& file);

}  // namespace zxtool
