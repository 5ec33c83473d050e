// The inner loops: one table of operations for each kind of processor, chosen once at run time.
//
// Lanes are different results: a wider vector never changes the order of the additions within one
// result. The operations of the first group use separate multiplications and additions everywhere
// and give the same bits on every processor. Those of the second group fuse them where the
// processor can, so their last bits depend on that, and on nothing else.
//
// The variants' files are compiled for their instruction sets and see nothing but this header and
// code of internal linkage: a shared inline function compiled there could be the copy that the
// linker keeps for everybody.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zx::simd {

// How many rows, or pairs of rows, dot_gathered() and dot_pairs() take at a time: a vector's worth.
// More would do as much work for each, but ask for the rows of later batches in bursts.
inline constexpr size_t kGatherBatch = 4;

// Matrices of the second group have rows of whole vectors, this many floats or a multiple of it.
inline constexpr size_t kRowUnit = 16;

// The products of one side's columns with the other side's: c[i][j] += left[k][i] * right[k][j].
// Each array has its own distance between rows; `rows` and `columns` are multiples of kRowUnit.
struct Products {
    float* c;
    size_t c_stride;
    const float* left;
    size_t left_stride;
    const float* right;
    size_t right_stride;
    size_t count;  // the terms of each sum
    size_t rows;
    size_t columns;
    size_t first_row;  // rows before it may be left out
};

// A symmetric positive definite system: a, of which the upper triangle counts, times the solution
// equals b.
struct PositiveSystem {
    float* a;            // [size x stride]
    float* b;            // [size], the solution afterwards
    float* scaled;       // [kRowUnit x stride] scratch
    float* reciprocals;  // [size]: 1 / pivot afterwards
    size_t size;         // a multiple of kRowUnit
    size_t stride;       // likewise
};

// The bits of the numbers below 0: from the smallest denormal to minus infinity.
inline constexpr int32_t kFirstNegative = INT32_MIN + 1;
inline constexpr int32_t kNegativeSpan = 0x7f7fffff;

// Whether x is below 0, by its bits: a comparison would take denormals for zeros, in some
// instructions and not in others.
static inline bool is_negative(float x) {
    const uint32_t place = __builtin_bit_cast(uint32_t, x) - static_cast<uint32_t>(kFirstNegative);
    return place <= static_cast<uint32_t>(kNegativeSpan);
}

struct Operations {
    const char* name;
    bool fused;  // whether the second group fuses multiplications and additions

    // ---- First group: the same bits on every processor. ----

    // The dot product of two rows. Element k adds to partial sum k mod 4 for the first
    // floor(d / 4) * 4 elements; the sums combine as ((s0 + s2) + (s1 + s3)); the remaining
    // products are added one by one.
    float (*dot)(const float* a, const float* b, size_t d);

    // out[r] = dot(row r, x) for consecutive rows of d floats each.
    void (*dot_rows)(const float* rows, size_t row_count, const float* x, size_t d, float* out);

    // out[j] = dot(rows[j], x) for j below count, which is at most kGatherBatch.
    void (*dot_gathered)(const float* const* rows, size_t count, const float* x, size_t d,
                         float* out);

    // out[j] = dot(a[j], b[j]) for j below count, which is at most kGatherBatch.
    void (*dot_pairs)(const float* const* a, const float* const* b, size_t count, size_t d,
                      float* out);

    // The first index from `from` on whose value is strictly greater than the threshold; `count`
    // when there is none. A NaN is not greater.
    size_t (*find_greater)(const float* values, size_t from, size_t count, float threshold);

    // How many values are strictly greater than the threshold; a NaN is not.
    size_t (*count_greater)(const float* values, size_t count, float threshold);

    // out[g] = the greatest of the values at g, g + groups, g + 2 * groups, ...; NaNs are left out,
    // and minus infinity is what is left of none. There are at least as many values as groups.
    void (*group_maxima)(const float* values, size_t count, size_t groups, float* out);

    // Two dot products of one row: out[0] with p, out[1] with n. Sixteen interleaved partial sums
    // over the first floor(d / 16) * 16 elements, halved four times (s[i] + s[i + 8], then 4, 2,
    // 1); the remaining products are added one by one.
    void (*dot_two)(const float* w, const float* p, const float* n, size_t d, float* out);

    // One BPR step over three rows that do not overlap, elementwise, in these roundings:
    //   w' = ((w * decay) + g * p) + (-g) * n;  p' = (p * decay) + g * w;  n' = (n * decay) + (-g)
    //   * w
    void (*bpr_update)(float* w, float* p, float* n, size_t d, float decay, float g);

    // x[k] = 0 where is_negative(). Minus zero, a NaN and positive denormals stay.
    void (*relu)(float* x, size_t count);

    // Whether every id is below the limit. Reads all of them.
    bool (*all_below)(const uint32_t* ids, size_t count, uint32_t limit);

    // Whether every id is its own index. Reads all of them.
    bool (*is_identity)(const uint32_t* ids, size_t count);

    // Whether one of the ids is this one.
    bool (*contains)(const uint32_t* ids, size_t count, uint32_t id);

    // out[k][j] = rows[j][k] for k below d and j below count, a multiple of kRowUnit. Rows of out
    // are `stride` floats apart.
    void (*transpose)(const float* const* rows, size_t count, size_t d, float* out, size_t stride);

    // ---- Second group: fused where the processor can. ----

    // out[k] += rows[j][k] * factors[j], in the order of j, for k below d, a multiple of kRowUnit.
    void (*add_scaled_rows)(float* out, const float* const* rows, const float* factors,
                            size_t count, size_t d);

    // a[k][l] += rows[j][k] * (rows[j][l] * weights[j]) for every l >= k, in the order of j; some
    // elements below the diagonal are changed too. Rows have d floats, a multiple of kRowUnit, and
    // so have a's. `scratch` has room for `count` rows.
    void (*add_weighted_squares)(float* a, const float* const* rows, const float* weights,
                                 size_t count, size_t d, float* scratch);

    // Products in the order of k.
    void (*add_products)(const Products& products);

    // The same for j >= i only; some elements below the diagonal are changed too.
    void (*add_upper_products)(const Products& products);

    // One step of the elimination: a[r][m] -= a[k][m] * a[r][k] for every row r but k and every m
    // from k + 1 on. Columns up to k are scratch afterwards. Rows are `stride` floats, a multiple
    // of kRowUnit.
    void (*eliminate)(float* a, size_t k, size_t rows, size_t stride);

    // Solves systems side by side, which hides how long each step of a small one takes. The
    // results are those of one at a time: a = U' D^-1 U without pivoting (Golub, Van Loan, "Matrix
    // Computations", 4.1), every element changed in the order of the pivots, then the two
    // substitutions. A pivot that is not positive is not looked for; its reciprocal, which is not
    // positive or not finite, tells.
    void (*solve_positive)(const PositiveSystem* systems, size_t count);
};

enum class Variant { kScalar, kAvx2, kAvx512 };

// The table of a variant; null when the library was built without it or the processor lacks it.
const Operations* variant(Variant which);

// The table in use: the widest there is, unless a test chose another.
const Operations& operations();

// Makes a variant the one in use, for tests; it must be there.
void use(Variant which);

// The tables, each defined in its own file.
extern const Operations kScalarOperations;
extern const Operations kAvx2Operations;
extern const Operations kAvx512Operations;

}  // namespace zx::simd
