// The inner loops without wide instructions: the readable definition that every variant is tested
// against, and what runs where there is none.

#include "simd/simd.hpp"

namespace zx::simd {
namespace {

float dot(const float* a, const float* b, size_t d) {
    float s[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    size_t k = 0;
    for (; k + 4 <= d; k += 4)
        for (size_t lane = 0; lane < 4; ++lane) s[lane] += a[k + lane] * b[k + lane];
    float sum = (s[0] + s[2]) + (s[1] + s[3]);
    for (; k < d; ++k) sum += a[k] * b[k];
    return sum;
}

void dot_rows(const float* rows, size_t row_count, const float* x, size_t d, float* out) {
    for (size_t r = 0; r < row_count; ++r) out[r] = dot(rows + r * d, x, d);
}

void dot_pairs(const float* const* a, const float* const* b, size_t count, size_t d, float* out) {
    for (size_t j = 0; j < count; ++j) out[j] = dot(a[j], b[j], d);
}

size_t find_greater(const float* values, size_t from, size_t count, float threshold) {
    size_t i = from;
    while (i < count && !(values[i] > threshold)) ++i;
    return i;
}

float dot_16(const float* a, const float* b, size_t d) {
    float s[16] = {};
    size_t k = 0;
    for (; k + 16 <= d; k += 16)
        for (size_t lane = 0; lane < 16; ++lane) s[lane] += a[k + lane] * b[k + lane];
    for (size_t half = 8; half > 0; half /= 2)
        for (size_t lane = 0; lane < half; ++lane) s[lane] += s[lane + half];
    float sum = s[0];
    for (; k < d; ++k) sum += a[k] * b[k];
    return sum;
}

void dot_two(const float* w, const float* p, const float* n, size_t d, float* out) {
    out[0] = dot_16(w, p, d);
    out[1] = dot_16(w, n, d);
}

void bpr_update(float* w, float* p, float* n, size_t d, float decay, float g) {
    for (size_t k = 0; k < d; ++k) {
        const float old = w[k];
        w[k] = (old * decay + g * p[k]) + -g * n[k];
        p[k] = p[k] * decay + g * old;
        n[k] = n[k] * decay + -g * old;
    }
}

void relu(float* x, size_t count) {
    for (size_t k = 0; k < count; ++k) x[k] = is_negative(x[k]) ? 0.0f : x[k];
}

bool all_below(const uint32_t* ids, size_t count, uint32_t limit) {
    uint32_t beyond = 0;
    for (size_t k = 0; k < count; ++k) beyond |= static_cast<uint32_t>(ids[k] >= limit);
    return beyond == 0;
}

void add_scaled(float* out, const float* x, float factor, size_t d) {
    for (size_t k = 0; k < d; ++k) out[k] += x[k] * factor;
}

void add_outer_products(float* a, const float* left, const float* right, size_t count, size_t rows,
                        size_t stride) {
    for (size_t j = 0; j < count; ++j)
        for (size_t k = 0; k < rows; ++k)
            for (size_t l = k; l < stride; ++l)
                a[k * stride + l] += left[j * stride + k] * right[j * stride + l];
}

void eliminate(float* a, size_t k, size_t rows, size_t stride) {
    const float* const pivot_row = a + k * stride;
    for (size_t r = 0; r < rows; ++r) {
        if (r == k) continue;
        float* const row = a + r * stride;
        const float factor = row[k];
        for (size_t m = k + 1; m < stride; ++m) row[m] -= pivot_row[m] * factor;
    }
}

}  // namespace

const Operations kScalarOperations = {
    .name = "scalar",
    .fused = false,
    .dot = dot,
    .dot_rows = dot_rows,
    .dot_pairs = dot_pairs,
    .find_greater = find_greater,
    .dot_two = dot_two,
    .bpr_update = bpr_update,
    .relu = relu,
    .all_below = all_below,
    .add_scaled = add_scaled,
    .add_outer_products = add_outer_products,
    .eliminate = eliminate,
};

}  // namespace zx::simd
