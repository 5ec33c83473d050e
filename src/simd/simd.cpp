// Chooses the table of inner loops, the only place that looks at the processor.

#include "simd/simd.hpp"

namespace zx::simd {

const Operations* variant(Variant which) {
    switch (which) {
        case Variant::kScalar:
            return &kScalarOperations;
#if defined(ZORVEX_WIDE_X86)
        case Variant::kAvx2:
            return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")
                       ? &kAvx2Operations
                       : nullptr;
        case Variant::kAvx512:
            return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
                           __builtin_cpu_supports("avx512dq") &&
                           __builtin_cpu_supports("avx512bw") && variant(Variant::kAvx2)
                       ? &kAvx512Operations
                       : nullptr;
#endif
        default:
            return nullptr;
    }
}

namespace {

const Operations* widest() {
    if (const Operations* table = variant(Variant::kAvx512)) return table;
    if (const Operations* table = variant(Variant::kAvx2)) return table;
    return &kScalarOperations;
}

// Set when the library is loaded, before any thread can ask.
const Operations* g_in_use = widest();

}  // namespace

const Operations& operations() {
    return *g_in_use;
}

void use(Variant which) {
    g_in_use = variant(which);
}

}  // namespace zx::simd
