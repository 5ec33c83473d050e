// Which batches are offered to the device before the host computes them.
#pragma once

#include "zorvex.h"

#include <cstdint>

namespace zx::gpu {

// Smaller batches are not worth the way to the device.
inline constexpr std::uint32_t kMinDeviceBatch = 512;

inline bool device_takes(std::uint32_t count) {
    return zx_gpu_is_ready() && count >= kMinDeviceBatch;
}

}  // namespace zx::gpu
