/*
 * zorvex_kernels.cl: the device side of Zorvex, in plain OpenCL C 1.2.
 *
 * The library finds this file, builds it with -cl-fast-relaxed-math and makes one kernel object for
 * each name. Conventions:
 *  - Tensors are dense, row-major and of 32-bit floats; element (r, c) of a matrix [R x C] stands at
 *    r * C + c. Indices are computed in size_t: an element number can exceed 32 bits.
 *  - Counts and dimensions are int and not negative; ids and indices are uint. Loops count in
 *    size_t: an int near its maximum would overflow in its step or in a sum.
 *  - Work-items are one for each element, row or triple, as each kernel says; the work-group size is
 *    the implementation's choice, and no kernel depends on it. Guards against the counts make a
 *    rounded-up global size harmless.
 *  - A flag is an int, 0 or 1. Where an optional buffer is absent, some other valid buffer stands in
 *    its place, which the kernel does not touch.
 *  - No pointer is restrict: a host may pass one buffer twice, and the in-place results are then
 *    those of the statements in order.
 *  - vload4 needs the alignment of a float only, so rows of any length are read four at a time, with
 *    a tail.
 */

/* ------------------------------------------------------------------------------------------------
 * Rows
 * ---------------------------------------------------------------------------------------------- */

static inline float horizontal_sum(float4 s) { return (s.x + s.z) + (s.y + s.w); }

static inline float horizontal_sum_16(float16 s) {
    const float8 halves = s.lo + s.hi;
    return horizontal_sum(halves.lo + halves.hi);
}

/* The dot product of two rows of d floats: four interleaved sums, then the tail. */
static inline float dot_rows(__global const float* a, __global const float* b, size_t d) {
    float4 s = (float4)(0.0f);
    size_t k = 0;
    for (; k + 4 <= d; k += 4) s += vload4(0, a + k) * vload4(0, b + k);
    float sum = horizontal_sum(s);
    for (; k < d; ++k) sum += a[k] * b[k];
    return sum;
}

/* ------------------------------------------------------------------------------------------------
 * Linear algebra and scoring
 * ---------------------------------------------------------------------------------------------- */

static inline float dense_unit(__global const float* input, __global const float* weight,
                               __global const float* bias, size_t K, int has_bias, size_t m,
                               size_t n) {
    const float sum = dot_rows(input + m * K, weight + n * K, K);
    return has_bias ? sum + bias[n] : sum;
}

/* output [M x N] = input [M x K] * transposed weight [N x K], plus bias [N]. Global size {M, N}. */
__kernel void dense_forward(__global const float* input, __global const float* weight,
                            __global const float* bias, __global float* output, const int M,
                            const int K, const int N, const int has_bias) {
    const size_t m = get_global_id(0);
    const size_t n = get_global_id(1);
    if (m >= (size_t)M || n >= (size_t)N) return;
    output[m * N + n] = dense_unit(input, weight, bias, K, has_bias, m, n);
}

/* The same, negative results becoming 0. */
__kernel void dense_forward_relu(__global const float* input, __global const float* weight,
                                 __global const float* bias, __global float* output, const int M,
                                 const int K, const int N, const int has_bias) {
    const size_t m = get_global_id(0);
    const size_t n = get_global_id(1);
    if (m >= (size_t)M || n >= (size_t)N) return;
    output[m * N + n] = fmax(dense_unit(input, weight, bias, K, has_bias, m, n), 0.0f);
}

#define TILE 16

/*
 * C [M x N] = A [M x K] * transposed B [N x K], a tile at a time through local memory. Arguments as
 * matmul_simple. Global size {M, N} rounded up to multiples of TILE, local size {TILE, TILE}. Not
 * launched by the library.
 *
 * Neighbouring work-items differ in local id 0. Within its group's tile of C a work-item takes the
 * element of row local id 1 and column local id 0, so neighbours load neighbouring elements of A
 * and of B and store neighbouring elements of C.
 */
__kernel void matmul_tiled(__global const float* A, __global const float* B, __global float* C,
                           const int M, const int K, const int N) {
    __local float tile_a[TILE][TILE];
    /* Neighbours read neighbouring rows of it: one more column puts these into different banks. */
    __local float tile_b[TILE][TILE + 1];
    const size_t col = get_local_id(0);
    const size_t row = get_local_id(1);
    const size_t m = get_group_id(0) * TILE + row;
    const size_t n = get_group_id(1) * TILE + col;
    const size_t tile_n = get_group_id(1) * TILE + row; /* the row of B this item loads */
    float sum = 0.0f;
    for (size_t k0 = 0; k0 < (size_t)K; k0 += TILE) {
        const size_t k = k0 + col;
        tile_a[row][col] = m < (size_t)M && k < (size_t)K ? A[m * K + k] : 0.0f;
        tile_b[row][col] = tile_n < (size_t)N && k < (size_t)K ? B[tile_n * K + k] : 0.0f;
        barrier(CLK_LOCAL_MEM_FENCE);
        for (int i = 0; i < TILE; ++i) sum += tile_a[row][i] * tile_b[col][i];
        barrier(CLK_LOCAL_MEM_FENCE);
    }
    if (m < (size_t)M && n < (size_t)N) C[m * N + n] = sum;
}

/* C [M x N] = A [M x K] * transposed B [N x K], like the dense weight. Global size {M, N}. */
__kernel void matmul_simple(__global const float* A, __global const float* B, __global float* C,
                            const int M, const int K, const int N) {
    const size_t m = get_global_id(0);
    const size_t n = get_global_id(1);
    if (m >= (size_t)M || n >= (size_t)N) return;
    C[m * N + n] = dot_rows(A + m * K, B + n * K, K);
}

/*
 * output [count x D] = the rows of table [R x D] that indices [count] name; an index of R or more
 * gives a row of zeros. Global size {count, D}.
 */
__kernel void embedding_lookup(__global const float* table, __global const uint* indices,
                               __global float* output, const int D, const int count, const int R) {
    const size_t r = get_global_id(0);
    const size_t d = get_global_id(1);
    if (r >= (size_t)count || d >= (size_t)D) return;
    const uint row = indices[r];
    output[r * D + d] = row < (uint)R ? table[(size_t)row * D + d] : 0.0f;
}

/* out [B] = dot products of the rows of A [B x D] and Bm [B x D]. Global size {B}. */
__kernel void batched_dot_product(__global const float* A, __global const float* Bm,
                                  __global float* out, const int B, const int D) {
    const size_t b = get_global_id(0);
    if (b >= (size_t)B) return;
    out[b] = dot_rows(A + b * D, Bm + b * D, D);
}

/* scores [I] = dot products of user [D] with every row of items [I x D]. Global size {I}. */
__kernel void score_all_items(__global const float* user, __global const float* items,
                              __global float* scores, const int I, const int D) {
    const size_t i = get_global_id(0);
    if (i >= (size_t)I) return;
    scores[i] = dot_rows(user, items + i * D, D);
}

/* ------------------------------------------------------------------------------------------------
 * Activations, in place over x [n]. Global size {n}.
 * ---------------------------------------------------------------------------------------------- */

__kernel void relu(__global float* x, const int n) {
    const size_t g = get_global_id(0);
    if (g < (size_t)n) x[g] = fmax(x[g], 0.0f);
}

__kernel void leaky_relu(__global float* x, const int n, const float alpha) {
    const size_t g = get_global_id(0);
    if (g >= (size_t)n) return;
    const float v = x[g];
    x[g] = v > 0.0f ? v : alpha * v;
}

/*
 * Below -88 the exponential overflows, and a reciprocal that a device refines from an estimate turns
 * infinity into no number.
 */
__kernel void sigmoid(__global float* x, const int n) {
    const size_t g = get_global_id(0);
    if (g >= (size_t)n) return;
    const float v = x[g];
    x[g] = v < -88.0f ? 0.0f : 1.0f / (1.0f + exp(-v));
}

/*
 * The largest arguments are answered without tanh, which a device may build from exponentials that
 * overflow, infinity over infinity. From 10 on, a float has no digits for the difference to 1.
 */
static inline float saturating_tanh(float x) {
    return fabs(x) > 20.0f ? copysign(1.0f, x) : tanh(x);
}

__kernel void tanh_act(__global float* x, const int n) {
    const size_t g = get_global_id(0);
    if (g < (size_t)n) x[g] = saturating_tanh(x[g]);
}

/* The tanh form: Hendrycks, Gimpel, "Gaussian Error Linear Units", 2016. */
__kernel void gelu(__global float* x, const int n) {
    const size_t g = get_global_id(0);
    if (g >= (size_t)n) return;
    const float v = x[g];
    x[g] = 0.5f * v * (1.0f + saturating_tanh(0.7978846f * (v + 0.044715f * (v * v * v))));
}

/* ------------------------------------------------------------------------------------------------
 * Normalisations. One work-item for each row.
 * ---------------------------------------------------------------------------------------------- */

/*
 * Softmax of each row of x [R x C], in place. Subtracting the maximum keeps exp in range. One pass
 * finds the maximum and the sum together: a new maximum scales down what was summed under the old
 * one (Milakov, Gimelshein, "Online normalizer calculation for softmax", 2018).
 */
__kernel void softmax_rows(__global float* x, const int R, const int C) {
    const size_t r = get_global_id(0);
    if (r >= (size_t)R) return;
    const size_t count = C;
    __global float* const row = x + r * count;
    /* Not minus infinity, from which an element of minus infinity has no difference. */
    float largest = -FLT_MAX;
    float4 sums = (float4)(0.0f);
    size_t c = 0;
    for (; c + 4 <= count; c += 4) {
        const float4 v = vload4(0, row + c);
        const float top = fmax(fmax(v.x, v.y), fmax(v.z, v.w));
        if (top > largest) {
            sums *= exp(largest - top);
            largest = top;
        }
        sums += exp(v - largest);
    }
    float sum = horizontal_sum(sums);
    for (; c < count; ++c) {
        if (row[c] > largest) {
            sum *= exp(largest - row[c]);
            largest = row[c];
        }
        sum += exp(row[c] - largest);
    }
    const float scale = 1.0f / sum;
    for (c = 0; c + 4 <= count; c += 4)
        vstore4(exp(vload4(0, row + c) - largest) * scale, 0, row + c);
    for (; c < count; ++c) row[c] = exp(row[c] - largest) * scale;
}

/* out [B] = cosines between the rows of A [B x D] and Bm [B x D]; 0 where a row is zero. */
__kernel void cosine_similarity(__global const float* A, __global const float* Bm,
                                __global float* out, const int B, const int D) {
    const size_t row = get_global_id(0);
    if (row >= (size_t)B) return;
    const size_t count = D;
    __global const float* const a = A + row * count;
    __global const float* const b = Bm + row * count;
    float4 products = (float4)(0.0f);
    float4 a_squares = (float4)(0.0f);
    float4 b_squares = (float4)(0.0f);
    size_t k = 0;
    for (; k + 4 <= count; k += 4) {
        const float4 u = vload4(0, a + k);
        const float4 v = vload4(0, b + k);
        products += u * v;
        a_squares += u * u;
        b_squares += v * v;
    }
    float product = horizontal_sum(products);
    float a_square = horizontal_sum(a_squares);
    float b_square = horizontal_sum(b_squares);
    for (; k < count; ++k) {
        product += a[k] * b[k];
        a_square += a[k] * a[k];
        b_square += b[k] * b[k];
    }
    const float norms = sqrt(a_square) * sqrt(b_square);
    out[row] = norms > 0.0f ? product / norms : 0.0f;
}

/*
 * Layer normalisation of each row of x [R x C], in place (Ba, Kiros, Hinton, 2016): to mean 0 and
 * variance 1, then times gamma [C] plus beta [C].
 *
 * One pass finds mean and squares together (Welford, 1962), in sixteen interleaved parts of the
 * row, each with its own mean, which are then merged (Chan, Golub, LeVeque, 1979). With fewer parts
 * the steps, each of which needs the one before, are what takes the time. Everything is counted from
 * the row's first element, so that rows far from 0 lose nothing.
 */
__kernel void layer_norm(__global float* x, __global const float* gamma,
                         __global const float* beta, const int R, const int C, const float eps) {
    const size_t r = get_global_id(0);
    if (r >= (size_t)R || C == 0) return;
    const size_t count = C;
    __global float* const row = x + r * count;
    const float origin = row[0];
    float16 means = (float16)(0.0f);
    float16 part_squares = (float16)(0.0f);
    size_t c = 0;
    for (; c + 16 <= count; c += 16) {
        const float16 difference = vload16(0, row + c) - origin - means;
        const float share = 1.0f / (float)(c / 16 + 1);
        means += difference * share;
        part_squares += difference * difference * (1.0f - share);
    }
    float mean = horizontal_sum_16(means) / 16.0f;
    const float16 apart = means - mean;
    float squares = horizontal_sum_16(part_squares + apart * apart * (float)(c / 16));
    for (; c < count; ++c) {
        const float difference = row[c] - origin - mean;
        const float share = 1.0f / (float)(c + 1);
        mean += difference * share;
        squares += difference * difference * (1.0f - share);
    }
    const float scale = 1.0f / sqrt(squares / (float)count + eps);
    for (c = 0; c + 4 <= count; c += 4) {
        const float4 normal = (vload4(0, row + c) - origin - mean) * scale;
        vstore4(normal * vload4(0, gamma + c) + vload4(0, beta + c), 0, row + c);
    }
    for (; c < count; ++c) row[c] = (row[c] - origin - mean) * scale * gamma[c] + beta[c];
}

/* ------------------------------------------------------------------------------------------------
 * Vectors of n floats
 * ---------------------------------------------------------------------------------------------- */

/* out = a + b. Global size {n}. */
__kernel void vec_add(__global const float* a, __global const float* b, __global float* out,
                      const int n) {
    const size_t g = get_global_id(0);
    if (g < (size_t)n) out[g] = a[g] + b[g];
}

/*
 * out = a + b, four elements for each work-item, the last one taking what is left. Arguments as
 * vec_add. Global size {(n + 3) / 4}. Not launched by the library.
 */
__kernel void vec_add_vec4(__global const float* a, __global const float* b, __global float* out,
                           const int n) {
    const size_t first = get_global_id(0) * 4;
    if (first + 4 <= (size_t)n) {
        vstore4(vload4(0, a + first) + vload4(0, b + first), 0, out + first);
        return;
    }
    for (size_t g = first; g < (size_t)n; ++g) out[g] = a[g] + b[g];
}

/* x = x * s. Global size {n}. */
__kernel void vec_scale(__global float* x, const float s, const int n) {
    const size_t g = get_global_id(0);
    if (g < (size_t)n) x[g] *= s;
}

/* y = alpha * x + y. Global size {n}. */
__kernel void vec_axpy(const float alpha, __global const float* x, __global float* y, const int n) {
    const size_t g = get_global_id(0);
    if (g < (size_t)n) y[g] = alpha * x[g] + y[g];
}

/*
 * y = alpha * x + y, four elements for each work-item, the last one taking what is left. Arguments
 * as vec_axpy. Global size {(n + 3) / 4}. Not launched by the library.
 */
__kernel void vec_axpy_vec4(const float alpha, __global const float* x, __global float* y,
                            const int n) {
    const size_t first = get_global_id(0) * 4;
    if (first + 4 <= (size_t)n) {
        vstore4(alpha * vload4(0, x + first) + vload4(0, y + first), 0, y + first);
        return;
    }
    for (size_t g = first; g < (size_t)n; ++g) y[g] = alpha * x[g] + y[g];
}

/* ------------------------------------------------------------------------------------------------
 * Bayesian personalised ranking (Rendle, Freudenthaler, Gantner, Schmidt-Thieme, UAI 2009)
 * ---------------------------------------------------------------------------------------------- */

/* learning rate * sigma(-x), cut off where the exponential saturates. */
static inline float bpr_step(float x, float lr) {
    if (x > 35.0f) return 0.0f;
    if (x < -35.0f) return lr;
    return lr * (1.0f / (1.0f + exp(x)));
}

/*
 * Element k of one update: the rows shrink, then move. Every statement reads what the one before it
 * wrote, so the result is the sequential one also when two of the rows are the same memory.
 */
static inline void bpr_update_element(__global float* u, __global float* i, __global float* j,
                                      size_t k, float decay, float g) {
    const float old = u[k];
    u[k] = u[k] * decay;
    u[k] = u[k] + g * i[k];
    u[k] = u[k] - g * j[k];
    i[k] = i[k] * decay;
    i[k] = i[k] + g * old;
    j[k] = j[k] * decay;
    j[k] = j[k] - g * old;
}

/* One update of three whole rows, four elements at a time where they are different rows. */
static inline void bpr_update_rows(__global float* u, __global float* i, __global float* j,
                                   size_t D, float decay, float g) {
    size_t k = 0;
    if (u != i && u != j && i != j)
        for (; k + 4 <= D; k += 4) {
            const float4 uk = vload4(0, u + k);
            const float4 ik = vload4(0, i + k);
            const float4 jk = vload4(0, j + k);
            vstore4((uk * decay + g * ik) - g * jk, 0, u + k);
            vstore4(ik * decay + g * uk, 0, i + k);
            vstore4(jk * decay - g * uk, 0, j + k);
        }
    for (; k < D; ++k) bpr_update_element(u, i, j, k, decay, g);
}

#define BPR_LANES 64

/*
 * One update of the vectors u, i and j of D floats. Global size {D}.
 *
 * Every element needs the score difference, and so all of the three vectors as they stood before any
 * of them was written. Work-items of different groups cannot wait for each other: a group that
 * started late would read what another has written already. So the first group does the work of all,
 * and the others do nothing. Within it, its first BPR_LANES work-items sum parts of the difference;
 * the barrier stands between the last read and the first write; then the same items update the
 * elements, each element by one item. That holds for every work-group size, 1 included, and no
 * work-item outside the first group touches the vectors. Nothing returns before the barrier, so all
 * items of a group reach it.
 */
__kernel void bpr_gradient_update(__global float* u, __global float* i, __global float* j,
                                  const float lr, const float reg, const int D) {
    __local float parts[BPR_LANES];
    const size_t lane = get_local_id(0);
    const size_t lanes = min(get_local_size(0), (size_t)BPR_LANES);
    const int works = get_group_id(0) == 0 && lane < lanes;
    if (works) {
        float part = 0.0f;
        for (size_t k = lane; k < (size_t)D; k += lanes) part += u[k] * i[k] - u[k] * j[k];
        parts[lane] = part;
    }
    barrier(CLK_LOCAL_MEM_FENCE | CLK_GLOBAL_MEM_FENCE);
    if (works) {
        float x = 0.0f;
        for (size_t part = 0; part < lanes; ++part) x += parts[part];
        const float g = bpr_step(x, lr);
        const float decay = 1.0f - lr * reg;
        for (size_t k = lane; k < (size_t)D; k += lanes) bpr_update_element(u, i, j, k, decay, g);
    }
}

/*
 * One update for each triple (users[b], pos_items[b], neg_items[b]) of rows of user_emb [U x D] and
 * item_emb [I x D] and, with use_bias, of item_bias [I]. Global size {batch}.
 *
 * Triples that share a row run at the same time without order: updates of such a row may be lost,
 * which stochastic gradient descent bears (Niu, Recht, Re, Wright, "Hogwild!", NIPS 2011). Floats
 * are read and written whole. The ids are within the tables: the host tests them.
 */
__kernel void bpr_batch_update(__global float* user_emb, __global float* item_emb,
                               __global float* item_bias, __global const uint* users,
                               __global const uint* pos_items, __global const uint* neg_items,
                               const float lr, const float reg, const int D, const int batch,
                               const int use_bias) {
    const size_t b = get_global_id(0);
    if (b >= (size_t)batch) return;
    const size_t pos = pos_items[b];
    const size_t neg = neg_items[b];
    __global float* const u = user_emb + (size_t)users[b] * D;
    __global float* const i = item_emb + pos * D;
    __global float* const j = item_emb + neg * D;
    float x_pos = dot_rows(u, i, D);
    float x_neg = dot_rows(u, j, D);
    if (use_bias) {
        x_pos += item_bias[pos];
        x_neg += item_bias[neg];
    }
    const float g = bpr_step(x_pos - x_neg, lr);
    const float decay = 1.0f - lr * reg;
    bpr_update_rows(u, i, j, D, decay, g);
    if (use_bias) {
        item_bias[pos] += g;
        item_bias[neg] -= g;
    }
}

/*
 * scores [batch] = dot products of the rows users[b] of user_emb [U x D] and items[b] of item_emb
 * [I x D], plus item_bias[items[b]] with use_bias. Global size {batch}. The ids are within the
 * tables: the host tests them.
 */
__kernel void batched_score(__global const float* user_emb, __global const float* item_emb,
                            __global const float* item_bias, __global const uint* users,
                            __global const uint* items, __global float* scores, const int D,
                            const int batch, const int use_bias) {
    const size_t b = get_global_id(0);
    if (b >= (size_t)batch) return;
    const size_t item = items[b];
    const float score = dot_rows(user_emb + (size_t)users[b] * D, item_emb + item * D, D);
    scores[b] = use_bias ? score + item_bias[item] : score;
}

/* ------------------------------------------------------------------------------------------------
 * Reductions. Not launched by the library.
 *
 * Arguments: 0 input [n], 1 results, one for each work-group, 2 a local buffer of one float for each
 * work-item of a group (clSetKernelArg with a null pointer), 3 int n. Global size: any number of
 * whole work-groups; each work-item strides over the input. The host reduces the results.
 * ---------------------------------------------------------------------------------------------- */

__kernel void reduce_sum(__global const float* input, __global float* results,
                         __local float* scratch, const int n) {
    const size_t lane = get_local_id(0);
    float sum = 0.0f;
    for (size_t g = get_global_id(0); g < (size_t)n; g += get_global_size(0)) sum += input[g];
    scratch[lane] = sum;
    /* Halving with the odd one out carried along works for every work-group size. */
    for (size_t active = get_local_size(0); active > 1;) {
        const size_t half_up = (active + 1) / 2;
        barrier(CLK_LOCAL_MEM_FENCE);
        if (lane + half_up < active) scratch[lane] += scratch[lane + half_up];
        active = half_up;
    }
    if (lane == 0) results[get_group_id(0)] = scratch[0];
}

__kernel void reduce_max(__global const float* input, __global float* results,
                         __local float* scratch, const int n) {
    const size_t lane = get_local_id(0);
    float largest = -FLT_MAX;
    for (size_t g = get_global_id(0); g < (size_t)n; g += get_global_size(0))
        largest = fmax(largest, input[g]);
    scratch[lane] = largest;
    for (size_t active = get_local_size(0); active > 1;) {
        const size_t half_up = (active + 1) / 2;
        barrier(CLK_LOCAL_MEM_FENCE);
        if (lane + half_up < active) scratch[lane] = fmax(scratch[lane], scratch[lane + half_up]);
        active = half_up;
    }
    if (lane == 0) results[get_group_id(0)] = scratch[0];
}
