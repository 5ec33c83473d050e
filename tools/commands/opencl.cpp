#include "opencl.hpp"

#include <CL/cl.h>

#include <algorithm>

namespace zxtool {
namespace {

constexpr struct {
    cl_device_type bit;
    const char* name;
} kTypes[] = {{CL_DEVICE_TYPE_GPU, "gpu"},
              {CL_DEVICE_TYPE_CPU, "cpu"},
              {CL_DEVICE_TYPE_ACCELERATOR, "accelerator"},
              {CL_DEVICE_TYPE_CUSTOM, "custom"}};

// A text that clGetPlatformInfo or clGetDeviceInfo gives; empty when it refuses.
template <typename Query, typename Handle>
std::string text_of(Query query, Handle handle, cl_uint what) {
    std::size_t size = 0;
    if (query(handle, what, 0, nullptr, &size) != CL_SUCCESS) return {};
    std::string text(size, '\0');
    if (query(handle, what, size, text.data(), nullptr) != CL_SUCCESS) return {};
    return text.substr(0, text.find('\0'));
}

// A number that a device gives; 0 when it refuses.
template <typename Number>
Number number_of(cl_device_id device, cl_device_info what) {
    Number number{};
    const bool given =
        clGetDeviceInfo(device, what, sizeof(number), &number, nullptr) == CL_SUCCESS;
    return given ? number : Number{};
}

void add_devices_of(cl_platform_id platform, cl_device_type type,
                    std::vector<OpenClDevice>& devices) {
    cl_uint count = 0;
    if (clGetDeviceIDs(platform, type, 0, nullptr, &count) != CL_SUCCESS || count == 0) return;
    std::vector<cl_device_id> ids(count);
    if (clGetDeviceIDs(platform, type, count, ids.data(), nullptr) != CL_SUCCESS) return;
    for (const cl_device_id id : ids)
        devices.push_back({.name = text_of(clGetDeviceInfo, id, CL_DEVICE_NAME),
                           .type = number_of<cl_device_type>(id, CL_DEVICE_TYPE),
                           .global_memory = number_of<cl_ulong>(id, CL_DEVICE_GLOBAL_MEM_SIZE),
                           .compute_units = number_of<cl_uint>(id, CL_DEVICE_MAX_COMPUTE_UNITS)});
}

// Custom devices, which run no kernels of ours, are not among "all" of them, and come last.
std::vector<OpenClDevice> devices_of(cl_platform_id platform) {
    std::vector<OpenClDevice> devices;
    add_devices_of(platform, CL_DEVICE_TYPE_ALL, devices);
    add_devices_of(platform, CL_DEVICE_TYPE_CUSTOM, devices);
    return devices;
}

}  // namespace

bool OpenClDevice::is_gpu() const {
    return (type & CL_DEVICE_TYPE_GPU) != 0;
}

const char* OpenClDevice::type_name() const {
    for (const auto& [bit, type_name] : kTypes)
        if ((type & bit) != 0) return type_name;
    return "other";
}

std::vector<OpenClPlatform> opencl_platforms() {
    cl_uint count = 0;
    if (clGetPlatformIDs(0, nullptr, &count) != CL_SUCCESS || count == 0) return {};
    std::vector<cl_platform_id> ids(count);
    if (clGetPlatformIDs(count, ids.data(), nullptr) != CL_SUCCESS) return {};
    std::vector<OpenClPlatform> platforms;
    platforms.reserve(count);
    for (const cl_platform_id id : ids)
        platforms.push_back({.name = text_of(clGetPlatformInfo, id, CL_PLATFORM_NAME),
                             .version = text_of(clGetPlatformInfo, id, CL_PLATFORM_VERSION),
                             .devices = devices_of(id)});

    std::vector<OpenClDevice>& first = platforms.front().devices;
    const auto gpu = std::find_if(first.begin(), first.end(),
                                  [](const auto& device) { return device.is_gpu(); });
    if (gpu != first.end())
        gpu->engine_takes = true;
    else if (!first.empty() && (first.front().type & CL_DEVICE_TYPE_CUSTOM) == 0)
        first.front().engine_takes = true;
    return platforms;
}

std::optional<OpenClDevice> device_for_engine(const std::vector<OpenClPlatform>& platforms) {
    for (const OpenClPlatform& platform : platforms)
        for (const OpenClDevice& device : platform.devices)
            if (device.engine_takes) return device;
    return std::nullopt;
}

}  // namespace zxtool
