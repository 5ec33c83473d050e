// Changes to the files that the tool reads.
#pragma once

#include "target.hpp"

#include <string>
#include <string_view>

namespace zx::fuzz {

// A byte of options, then lines of fields; those of a Matrix Market file, whose size line is most
// often made right; and those of a gzip file, which are compressed again.
std::string mutate_rows(std::string bytes, Random& random);
std::string mutate_matrix(std::string bytes, Random& random);
std::string mutate_gzip(std::string bytes, Random& random);

// An ids file, most often with the right hash at its end.
std::string mutate_ids(std::string bytes, Random& random);

// The head's length is most often made right, and now and then all is put together anew.
std::string mutate_npy(std::string bytes, Random& random);
std::string mutate_safetensors(std::string bytes, Random& random);
std::string mutate_json(std::string text, Random& random);

// A model file and its ids file in one: the length of the model, four bytes, then both.
struct Pair {
    std::string model;
    std::string ids;
};
Pair split_pair(std::string_view bytes);
std::string join_pair(const Pair& pair);
std::string mutate_pair(std::string bytes, Random& random);

std::string compressed(std::string_view text);

}  // namespace zx::fuzz
