// The variants of the inner loops that this processor has.
#pragma once

#include "simd/simd.hpp"

#include <vector>

namespace zx::test {

inline std::vector<const simd::Operations*> variants() {
    std::vector<const simd::Operations*> found;
    for (const simd::Variant which :
         {simd::Variant::kScalar, simd::Variant::kAvx2, simd::Variant::kAvx512}) {
        if (const simd::Operations* table = simd::variant(which)) found.push_back(table);
    }
    return found;
}

}  // namespace zx::test
