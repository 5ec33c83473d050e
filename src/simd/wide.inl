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
//   fold_quads(v, out)       ((s0 + s2) + (s1 + s3)) of every group, kQuads results
//   transpose_quads(v)       the 4 x 4 floats that four registers have in each group, transposed
//   sum_16(lo or whole)      see dot_two in simd.hpp
//   greater_mask(v, t)       a bit for each lane that is greater
//   clear_negative(v)        0 where is_negative(), see simd.hpp, else the lane as it is

namespace {

using Floats = Vector::Floats;
using zx::simd::kPairBatch;

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

// Four registers of rows in flight hide the latency of the additions, which form one chain for
// each row.
constexpr size_t kChains = 4;
constexpr size_t kRowsInFlight = kChains * Vector::kQuads;

// The rows of a group are read side by side, in more streams than the processor's own prefetching
// follows, so each step fetches its share of the group after next: as many bytes as it reads.
// Fetching past the table's end does nothing, and the address is a number, since no pointer may go
// there.
constexpr size_t kGroupsAhead = 2;

void prefetch_share(const float* group, size_t d, size_t k) {
    constexpr size_t kLineBytes = 64;
    constexpr size_t kShareBytes = 4 * kRowsInFlight * sizeof(float);
    const uintptr_t share = reinterpret_cast<uintptr_t>(group) +
                            kGroupsAhead * kRowsInFlight * d * sizeof(float) + k / 4 * kShareBytes;
    for (size_t line = 0; line < kShareBytes; line += kLineBytes)
        // NOLINTNEXTLINE(performance-no-int-to-ptr): only fetched, never read through
        __builtin_prefetch(reinterpret_cast<const void*>(share + line));
}

void dot_rows(const float* rows, size_t row_count, const float* x, size_t d, float* out) {
    const size_t whole = d / 4 * 4;
    size_t r = 0;
    for (; r + kRowsInFlight <= row_count; r += kRowsInFlight) {
        const float* const group = rows + r * d;
        Floats s[kChains];
        for (Floats& chain : s) chain = Vector::zero();
        for (size_t k = 0; k < whole; k += 4) {
            prefetch_share(group, d, k);
            const Floats xk = Vector::repeat_quad(x + k);
            for (size_t c = 0; c < kChains; ++c) {
                const float* quads[Vector::kQuads];
                for (size_t q = 0; q < Vector::kQuads; ++q)
                    quads[q] = group + (c * Vector::kQuads + q) * d + k;
                s[c] = Vector::add(s[c], Vector::multiply(Vector::load_quads(quads), xk));
            }
        }
        for (size_t c = 0; c < kChains; ++c) Vector::fold_quads(s[c], out + r + c * Vector::kQuads);
        if (whole != d)
            for (size_t i = 0; i < kRowsInFlight; ++i)
                out[r + i] = add_tail(out[r + i], group + i * d, x, whole, d);
    }
    for (; r < row_count; ++r) out[r] = dot(rows + r * d, x, d);
}

void dot_pairs(const float* const* a, const float* const* b, size_t count, size_t d, float* out) {
    const size_t whole = d / 4 * 4;
    size_t j = 0;
    for (; j + kRowsInFlight <= count; j += kRowsInFlight) {
        Floats s[kChains];
        for (Floats& chain : s) chain = Vector::zero();
        for (size_t k = 0; k < whole; k += 4)
            for (size_t c = 0; c < kChains; ++c) {
                const float* quads_a[Vector::kQuads];
                const float* quads_b[Vector::kQuads];
                for (size_t q = 0; q < Vector::kQuads; ++q) {
                    quads_a[q] = a[j + c * Vector::kQuads + q] + k;
                    quads_b[q] = b[j + c * Vector::kQuads + q] + k;
                }
                s[c] = Vector::add(s[c], Vector::multiply(Vector::load_quads(quads_a),
                                                          Vector::load_quads(quads_b)));
            }
        for (size_t c = 0; c < kChains; ++c) Vector::fold_quads(s[c], out + j + c * Vector::kQuads);
        if (whole != d)
            for (size_t i = j; i < j + kRowsInFlight; ++i)
                out[i] = add_tail(out[i], a[i], b[i], whole, d);
    }
    for (; j < count; ++j) out[j] = dot(a[j], b[j], d);
}
static_assert(kPairBatch % kRowsInFlight == 0);

size_t find_greater(const float* values, size_t from, size_t count, float threshold) {
    const Floats t = Vector::broadcast(threshold);
    size_t i = from;
    for (; i + Vector::kLanes <= count; i += Vector::kLanes)
        if (const unsigned mask = Vector::greater_mask(Vector::load(values + i), t))
            return i + static_cast<size_t>(__builtin_ctz(mask));
    while (i < count && !(values[i] > threshold)) ++i;
    return i;
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

}  // namespace
