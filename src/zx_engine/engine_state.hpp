// The engine record: the process's one connection to an OpenCL device, and the verbosity level.
// Unsynchronised, deliberately: it changes at start-up and shut-down, on one thread, and is only
// read in between.
#pragma once

#include "zorvex.h"

#include <cstdint>

namespace zx {

struct zx_engine_state {
    cl_platform_id platform{};
    cl_device_id device{};
    cl_context context{};
    cl_command_queue queue{};
    cl_program program{};  // null until kernels are built
    char platform_name[128]{};
    char device_name[128]{};
    std::uint64_t device_type{};
    std::uint64_t global_mem_size{};
    std::uint64_t local_mem_size{};
    std::uint32_t max_work_group_size{};
    std::uint32_t compute_units{};
    std::uint8_t initialized{};
    std::uint8_t kernels_compiled{};
    std::uint8_t gpu_enabled{};
    std::int32_t verbosity = -1;
};

// A fresh record is what it is before start-up and after shut-down.
inline zx_engine_state g_engine;

// Levels are compared as unsigned numbers, so that the initial -1 prints everything.
inline bool prints_information() {
    return static_cast<std::uint32_t>(g_engine.verbosity) > 1;
}
inline bool prints_warnings() {
    return g_engine.verbosity != 0;
}

}  // namespace zx
