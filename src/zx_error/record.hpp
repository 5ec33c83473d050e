// The one way to record a failure. Exported besides the public interface, for the library's tests
// and for companion code that records failures of its own in the caller's error record.
#pragma once

#include "zorvex.h"

extern "C" {

// Fills the calling thread's error record, in place of what it held. `file` must be static text;
// `message` may be null and is cut to its first 255 characters.
ZX_API void zx_set_error_internal(zx_status_t status, const char* file, int line,
                                  const char* message);
}
