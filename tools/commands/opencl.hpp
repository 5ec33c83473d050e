// What OpenCL finds on this machine, asked without the engine, which shows only the device that it
// took. The one place of the tool that calls OpenCL itself; nothing is computed here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zxtool {

struct OpenClDevice {
    std::string name;
    std::uint64_t type = 0;  // OpenCL's cl_device_type bits
    std::uint64_t global_memory = 0;
    std::uint32_t compute_units = 0;
    bool engine_takes = false;

    [[nodiscard]] bool is_gpu() const;
    // "gpu", "cpu", "accelerator", "custom"; with several of these bits the first one; "other".
    [[nodiscard]] const char* type_name() const;
};

struct OpenClPlatform {
    std::string name;
    std::string version;
    std::vector<OpenClDevice> devices;  // in OpenCL's order
};

// All platforms in OpenCL's order; none where there is no OpenCL. One device at most is marked as
// the one that the engine would take: of the first platform the first GPU, else the first device.
std::vector<OpenClPlatform> opencl_platforms();

// The device that is marked, if there is one.
std::optional<OpenClDevice> device_for_engine(const std::vector<OpenClPlatform>& platforms);

}  // namespace zxtool
