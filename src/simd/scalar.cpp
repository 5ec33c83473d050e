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

void dot_gathered(const float* const* rows, size_t count, const float* x, size_t d, float* out) {
    for (size_t j = 0; j < count; ++j) out[j] = dot(rows[j], x, d);
}

void dot_pairs(const float* const* a, const float* const* b, size_t count, size_t d, float* out) {
    for (size_t j = 0; j < count; ++j) out[j] = dot(a[j], b[j], d);
}

size_t find_greater(const float* values, size_t from, size_t count, float threshold) {
    size_t i = from;
    while (i < count && !(values[i] > threshold)) ++i;
    return i;
}

size_t count_greater(const float* values, size_t count, float threshold) {
    size_t greater = 0;
    for (size_t i = 0; i < count; ++i) greater += static_cast<size_t>(values[i] > threshold);
    return greater;
}

void group_maxima(const float* values, size_t count, size_t groups, float* out) {
    for (size_t g = 0; g < groups; ++g) out[g] = -__builtin_inff();
    for (size_t first = 0; first < count; first += groups) {
        const size_t end = count - first < groups ? count - first : groups;
        for (size_t g = 0; g < end; ++g)
            out[g] = values[first + g] > out[g] ? values[first + g] : out[g];
    }
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

bool is_identity(const uint32_t* ids, size_t count) {
    uint32_t differing = 0;
    for (size_t k = 0; k < count; ++k) differing |= ids[k] ^ static_cast<uint32_t>(k);
    return differing == 0;
}

bool contains(const uint32_t* ids, size_t count, uint32_t id) {
    for (size_t k = 0; k < count; ++k)
        if (ids[k] == id) return true;
    return false;
}

void transpose(const float* const* rows, size_t count, size_t d, float* out, size_t stride) {
    for (size_t k = 0; k < d; ++k)
        for (size_t j = 0; j < count; ++j) out[k * stride + j] = rows[j][k];
}

void add_scaled_rows(float* out, const float* const* rows, const float* factors, size_t count,
                     size_t d) {
    for (size_t j = 0; j < count; ++j)
        for (size_t k = 0; k < d; ++k) out[k] += rows[j][k] * factors[j];
}

void add_weighted_squares(float* a, const float* const* rows, const float* weights, size_t count,
                          size_t d, float* /*scratch*/) {
    for (size_t j = 0; j < count; ++j)
        for (size_t k = 0; k < d; ++k)
            for (size_t l = k; l < d; ++l) a[k * d + l] += rows[j][k] * (rows[j][l] * weights[j]);
}

void add_products_from(const Products& p, bool upper) {
    for (size_t k = 0; k < p.count; ++k)
        for (size_t i = p.first_row; i < p.rows; ++i)
            for (size_t j = upper ? i : 0; j < p.columns; ++j)
                p.c[i * p.c_stride + j] +=
                    p.left[k * p.left_stride + i] * p.right[k * p.right_stride + j];
}

void add_products(const Products& products) {
    add_products_from(products, false);
}

void add_upper_products(const Products& products) {
    add_products_from(products, true);
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

// a becomes U, whose diagonal holds the pivots; b becomes the solution of U' D^-1 y = b.
void factorise(const PositiveSystem& system) {
    const size_t stride = system.stride;
    for (size_t p = 0; p < system.size; ++p) {
        const float* const pivot_row = system.a + p * stride;
        system.reciprocals[p] = 1.0f / pivot_row[p];
        for (size_t q = p + 1; q < system.size; ++q) {
            const float factor = -(pivot_row[q] * system.reciprocals[p]);
            float* const row = system.a + q * stride;
            for (size_t c = q; c < system.size; ++c) row[c] += factor * pivot_row[c];
            system.b[q] += factor * system.b[p];
        }
    }
}

// U x = y. The products with the unknowns of later blocks of kRowUnit make sixteen interleaved
// partial sums, halved four times as in dot_two; those of the own block are taken off one by one,
// from the last.
void substitute_back(const PositiveSystem& system) {
    for (size_t p = system.size; p-- > 0;) {
        const float* const row = system.a + p * system.stride;
        const size_t block_end = (p / kRowUnit + 1) * kRowUnit;
        const float later = dot_16(row + block_end, system.b + block_end, system.size - block_end);
        float sum = system.b[p] - later;
        for (size_t q = block_end; q-- > p + 1;) sum -= row[q] * system.b[q];
        system.b[p] = sum * system.reciprocals[p];
    }
}

void solve_positive(const PositiveSystem* systems, size_t count) {
    for (size_t s = 0; s < count; ++s) {
        factorise(systems[s]);
        substitute_back(systems[s]);
    }
}

}  // namespace

const Operations kScalarOperations = {
    .name = "scalar",
    .fused = false,
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
