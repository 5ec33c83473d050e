// Files that the library writes.
#pragma once

#include <string>
#include <vector>

namespace zx::fuzz {

// Of twenty models: with and without biases, of the least and of uneven extents.
std::vector<std::string> sample_models();

// Of tensors with one to four axes.
std::vector<std::string> sample_tensors();

// A small model in the formats of other programs.
std::string sample_npy();
std::string sample_safetensors();
std::vector<std::string> sample_json();

}  // namespace zx::fuzz
