// A kernel launched by hand, with arguments and sizes of the test's choice.
#pragma once

#include "common/owned.hpp"
#include "zorvex.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace zx::test {

struct KernelRelease {
    using pointer = cl_kernel;
    void operator()(cl_kernel kernel) const { (void)clReleaseKernel(kernel); }
};

// A kernel of its own, with its arguments set one after the other.
class Kernel {
  public:
    explicit Kernel(const char* name) : kernel_(zx_kernel_get(name)) {
        EXPECT_NE(kernel_.get(), nullptr) << name;
    }
    Kernel& arg(const BufferPtr& buffer) {
        const zx_buffer_t handle = buffer.get();
        return set(sizeof(zx_buffer_t), &handle);
    }
    Kernel& arg(float value) { return set(sizeof(value), &value); }
    Kernel& arg(std::size_t count) {
        const auto value = static_cast<cl_int>(count);
        return set(sizeof(value), &value);
    }
    Kernel& local(std::size_t bytes) { return set(bytes, nullptr); }
    [[nodiscard]] cl_kernel get() const { return kernel_.get(); }

  private:
    Kernel& set(std::size_t size, const void* value) {
        EXPECT_EQ(zx_kernel_set_arg(kernel_.get(), index_++, size, value), ZX_OK);
        return *this;
    }

    std::unique_ptr<cl_kernel, KernelRelease> kernel_;
    std::uint32_t index_ = 0;
};

inline BufferPtr uploaded(const std::vector<float>& values) {
    return BufferPtr(zx_buffer_create_with_data(values.data(), values.size() * sizeof(float),
                                                CL_MEM_READ_WRITE));
}

inline std::vector<float> read_back(const BufferPtr& buffer, std::size_t count) {
    std::vector<float> values(count);
    EXPECT_EQ(zx_buffer_read(buffer.get(), values.data(), count * sizeof(float)), ZX_OK);
    return values;
}

inline std::size_t round_up(std::size_t size, std::size_t step) {
    return (size + step - 1) / step * step;
}

}  // namespace zx::test
