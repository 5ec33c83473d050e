// The OpenCL shim as a library that is loaded before a program. Variables steer it:
//   ZORVEX_OPENCL_LOG     the file in which each call is written with its arguments, each object
//                         that is made, and at the end each that is left
//   ZORVEX_OPENCL_REFUSE  NAME:NUMBER, the one call that is refused

#include "opencl_shim.hpp"

#include <cstdlib>

namespace {

struct Steering {
    Steering() {
        // The list of objects is made before this, and so gone after it.
        zx::test::opencl_objects();
        // Added to, for a program that this one starts, such as a linker, opens the file as well.
        if (const char* const path = std::getenv("ZORVEX_OPENCL_LOG"))
            zx::test::opencl().log = std::fopen(path, "a");
        const char* const refused = std::getenv("ZORVEX_OPENCL_REFUSE");
        if (!refused) return;
        const std::string_view call = refused;
        const std::size_t colon = call.find(':');
        if (colon == std::string_view::npos) return;
        zx::test::opencl().refused_once[std::string(call.substr(0, colon))] =
            std::atoi(refused + colon + 1);
    }
    ~Steering() {
        std::FILE* const log = zx::test::opencl().log;
        if (!log) return;
        for (const auto& [object, kind] : zx::test::opencl_objects())
            (void)std::fprintf(log, "left %s %p\n", kind.c_str(), object);
        (void)std::fclose(log);
        zx::test::opencl().log = nullptr;
    }
    Steering(const Steering&) = delete;
    Steering& operator=(const Steering&) = delete;
};

const Steering kSteering;

}  // namespace
