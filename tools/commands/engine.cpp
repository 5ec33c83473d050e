#include "engine.hpp"

#include "program_folder.hpp"
#include "zorvex.h"

#include <fmt/format.h>

namespace zxtool {
namespace {

// Why the engine, just started on a clear error record, has no kernels.
std::string reason_of_engine() {
    if (zx_gpu_is_ready()) return {};
    // Without a device the kernels are not even looked for, and nothing is recorded.
    if (zx_get_last_error() == ZX_OK) return "OpenCL has no device that can be opened";
    return fmt::format("the kernels of {} do not load: {}", zx_engine_device_name(),
                       zx_get_error_context()->message);
}

}  // namespace

Engine::Engine() {
    const bool went = in_program_folder([this] {
        why_not_ = distrust_of_kernel_file();
        if (!why_not_.empty()) return;
        zx_clear_error();
        // Refused only to a second engine.
        static_cast<void>(zx_engine_init());
        why_not_ = reason_of_engine();
    });
    if (!went) why_not_ = "the program's folder, or the way back from it, is closed";
}

Engine::~Engine() {
    // Some drivers do not survive a program that ends in the middle of a launch.
    if (why_not_.empty()) static_cast<void>(zx_engine_sync());
    zx_engine_shutdown();
    // That has brought the library's information lines back, which go to standard output.
    zx_set_verbosity(0);
}

}  // namespace zxtool
