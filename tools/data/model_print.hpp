// What the tool itself looks at in a model file, around the library's saving and loading.
#pragma once

#include "ids_file.hpp"

#include <cstdint>
#include <string>

namespace zxtool {

// The length and the hash of a model file. Throws Error(kInputOutput).
ModelPrint print_of(const std::string& path);

// The length that a model file's head says it has. Throws Error(kInputOutput), and Error(kBadModel)
// when the file has no such head.
std::uint64_t declared_length(const std::string& path);

// Refuses a file that is not as long as its head says, or whose tables cannot be in it: the library
// makes tables as large as the file asks for before it reads them, and a damaged file may ask for
// more memory than there is. Throws Error(kBadModel), and Error(kInputOutput).
void check_model_file(const std::string& path);

}  // namespace zxtool
