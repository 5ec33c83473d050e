// What every device operation does: check its operands, bring them to the device, set the kernel's
// arguments in order and enqueue it. An operation is its checks, its uploads and one
// enqueue().
#pragma once

#include "zorvex.h"
#include "zx_gpu/kernel_table.hpp"

#include <cstdint>
#include <initializer_list>

namespace zx::gpu {

// One argument of a kernel: a tensor's device buffer, some other buffer, an int or a float. A count
// is given as the unsigned number it is on the host; check_counts() has tested it.
class Argument {
  public:
    Argument(const zx_tensor_t* tensor) : Argument(tensor->device_buffer) {}
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the argument is the handle, which is a pointer
    Argument(cl_mem buffer) : size_(sizeof(buffer)) { value_.buffer = buffer; }
    Argument(std::uint64_t count) : size_(sizeof(cl_int)) {
        value_.integer = static_cast<cl_int>(count);
    }
    Argument(float real) : size_(sizeof(real)) { value_.real = real; }

    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] const void* data() const { return &value_; }

  private:
    std::size_t size_;
    union {
        cl_mem buffer;
        cl_int integer;
        float real;
    } value_{};
};

using Tensors = std::initializer_list<zx_tensor_t*>;

// The first checks of every operation: the device is ready (200), and no operand is null or without
// host data (3), in the order given. Records what it refuses.
zx_status_t check_operands(Tensors operands);

// The last checks, before anything is uploaded. Each records what it refuses.
//
// Every count that the kernel is given fits its 32-bit int (5).
zx_status_t check_counts(std::initializer_list<std::uint64_t> counts);
// A tensor and the number of its elements that the kernel reads or writes (304 when it has fewer).
struct Extent {
    const zx_tensor_t* tensor;
    std::uint64_t elements;
};
zx_status_t check_extents(std::initializer_list<Extent> extents);

// Uploads the tensors that are not current on the device, in order. The first failure is returned.
zx_status_t upload(Tensors tensors);

// The counts, the extents, then the uploads: all that stands between an operation's own checks and
// its kernel.
zx_status_t prepare(std::initializer_list<std::uint64_t> counts,
                    std::initializer_list<Extent> extents, Tensors uploads);

// Sets the arguments and enqueues the kernel over the global size of one or two dimensions, without
// waiting. False if OpenCL refuses or the kernel file lacks the kernel; nothing is recorded.
bool enqueue(zx_kernel_id_t kernel, std::initializer_list<Argument> arguments,
             std::initializer_list<std::size_t> global_size);

}  // namespace zx::gpu
