// The library's statuses as the tool's errors.
#pragma once

#include "zorvex.h"

#include <string>
#include <string_view>

namespace zxtool {

// What was being done and what the library says about a failure of it.
std::string failure_text(zx_status_t status, std::string_view doing);

// Throws unless the status is ZX_OK: Error(kOutOfMemory) when memory was short, else
// Error(kFailure), with what was being done and what the library says about it.
void check(zx_status_t status, std::string_view doing);

// Throws as check() for a constructor that gave null. Call zx_clear_error() before the constructor,
// so that the record is its own.
[[noreturn]] void fail_construction(std::string_view doing);

}  // namespace zxtool
