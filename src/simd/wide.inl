// The inner loops over vectors, written once for every width. A variant's file defines the type
// Vector (its registers and their instructions) in the anonymous namespace, then includes this
// file, then defines its table. Everything here has internal linkage: each variant compiles a
// copy of its own.
//
// Vector offers:
//   Floats, kLanes           the register and its number of floats
//   kBlockRows               three times as many registers leave enough for a step's operands
//   zero, broadcast, load, store
//   lane(v, i)               one of its floats
//   broadcast_lane(v, i)     the same in every lane
//   add, multiply            one rounding each
//   fused, fused_negative    a * b + c and c - a * b in one rounding
//   fused_after(p, a, b, c)  fused in the lanes after p, c in the others
//   kQuads                   groups of four lanes in a register
//   load_quads(p)            four floats from each of kQuads addresses
//   repeat_quad(p)           four floats, repeated in every group
//   transpose_quads(v)       of kQuads registers: group j of the i-th and group i of the j-th
//   change
//                            places
//   fold_quads(v, out)       ((s0 + s2) + (s1 + s3)) of every group, kQuads results
//   transpose_within_quads(v)  the 4 x 4 floats that four registers have in each group, transposed
//   sum_16(lo or whole)      see dot_two in simd.hpp
//   greater_mask(v, t)       a bit for each lane that is greater
//   any_equal(p, id)         whether one of kLanes ids is this one
//   clear_negative(v)        0 where is_negative(), see simd.hpp, else the lane as it is

namespace {

using Floats = Vector::Floats;
using zx::simd::kGatherBatch;

// ((s0 + s2) + (s1 + s3)).
float fold_quad(__m128 s) {
    const __m128 t = _mm_add_ps(s, _mm_movehl_ps(s, s));
    return _mm_cvtss_f32(_mm_add_ss(t, _mm_shuffle_ps(t, t, 1)));
}

// The products from element k on, added one by one.
float add_tail(float sum, const float* a, const float* b, size_t k, size_t d) {
    for (; k < d; ++k) sum += a[k] * b[k];
    return sum;
}

float dot(const float* a, const float* b, size_t d) {
    const size_t whole = d / 4 * 4;
    __m128 s = _mm_setzero_ps();
    for (size_t k = 0; k < whole; k += 4)
        s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(a + k), _mm_loadu_ps(b + k)));
    return add_tail(fold_quad(s), a, b, whole, d);
}

// kGatherBatch dot products side by side, a group of lanes for each, so that every row keeps its
// own four sums. Rows are read by whole vectors, each cache line once: reading four floats of every
// row at a time takes four times the loads, and twice the time where they miss the first cache. The
// products are turned round in registers instead, and added in the order of k.
constexpr size_t kChains = kGatherBatch / Vector::kQuads;

// Rows that stand anywhere.
struct GatheredRows {
    const float* const* rows;
    Floats block(size_t row, size_t k) const { return Vector::load(rows[row] + k); }
    Floats quads(size_t chain, size_t k) const {
        const float* at[Vector::kQuads];
        for (size_t q = 0; q < Vector::kQuads; ++q) at[q] = rows[chain * Vector::kQuads + q] + k;
        return Vector::load_quads(at);
    }
};

// One row in the place of all.
struct SameRow {
    const float* x;
    Floats block(size_t, size_t k) const { return Vector::load(x + k); }
    Floats quads(size_t, size_t k) const { return Vector::repeat_quad(x + k); }
};

template <typename Right>
void dot_batch(const GatheredRows& left, const Right& right, size_t d, float* out) {
    Floats s[kChains];
    for (Floats& chain : s) chain = Vector::zero();
    size_t k = 0;
    for (; k + Vector::kLanes <= d; k += Vector::kLanes)
        for (size_t c = 0; c < kChains; ++c) {
            Floats products[Vector::kQuads];
            for (size_t q = 0; q < Vector::kQuads; ++q) {
                const size_t row = c * Vector::kQuads + q;
                products[q] = Vector::multiply(left.block(row, k), right.block(row, k));
            }
            Vector::transpose_quads(products);
            for (const Floats& product : products) s[c] = Vector::add(s[c], product);
        }
    for (; k + 4 <= d; k += 4)
        for (size_t c = 0; c < kChains; ++c)
            s[c] = Vector::add(s[c], Vector::multiply(left.quads(c, k), right.quads(c, k)));
    for (size_t c = 0; c < kChains; ++c) Vector::fold_quads(s[c], out + c * Vector::kQuads);
}

void dot_gathered(const float* const* rows, size_t count, const float* x, size_t d, float* out) {
    if (count < kGatherBatch) {
        for (size_t j = 0; j < count; ++j) out[j] = dot(rows[j], x, d);
        return;
    }
    dot_batch(GatheredRows{rows}, SameRow{x}, d, out);
    if (d % 4 != 0)
        for (size_t j = 0; j < kGatherBatch; ++j)
            out[j] = add_tail(out[j], rows[j], x, d / 4 * 4, d);
}

void dot_pairs(const float* const* a, const float* const* b, size_t count, size_t d, float* out) {
    if (count < kGatherBatch) {
        for (size_t j = 0; j < count; ++j) out[j] = dot(a[j], b[j], d);
        return;
    }
    dot_batch(GatheredRows{a}, GatheredRows{b}, d, out);
    if (d % 4 != 0)
        for (size_t j = 0; j < kGatherBatch; ++j)
            out[j] = add_tail(out[j], a[j], b[j], d / 4 * 4, d);
}

// The processor's own prefetching stops at the end of each page, so a batch also fetches the lines
// this far behind its own. Fetching past the table's end does nothing, and the address is a number,
// since no pointer may go there.
constexpr size_t kBytesAhead = 4096;

[[gnu::always_inline]] inline void prefetch_behind(const float* rows, size_t d) {
    constexpr size_t kLineBytes = 64;
    const uintptr_t begin = reinterpret_cast<uintptr_t>(rows) + kBytesAhead;
    for (size_t at = 0; at < kGatherBatch * d * sizeof(float); at += kLineBytes)
        // NOLINTNEXTLINE(performance-no-int-to-ptr): only fetched, never read through
        __builtin_prefetch(reinterpret_cast<const void*>(begin + at));
}

void dot_rows(const float* rows, size_t row_count, const float* x, size_t d, float* out) {
    for (size_t r = 0; r < row_count; r += kGatherBatch) {
        const size_t count = row_count - r < kGatherBatch ? row_count - r : kGatherBatch;
        const float* batch[kGatherBatch];
        for (size_t i = 0; i < count; ++i) batch[i] = rows + (r + i) * d;
        prefetch_behind(batch[0], d);
        dot_gathered(batch, count, x, d, out + r);
    }
}

size_t find_greater(const float* values, size_t from, size_t count, float threshold) {
    const Floats t = Vector::broadcast(threshold);
    size_t i = from;
    for (; i + Vector::kLanes <= count; i += Vector::kLanes)
        if (const unsigned mask = Vector::greater_mask(Vector::load(values + i), t))
            return i + static_cast<size_t>(__builtin_ctz(mask));
    while (i < count && !(values[i] > threshold)) ++i;
    return i;
}

size_t count_greater(const float* values, size_t count, float threshold) {
    const Floats t = Vector::broadcast(threshold);
    size_t greater = 0;
    size_t i = 0;
    for (; i + Vector::kLanes <= count; i += Vector::kLanes)
        greater += static_cast<size_t>(
            __builtin_popcount(Vector::greater_mask(Vector::load(values + i), t)));
    for (; i < count; ++i) greater += static_cast<size_t>(values[i] > threshold);
    return greater;
}

// The compiler finds the vectors by itself.
void group_maxima(const float* values, size_t count, size_t groups, float* out) {
    for (size_t g = 0; g < groups; ++g) out[g] = -__builtin_inff();
    for (size_t first = 0; first < count; first += groups) {
        const size_t end = count - first < groups ? count - first : groups;
        for (size_t g = 0; g < end; ++g)
            out[g] = values[first + g] > out[g] ? values[first + g] : out[g];
    }
}

void dot_two(const float* w, const float* p, const float* n, size_t d, float* out) {
    constexpr size_t kParts = 16 / Vector::kLanes;
    const size_t whole = d / 16 * 16;
    Floats with_p[kParts];
    Floats with_n[kParts];
    for (size_t i = 0; i < kParts; ++i) with_p[i] = with_n[i] = Vector::zero();
    for (size_t k = 0; k < whole; k += 16)
        for (size_t i = 0; i < kParts; ++i) {
            const size_t at = k + i * Vector::kLanes;
            const Floats wk = Vector::load(w + at);
            with_p[i] = Vector::add(with_p[i], Vector::multiply(wk, Vector::load(p + at)));
            with_n[i] = Vector::add(with_n[i], Vector::multiply(wk, Vector::load(n + at)));
        }
    out[0] = add_tail(Vector::sum_16(with_p), w, p, whole, d);
    out[1] = add_tail(Vector::sum_16(with_n), w, n, whole, d);
}

void bpr_update(float* w, float* p, float* n, size_t d, float decay, float g) {
    const Floats decays = Vector::broadcast(decay);
    const Floats steps = Vector::broadcast(g);
    const Floats back_steps = Vector::broadcast(-g);
    size_t k = 0;
    for (; k + Vector::kLanes <= d; k += Vector::kLanes) {
        const Floats wk = Vector::load(w + k);
        const Floats pk = Vector::load(p + k);
        const Floats nk = Vector::load(n + k);
        const Floats towards =
            Vector::add(Vector::multiply(wk, decays), Vector::multiply(pk, steps));
        Vector::store(w + k, Vector::add(towards, Vector::multiply(nk, back_steps)));
        Vector::store(p + k,
                      Vector::add(Vector::multiply(pk, decays), Vector::multiply(wk, steps)));
        Vector::store(n + k,
                      Vector::add(Vector::multiply(nk, decays), Vector::multiply(wk, back_steps)));
    }
    for (; k < d; ++k) {
        const float old = w[k];
        w[k] = (old * decay + g * p[k]) + -g * n[k];
        p[k] = p[k] * decay + g * old;
        n[k] = n[k] * decay + -g * old;
    }
}

void relu(float* x, size_t count) {
    size_t k = 0;
    for (; k + Vector::kLanes <= count; k += Vector::kLanes)
        Vector::store(x + k, Vector::clear_negative(Vector::load(x + k)));
    for (; k < count; ++k)
        if (zx::simd::is_negative(x[k])) x[k] = 0.0f;
}

// The compiler finds the vectors by itself.
bool all_below(const uint32_t* ids, size_t count, uint32_t limit) {
    uint32_t beyond = 0;
    for (size_t k = 0; k < count; ++k) beyond |= static_cast<uint32_t>(ids[k] >= limit);
    return beyond == 0;
}

// As it does here.
bool is_identity(const uint32_t* ids, size_t count) {
    uint32_t differing = 0;
    for (size_t k = 0; k < count; ++k) differing |= ids[k] ^ static_cast<uint32_t>(k);
    return differing == 0;
}

// The last vector may overlap the one before it.
bool contains(const uint32_t* ids, size_t count, uint32_t id) {
    if (count >= Vector::kLanes) {
        for (size_t k = 0; k + Vector::kLanes < count; k += Vector::kLanes)
            if (Vector::any_equal(ids + k, id)) return true;
        return Vector::any_equal(ids + count - Vector::kLanes, id);
    }
    for (size_t k = 0; k < count; ++k)
        if (ids[k] == id) return true;
    return false;
}

}  // namespace
