// Stands between the library and OpenCL: writes down what the library asks for, refuses calls that
// a test wants to fail, and changes what a device says about itself. It defines the OpenCL
// functions that the library calls: linked into a program, or loaded before it (see
// opencl_preload.cpp), it is found first, and hands on to the OpenCL that is found next.
#pragma once

#include "zorvex.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zx::test {

struct BufferRequest {
    cl_mem_flags flags;
    std::size_t size;
    bool has_host;
    bool operator==(const BufferRequest&) const = default;
};

// A buffer that was made, and the host memory that it was made from.
struct MadeBuffer {
    cl_mem buffer;
    const void* host;
};

struct KernelArgument {
    std::string kernel;
    cl_uint index;
    std::size_t size;
    std::string value;  // its bytes; none for local memory
};

struct Transfer {
    bool is_write;
    bool is_blocking;
    std::size_t offset;
    std::size_t size;
    bool has_event;
    bool operator==(const Transfer&) const = default;
};

struct Launch {
    std::vector<std::size_t> global;
    std::vector<std::size_t> local;  // empty: none was passed
    bool has_offset;
    bool has_event;
    bool operator==(const Launch&) const = default;
};

// One call: its name, and its number among the calls of this name, from 1.
using NumberedCall = std::pair<std::string, int>;

struct OpenClShim {
    // What happened.
    std::vector<std::string> calls;  // names, in order; releases of null included
    std::vector<cl_device_type> device_types_asked;
    std::vector<cl_device_info> device_queries;
    std::vector<BufferRequest> buffers;
    std::vector<Transfer> transfers;
    std::vector<Launch> launches;
    std::vector<std::string> launched_kernels;
    std::vector<KernelArgument> kernel_arguments;
    std::vector<MadeBuffer> made_buffers;
    std::vector<cl_mem> released_buffers;
    std::vector<std::string> build_options;  // "(null)" for none
    bool queue_has_properties = false;
    bool context_has_properties = false;

    std::FILE* log = nullptr;  // where each call is written with its arguments

    // What is to happen. A name alone is refused always; the number is the call, from 1, that is.
    std::set<std::string> refused;
    std::map<std::string, int> refused_once;
    std::optional<cl_ulong> global_memory;
    std::optional<cl_device_type> device_type;
    std::optional<cl_uint> platform_count;
    std::optional<cl_uint> device_count;
    std::optional<std::string> build_log;  // its bytes, with or without a NUL at the end

    [[nodiscard]] std::ptrdiff_t count(std::string_view call) const;
    // The calls of these names only, in order.
    [[nodiscard]] std::vector<std::string> only(const std::set<std::string>& names) const;
    // All calls in order, as refused_once takes them.
    [[nodiscard]] std::vector<NumberedCall> numbered() const;
};

// The contexts, queues, programs, kernels and buffers that were made and not yet released, each
// with its kind. A reset of the shim leaves this alone.
using OpenClObjects = std::map<const void*, std::string>;
OpenClObjects& opencl_objects();

// Releases what was made since there were only these objects, and returns the kinds, sorted.
std::vector<std::string> release_objects_since(const OpenClObjects& before);

// The process's one shim; everything is passed through until a test says otherwise.
OpenClShim& opencl();

}  // namespace zx::test
