#include "library.hpp"

#include "error.hpp"

#include <fmt/format.h>

namespace zxtool {
namespace {

[[noreturn]] void fail(zx_status_t status, std::string_view doing) {
    const bool memory = status == ZX_ERR_OUT_OF_MEMORY || status == ZX_ERR_ALLOCATION_FAILED;
    throw Error(memory ? Exit::kOutOfMemory : Exit::kFailure, failure_text(status, doing));
}

}  // namespace

std::string failure_text(zx_status_t status, std::string_view doing) {
    const zx_error_context_t* record = zx_get_error_context();
    std::string text = fmt::format("{}: {}", doing, zx_status_string(status));
    if (record->code == status && record->message[0] != '\0')
        text += fmt::format(" ({})", record->message);
    return text;
}

void check(zx_status_t status, std::string_view doing) {
    if (status != ZX_OK) fail(status, doing);
}

void fail_construction(std::string_view doing) {
    // Only a record that cannot be had is refused without being recorded.
    const zx_status_t recorded = zx_get_last_error();
    fail(recorded == ZX_OK ? ZX_ERR_OUT_OF_MEMORY : recorded, doing);
}

}  // namespace zxtool
