// Whether a model file is what the library writes, to the byte: much stricter than loading, which
// does without most of the head and never looks at padding.
#pragma once

#include "regular_file.hpp"

#include <functional>

namespace zxtool {

// Whether every number of a model that is loaded stands in its file: the two tables and, with
// biases, both of these, each once, and nothing else, of shapes that fit each other. The library
// fills what a file lacks with numbers of a new model. Throws Error(kBadModel) with the offset of
// what is wrong, and Error(kInputOutput).
void check_tensors(const RegularFile& file);

// Goes through the file from its first byte to its last: the fields of the head, tensors whose
// sizes fit their shapes, their data in order and without gaps or overlaps, the true length of the
// file, finite numbers, and padding of zeros. Throws Error(kBadModel) with the offset of the first
// fault, and Error(kInputOutput). `on_block` is called between blocks and may be empty.
void check_every_byte(const RegularFile& file, const std::function<void()>& on_block);

}  // namespace zxtool
