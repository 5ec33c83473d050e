// The inner loops for processors with AVX2 and fused multiply-add.

#include "simd/simd.hpp"

#include <immintrin.h>

namespace {

struct Vector {
    using Floats = __m256;
    static constexpr size_t kLanes = 8;
    static constexpr size_t kQuads = 2;
    static constexpr size_t kBlockRows = 4;

    static Floats zero() { return _mm256_setzero_ps(); }
    static Floats broadcast(float x) { return _mm256_set1_ps(x); }
    static Floats load(const float* p) { return _mm256_loadu_ps(p); }
    static void store(float* p, Floats v) { _mm256_storeu_ps(p, v); }
    static Floats add(Floats a, Floats b) { return _mm256_add_ps(a, b); }
    static Floats multiply(Floats a, Floats b) { return _mm256_mul_ps(a, b); }
    static Floats fused(Floats a, Floats b, Floats c) { return _mm256_fmadd_ps(a, b, c); }
    static Floats fused_negative(Floats a, Floats b, Floats c) { return _mm256_fnmadd_ps(a, b, c); }

    static Floats broadcast_lane(Floats v, size_t i) {
        return _mm256_permutevar8x32_ps(v, _mm256_set1_epi32(static_cast<int>(i)));
    }
    static float lane(Floats v, size_t i) { return _mm256_cvtss_f32(broadcast_lane(v, i)); }
    static Floats fused_after(size_t p, Floats a, Floats b, Floats c) {
        const __m256i lanes = _mm256_set_epi32(7, 6, 5, 4, 3, 2, 1, 0);
        const __m256i after = _mm256_cmpgt_epi32(lanes, _mm256_set1_epi32(static_cast<int>(p)));
        return _mm256_blendv_ps(c, _mm256_fmadd_ps(a, b, c), _mm256_castsi256_ps(after));
    }

    static Floats load_quads(const float* const* p) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p[0])), _mm_loadu_ps(p[1]),
                                    1);
    }
    static Floats repeat_quad(const float* p) {
        return _mm256_broadcast_ps(reinterpret_cast<const __m128*>(p));
    }
    static void transpose_quads(Floats* v) {
        const Floats first = _mm256_permute2f128_ps(v[0], v[1], 0x20);
        v[1] = _mm256_permute2f128_ps(v[0], v[1], 0x31);
        v[0] = first;
    }
    static void fold_quads(Floats v, float* out) {
        const Floats t = _mm256_add_ps(v, _mm256_permute_ps(v, 0b01001110));
        const Floats s = _mm256_add_ps(t, _mm256_permute_ps(t, 0b10110001));
        out[0] = _mm256_cvtss_f32(s);
        out[1] = _mm_cvtss_f32(_mm256_extractf128_ps(s, 1));
    }
    static void transpose_within_quads(Floats* v) {
        const __m256d a = _mm256_castps_pd(_mm256_unpacklo_ps(v[0], v[1]));
        const __m256d b = _mm256_castps_pd(_mm256_unpackhi_ps(v[0], v[1]));
        const __m256d c = _mm256_castps_pd(_mm256_unpacklo_ps(v[2], v[3]));
        const __m256d d = _mm256_castps_pd(_mm256_unpackhi_ps(v[2], v[3]));
        v[0] = _mm256_castpd_ps(_mm256_unpacklo_pd(a, c));
        v[1] = _mm256_castpd_ps(_mm256_unpackhi_pd(a, c));
        v[2] = _mm256_castpd_ps(_mm256_unpacklo_pd(b, d));
        v[3] = _mm256_castpd_ps(_mm256_unpackhi_pd(b, d));
    }
    static float sum_16(const Floats* parts) {
        const Floats eight = _mm256_add_ps(parts[0], parts[1]);
        const __m128 four =
            _mm_add_ps(_mm256_castps256_ps128(eight), _mm256_extractf128_ps(eight, 1));
        const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
        return _mm_cvtss_f32(_mm_add_ss(two, _mm_shuffle_ps(two, two, 1)));
    }
    static unsigned greater_mask(Floats v, Floats t) {
        return static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(v, t, _CMP_GT_OQ)));
    }
    static bool any_equal(const uint32_t* p, uint32_t id) {
        const __m256i ids = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        const __m256i equal = _mm256_cmpeq_epi32(ids, _mm256_set1_epi32(static_cast<int>(id)));
        return _mm256_testz_si256(equal, equal) == 0;
    }
    static Floats clear_negative(Floats v) {
        const __m256i bits = _mm256_castps_si256(v);
        const __m256i place = _mm256_sub_epi32(bits, _mm256_set1_epi32(zx::simd::kFirstNegative));
        const __m256i within = _mm256_min_epu32(place, _mm256_set1_epi32(zx::simd::kNegativeSpan));
        const __m256i negative = _mm256_cmpeq_epi32(within, place);
        return _mm256_castsi256_ps(_mm256_andnot_si256(negative, bits));
    }
};

}  // namespace

#include "simd/wide.inl"
#include "simd/wide_dense.inl"

namespace zx::simd {

const Operations kAvx2Operations = {
    .name = "avx2",
    .fused = true,
    .dot = dot,
    .dot_rows = dot_rows,
    .dot_gathered = dot_gathered,
    .dot_pairs = dot_pairs,
    .find_greater = find_greater,
    .count_greater = count_greater,
    .group_maxima = group_maxima,
    .dot_two = dot_two,
    .bpr_update = bpr_update,
    .relu = relu,
    .all_below = all_below,
    .is_identity = is_identity,
    .contains = contains,
    .transpose = transpose,
    .add_scaled_rows = add_scaled_rows,
    .add_weighted_squares = add_weighted_squares,
    .add_products = add_products,
    .add_upper_products = add_upper_products,
    .eliminate = eliminate,
    .solve_positive = solve_positive,
};

}  // namespace zx::simd
