// Changes to inputs that know what the bytes mean, beside those of the fuzzer, which does not.
#pragma once

#include "target.hpp"

#include <span>
#include <string>
#include <string_view>

namespace zx::fuzz {

// A change that knows nothing: bits, bytes, runs of them.
std::string scramble(std::string bytes);

// A number that somebody may not have thought of: 0, 1, powers of two and their neighbours.
std::uint64_t odd_number(Random& random);

// One of some values.
template <class Values>
auto any_of(const Values& values, Random& random) {
    return std::data(values)[below(random, std::size(values))];
}

// A text with one of the words put in, a part gone, moved or repeated, or a scrambled one.
std::string change_text(std::string text, std::span<const std::string_view> words, Random& random);

// Model and tensor files: fields of the head, descriptors that come, go or change places, files
// that are too short or too long, and files that are in order again.
std::string mutate_container(std::string file, Random& random);

// A shape and a raw file; a kernel file; a name and a file.
std::string mutate_raw(std::string bytes, Random& random);
std::string mutate_kernel(std::string text, Random& random);
std::string mutate_format(std::string bytes, Random& random);

}  // namespace zx::fuzz
