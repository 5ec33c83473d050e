// A program in C++. It calls OpenCL too, as one that makes kernels does: what the library's header
// hands out must be had from its link line.
#include <iostream>
#include <memory>
#include <zorvex.h>

int main() {
    const std::unique_ptr<zx_tensor_t, void (*)(zx_tensor_t*)> tensor(zx_tensor_create_2d(2, 3),
                                                                      zx_tensor_release);
    if (!tensor || zx_tensor_size(tensor.get()) != 6) return 1;
    if (zx_tensor_set_2d(tensor.get(), 1, 2, 7.0F) != ZX_OK) return 1;
    if (zx_tensor_data(tensor.get())[5] != 7.0F) return 1;
    if (clReleaseKernel(nullptr) != CL_INVALID_KERNEL) return 1;
    std::cout << "zorvex " << ZX_VERSION_MAJOR << '.' << ZX_VERSION_MINOR << '.' << ZX_VERSION_PATCH
              << " from C++\n";
    return 0;
}
