// Large blocks of memory that are used again in the fuzzers. A sanitizer would get each from the
// system and hand it back, page by page, which takes longer than reading what is to be read.
#pragma once

namespace zx::fuzz {

// From now on, or no longer. The fuzzer's own blocks, which it keeps, must not be among them: the
// search for leaks does not look into these.
void reuse_large_blocks(bool is_on);

}  // namespace zx::fuzz
