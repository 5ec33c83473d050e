// Recording a failure in one expression: `return kModule.fail(code, text)`.
#pragma once

#include "zorvex.h"
#include "zx_error/record.hpp"

#include <cstddef>

namespace zx {

// A source module, as the error record names it.
struct Module {
    const char* name;

    zx_status_t fail(zx_status_t status, const char* message, int line = __builtin_LINE()) const {
        zx_set_error_internal(status, name, line, message);
        return status;
    }

    // For constructors, whose result on failure is null.
    std::nullptr_t fail_null(zx_status_t status, const char* message,
                             int line = __builtin_LINE()) const {
        zx_set_error_internal(status, name, line, message);
        return nullptr;
    }
};

}  // namespace zx
