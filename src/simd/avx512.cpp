// The inner loops for processors with the AVX-512 foundation and its VL, DQ and BW extensions.

#include "simd/simd.hpp"

#include <immintrin.h>

namespace {

struct Vector {
    using Floats = __m512;
    static constexpr size_t kLanes = 16;
    static constexpr size_t kQuads = 4;
    static constexpr size_t kBlockRows = 8;

    static Floats zero() { return _mm512_setzero_ps(); }
    static Floats broadcast(float x) { return _mm512_set1_ps(x); }
    static Floats load(const float* p) { return _mm512_loadu_ps(p); }
    static void store(float* p, Floats v) { _mm512_storeu_ps(p, v); }
    static Floats add(Floats a, Floats b) { return _mm512_add_ps(a, b); }
    static Floats multiply(Floats a, Floats b) { return _mm512_mul_ps(a, b); }
    static Floats fused(Floats a, Floats b, Floats c) { return _mm512_fmadd_ps(a, b, c); }
    static Floats fused_negative(Floats a, Floats b, Floats c) { return _mm512_fnmadd_ps(a, b, c); }

    static Floats broadcast_lane(Floats v, size_t i) {
        return _mm512_permutexvar_ps(_mm512_set1_epi32(static_cast<int>(i)), v);
    }
    static float lane(Floats v, size_t i) { return _mm512_cvtss_f32(broadcast_lane(v, i)); }
    static Floats fused_after(size_t p, Floats a, Floats b, Floats c) {
        return _mm512_mask3_fmadd_ps(a, b, c, static_cast<__mmask16>(0xfffeU << p));
    }

    static Floats load_quads(const float* const* p) {
        const Floats one = _mm512_castps128_ps512(_mm_loadu_ps(p[0]));
        const Floats two = _mm512_insertf32x4(one, _mm_loadu_ps(p[1]), 1);
        const Floats three = _mm512_insertf32x4(two, _mm_loadu_ps(p[2]), 2);
        return _mm512_insertf32x4(three, _mm_loadu_ps(p[3]), 3);
    }
    static Floats repeat_quad(const float* p) { return _mm512_broadcast_f32x4(_mm_loadu_ps(p)); }
    static void transpose_quads(Floats* v) {
        const Floats low_01 = _mm512_shuffle_f32x4(v[0], v[1], 0x44);
        const Floats high_01 = _mm512_shuffle_f32x4(v[0], v[1], 0xee);
        const Floats low_23 = _mm512_shuffle_f32x4(v[2], v[3], 0x44);
        const Floats high_23 = _mm512_shuffle_f32x4(v[2], v[3], 0xee);
        v[0] = _mm512_shuffle_f32x4(low_01, low_23, 0x88);
        v[1] = _mm512_shuffle_f32x4(low_01, low_23, 0xdd);
        v[2] = _mm512_shuffle_f32x4(high_01, high_23, 0x88);
        v[3] = _mm512_shuffle_f32x4(high_01, high_23, 0xdd);
    }
    static void fold_quads(Floats v, float* out) {
        const Floats t = _mm512_add_ps(v, _mm512_permute_ps(v, 0b01001110));
        const Floats s = _mm512_add_ps(t, _mm512_permute_ps(t, 0b10110001));
        // Every lane of a group holds its sum; one of each, packed.
        const __m512i firsts = _mm512_set_epi32(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 8, 4, 0);
        _mm_storeu_ps(out, _mm512_castps512_ps128(_mm512_permutexvar_ps(firsts, s)));
    }
    static void transpose_within_quads(Floats* v) {
        const __m512d a = _mm512_castps_pd(_mm512_unpacklo_ps(v[0], v[1]));
        const __m512d b = _mm512_castps_pd(_mm512_unpackhi_ps(v[0], v[1]));
        const __m512d c = _mm512_castps_pd(_mm512_unpacklo_ps(v[2], v[3]));
        const __m512d d = _mm512_castps_pd(_mm512_unpackhi_ps(v[2], v[3]));
        v[0] = _mm512_castpd_ps(_mm512_unpacklo_pd(a, c));
        v[1] = _mm512_castpd_ps(_mm512_unpackhi_pd(a, c));
        v[2] = _mm512_castpd_ps(_mm512_unpacklo_pd(b, d));
        v[3] = _mm512_castpd_ps(_mm512_unpackhi_pd(b, d));
    }
    static float sum_16(const Floats* parts) {
        const __m256 eight =
            _mm256_add_ps(_mm512_castps512_ps256(*parts), _mm512_extractf32x8_ps(*parts, 1));
        const __m128 four =
            _mm_add_ps(_mm256_castps256_ps128(eight), _mm256_extractf128_ps(eight, 1));
        const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
        return _mm_cvtss_f32(_mm_add_ss(two, _mm_shuffle_ps(two, two, 1)));
    }
    static unsigned greater_mask(Floats v, Floats t) {
        return _mm512_cmp_ps_mask(v, t, _CMP_GT_OQ);
    }
    static bool any_equal(const uint32_t* p, uint32_t id) {
        return _mm512_cmpeq_epi32_mask(_mm512_loadu_si512(p),
                                       _mm512_set1_epi32(static_cast<int>(id))) != 0;
    }
    static Floats clear_negative(Floats v) {
        const __m512i place =
            _mm512_sub_epi32(_mm512_castps_si512(v), _mm512_set1_epi32(zx::simd::kFirstNegative));
        const __mmask16 kept =
            _mm512_cmpgt_epu32_mask(place, _mm512_set1_epi32(zx::simd::kNegativeSpan));
        return _mm512_maskz_mov_ps(kept, v);
    }
};

}  // namespace

#include "simd/wide.inl"
#include "simd/wide_dense.inl"

namespace zx::simd {

const Operations kAvx512Operations = {
    .name = "avx512",
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
