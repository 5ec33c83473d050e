// What the engine says when it starts: the texts, and the device that it describes.
#pragma once

#include "opencl_shim.hpp"
#include "zorvex.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace zx::test {

inline constexpr const char* kNoKernelFile =
    "Kernel file not found. Searched: ./, src/kernels/, ../src/kernels/, "
    "/usr/local/share/zorvex/, /usr/share/zorvex/";
inline constexpr const char* kCpuOnlyLines =
    "[ZORVEX] Engine initialized (CPU-only mode)\n"
    "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback\n";
inline constexpr const char* kWarning =
    "[ZORVEX] Warning: GPU kernels not initialized (CPU fallback)\n";

// The device as OpenCL describes it, asked for without the library.
struct Device {
    cl_platform_id platform = nullptr;
    cl_device_id device = nullptr;
    std::string platform_name;
    std::string device_name;
    cl_device_type type = 0;
    cl_ulong global_memory = 0;
    cl_ulong local_memory = 0;
    cl_uint compute_units = 0;

    Device() {
        EXPECT_EQ(clGetPlatformIDs(1, &platform, nullptr), CL_SUCCESS);
        EXPECT_EQ(clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, 1, &device, nullptr), CL_SUCCESS);
        char text[1024] = {};
        EXPECT_EQ(clGetPlatformInfo(platform, CL_PLATFORM_NAME, sizeof(text), text, nullptr), 0);
        platform_name = text;
        EXPECT_EQ(clGetDeviceInfo(device, CL_DEVICE_NAME, sizeof(text), text, nullptr), 0);
        device_name = text;
        query(CL_DEVICE_TYPE, type);
        query(CL_DEVICE_GLOBAL_MEM_SIZE, global_memory);
        query(CL_DEVICE_LOCAL_MEM_SIZE, local_memory);
        query(CL_DEVICE_MAX_COMPUTE_UNITS, compute_units);
        opencl() = {};
    }

    template <typename Value>
    void query(cl_device_info what, Value& value) const {
        EXPECT_EQ(clGetDeviceInfo(device, what, sizeof(value), &value, nullptr), CL_SUCCESS);
    }

    // What GPU mode prints, for a memory size written as the lines show it.
    [[nodiscard]] std::string lines(const std::string& memory) const {
        return "[ZORVEX] Engine initialized (GPU mode)\n[ZORVEX] Platform: " + platform_name +
               "\n[ZORVEX] Device: " + device_name + "\n[ZORVEX] Global Memory: " + memory +
               " GB\n[ZORVEX] Compute Units: " + std::to_string(compute_units) + "\n";
    }

    [[nodiscard]] std::string lines() const {
        char memory[64];
        EXPECT_GT(std::snprintf(memory, sizeof(memory), "%.2f",
                                static_cast<double>(global_memory) / 1073741824.0),
                  0);
        return lines(memory);
    }
};

}  // namespace zx::test
