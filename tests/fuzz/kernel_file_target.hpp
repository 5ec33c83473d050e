// The reader of kernel files, in front of a compiler that is made for it. The compiler refuses a
// text with "#refuse" before it compiles, fails to compile one with "#error" and says what follows
// it on the line, and finds the kernels whose names follow "void ".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zx::fuzz {

void read_kernel_file(std::string_view bytes);

std::vector<std::string> kernel_seeds();

}  // namespace zx::fuzz
