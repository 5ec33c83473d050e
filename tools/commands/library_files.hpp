// Files that the library writes. Its exports do not test what they write, and a full disk makes a
// short file and no failure; so each is written under a temporary name, and has to be as long as
// what it holds before it is settled and may take its place.
#pragma once

#include "atomic_file.hpp"
#include "zorvex.h"

#include <string>

namespace zxtool {

// Each writes through the temporary file's name and settles the file. `target` is for messages.
// Throws Error(kInputOutput) and Error(kOutOfMemory).
void write_npy(const zx_tensor_t& tensor, AtomicFile& file, const std::string& target);
void write_raw(const zx_tensor_t& tensor, AtomicFile& file, const std::string& target);
void write_safetensors(const zx_model_t& model, AtomicFile& file, const std::string& target);
// One tensor; the name may be any text.
void write_safetensors(zx_tensor_t& tensor, const std::string& name, AtomicFile& file,
                       const std::string& target);
void write_metadata(const zx_model_t& model, AtomicFile& file, const std::string& target);
void write_schema(const zx_model_t& model, AtomicFile& file, const std::string& target);

}  // namespace zxtool
