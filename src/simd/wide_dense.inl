// The second group of the wide inner loops, in terms of the same Vector as wide.inl, which is
// included before: products of matrices, the step of an elimination, and the systems of positive
// definite matrices.

namespace {

using zx::simd::kRowUnit;
using zx::simd::PositiveSystem;
using zx::simd::Products;
constexpr size_t kLanes = Vector::kLanes;
static_assert(kRowUnit % kLanes == 0 && kLanes % Vector::kBlockRows == 0);

// body(Index<0>), ..., body(Index<kEnd - 1>), so that registers in an array have constant places.
template <size_t kValue>
struct Index {
    static constexpr size_t kPlace = kValue;
};

template <size_t kEnd, size_t kBegin = 0, typename Body>
[[gnu::always_inline]] inline void unrolled(const Body& body) {
    if constexpr (kBegin < kEnd) {
        body(Index<kBegin>{});
        unrolled<kEnd, kBegin + 1>(body);
    }
}

// Columns k to k + kLanes - 1 of so many rows become the rows of out: four rows at a time in each
// group of four lanes, then turned within the groups.
void transpose_square(const float* const* rows, size_t k, float* out, size_t stride) {
    for (size_t column = 0; column < kLanes; column += 4) {
        Floats quads[4];
        for (size_t m = 0; m < 4; ++m) {
            const float* starts[Vector::kQuads];
            for (size_t q = 0; q < Vector::kQuads; ++q) starts[q] = rows[4 * q + m] + k + column;
            quads[m] = Vector::load_quads(starts);
        }
        Vector::transpose_within_quads(quads);
        for (size_t m = 0; m < 4; ++m) Vector::store(out + (column + m) * stride, quads[m]);
    }
}

void transpose(const float* const* rows, size_t count, size_t d, float* out, size_t stride) {
    const size_t whole = d / kLanes * kLanes;
    for (size_t j = 0; j < count; j += kLanes) {
        for (size_t k = 0; k < whole; k += kLanes)
            transpose_square(rows + j, k, out + k * stride + j, stride);
        for (size_t k = whole; k < d; ++k)
            for (size_t i = j; i < j + kLanes; ++i) out[k * stride + i] = rows[i][k];
    }
}

template <size_t kVectors>
void add_scaled_slices(float* out, const float* const* rows, const float* factors, size_t count,
                       size_t k) {
    Floats sums[kVectors];
    for (size_t v = 0; v < kVectors; ++v) sums[v] = Vector::load(out + k + v * kLanes);
    for (size_t j = 0; j < count; ++j) {
        const Floats factor = Vector::broadcast(factors[j]);
        for (size_t v = 0; v < kVectors; ++v)
            sums[v] = Vector::fused(Vector::load(rows[j] + k + v * kLanes), factor, sums[v]);
    }
    for (size_t v = 0; v < kVectors; ++v) Vector::store(out + k + v * kLanes, sums[v]);
}

void add_scaled_rows(float* out, const float* const* rows, const float* factors, size_t count,
                     size_t d) {
    size_t k = 0;
    for (; k + 8 * kLanes <= d; k += 8 * kLanes) add_scaled_slices<8>(out, rows, factors, count, k);
    for (; k + 2 * kLanes <= d; k += 2 * kLanes) add_scaled_slices<2>(out, rows, factors, count, k);
    for (; k < d; k += kLanes) add_scaled_slices<1>(out, rows, factors, count, k);
}

// The terms of a sum of products: for each j a vector of the right side and a number of the left.
struct MatrixTerms {
    const Products& p;
    Floats right(size_t term, size_t column) const {
        return Vector::load(p.right + term * p.right_stride + column);
    }
    const float* left(size_t term) const { return p.left + term * p.left_stride; }
};

// Rows beside the same rows times their weights.
struct ScaledRows {
    const float* const* rows;
    const float* scaled;
    size_t d;
    Floats right(size_t term, size_t column) const {
        return Vector::load(scaled + term * d + column);
    }
    const float* left(size_t term) const { return rows[term]; }
};

// Terms begin to end of the sums.
struct Part {
    size_t begin;
    size_t end;
};

// A block of kRows x (kColumns vectors) of the sums stays in registers for all the terms.
template <size_t kRows, size_t kColumns, typename Terms>
void add_block(float* c, size_t stride, const Terms& terms, size_t row, size_t column, Part part) {
    Floats block[kRows][kColumns];
    float* const start = c + row * stride + column;
    const auto for_each = [&](const auto& body) {
        unrolled<kRows>([&](auto r) { unrolled<kColumns>([&](auto v) { body(r, v); }); });
    };
    for_each([&](auto r, auto v) {
        block[r.kPlace][v.kPlace] = Vector::load(start + r.kPlace * stride + v.kPlace * kLanes);
    });
    for (size_t term = part.begin; term < part.end; ++term) {
        Floats right[kColumns];
        unrolled<kColumns>(
            [&](auto v) { right[v.kPlace] = terms.right(term, column + v.kPlace * kLanes); });
        const float* const left = terms.left(term) + row;
        for_each([&](auto r, auto v) {
            block[r.kPlace][v.kPlace] = Vector::fused(Vector::broadcast(left[r.kPlace]),
                                                      right[v.kPlace], block[r.kPlace][v.kPlace]);
        });
    }
    for_each([&](auto r, auto v) {
        Vector::store(start + r.kPlace * stride + v.kPlace * kLanes, block[r.kPlace][v.kPlace]);
    });
}

// A high column of blocks, so many vectors wide, for the rows from `row` to `end`.
template <size_t kColumns, typename Terms>
void add_blocks(float* c, size_t stride, const Terms& terms, size_t row, size_t end, size_t column,
                Part part) {
    if constexpr (kColumns == 1) {
        // One vector alone needs more rows for enough sums to keep the multipliers busy.
        add_block<kLanes, 1>(c, stride, terms, end - kLanes, column, part);
    } else {
        constexpr size_t kRows = Vector::kBlockRows;
        if ((end - row) % kRows != 0) {
            add_block<kRows / 2, kColumns>(c, stride, terms, row, column, part);
            row += kRows / 2;
        }
        for (; row < end; row += kRows)
            add_block<kRows, kColumns>(c, stride, terms, row, column, part);
    }
}

// The rows from `row` to `end`, of which the last kLanes are taken, from column `from` on.
template <typename Terms>
void add_rows(float* c, size_t stride, const Terms& terms, size_t row, size_t end, size_t from,
              size_t columns, Part part) {
    for (size_t column = from; column < columns;) {
        const size_t vectors = (columns - column) / kLanes;
        // Four are two and two: a single one costs nearly as much as two.
        const size_t taken = vectors == 4 ? 2 : vectors < 3 ? vectors : 3;
        if (taken == 1)
            add_blocks<1>(c, stride, terms, row, end, column, part);
        else if (taken == 2)
            add_blocks<2>(c, stride, terms, row, end, column, part);
        else
            add_blocks<3>(c, stride, terms, row, end, column, part);
        column += taken * kLanes;
    }
}

// So many terms at a time that their numbers stay in the first cache.
size_t terms_at_once(size_t numbers) {
    constexpr size_t kCached = 8192;
    return numbers * 16 > kCached ? 16 : kCached / numbers;
}

template <bool kUpper, typename Terms>
void add_terms(float* c, size_t stride, const Terms& terms, size_t count, size_t first_row,
               size_t rows, size_t columns) {
    constexpr size_t kStep = Vector::kBlockRows / 2;
    const size_t at_once = terms_at_once(kUpper ? columns : rows + columns);
    for (size_t begin = 0; begin < count; begin += at_once) {
        const size_t end = count - begin < at_once ? count : begin + at_once;
        for (size_t square = first_row / kLanes * kLanes; square < rows; square += kLanes) {
            const size_t row = square < first_row ? first_row / kStep * kStep : square;
            add_rows(c, stride, terms, row, square + kLanes, kUpper ? square : 0, columns,
                     {begin, end});
        }
    }
}

void add_weighted_squares(float* a, const float* const* rows, const float* weights, size_t count,
                          size_t d, float* scratch) {
    for (size_t j = 0; j < count; ++j) {
        const Floats weight = Vector::broadcast(weights[j]);
        for (size_t k = 0; k < d; k += kLanes)
            Vector::store(scratch + j * d + k, Vector::multiply(Vector::load(rows[j] + k), weight));
    }
    add_terms<true>(a, d, ScaledRows{rows, scratch, d}, count, 0, d, d);
}

void add_products(const Products& products) {
    add_terms<false>(products.c, products.c_stride, MatrixTerms{products}, products.count,
                     products.first_row, products.rows, products.columns);
}

void add_upper_products(const Products& products) {
    add_terms<true>(products.c, products.c_stride, MatrixTerms{products}, products.count,
                    products.first_row, products.rows, products.columns);
}

// Eliminates column k from kRows rows at once, which share the loads of the pivot row. The vector
// that holds column k is changed as a whole; the factors are read before.
template <size_t kRows>
void eliminate_rows(float* rows, const float* pivot_row, size_t k, size_t stride) {
    Floats factors[kRows];
    for (size_t i = 0; i < kRows; ++i) factors[i] = Vector::broadcast(rows[i * stride + k]);
    for (size_t m = (k + 1) / kLanes * kLanes; m < stride; m += kLanes) {
        const Floats pivot = Vector::load(pivot_row + m);
        for (size_t i = 0; i < kRows; ++i) {
            float* const at = rows + i * stride + m;
            Vector::store(at, Vector::fused_negative(pivot, factors[i], Vector::load(at)));
        }
    }
}

void eliminate_range(float* a, size_t begin, size_t end, size_t k, size_t stride) {
    size_t r = begin;
    for (; r + 4 <= end; r += 4) eliminate_rows<4>(a + r * stride, a + k * stride, k, stride);
    for (; r < end; ++r) eliminate_rows<1>(a + r * stride, a + k * stride, k, stride);
}

void eliminate(float* a, size_t k, size_t rows, size_t stride) {
    eliminate_range(a, 0, k, k, stride);
    eliminate_range(a, k + 1, rows, k, stride);
}

// The rows of a system are taken a square of kLanes at a time: first the square on the diagonal,
// then the rest of its rows, then the products that these take off the rows below.

// In the kLanes columns of `rows`, row q + row p * factor for every q > p, in the order of p, for
// the rows from kBegin to kEnd. Rows are stored when they are final. begin(p, row) is run when row
// p is; it has put its factors into their place by then, and returns that of the next row.
template <size_t kBegin, size_t kEnd, typename Begin>
void eliminate_columns(float* rows, const float* factors, size_t stride, const Begin& begin) {
    Floats row[kEnd];
    unrolled<kEnd, kBegin>([&](auto p) { row[p.kPlace] = Vector::load(rows + p.kPlace * stride); });
    unrolled<kEnd, kBegin>([&](auto p) {
        Vector::store(rows + p.kPlace * stride, row[p.kPlace]);
        const Floats next = begin(p.kPlace, row[p.kPlace]);
        unrolled<kEnd, p.kPlace + 1>([&](auto q) {
            const Floats factor = q.kPlace == p.kPlace + 1
                                      ? next
                                      : Vector::broadcast(factors[p.kPlace * stride + q.kPlace]);
            row[q.kPlace] = Vector::fused(factor, row[p.kPlace], row[q.kPlace]);
        });
    });
}

// Half of the square at k, whose rows before kBegin are final and taken off these already.
template <size_t kBegin, size_t kEnd>
void factorise_rows(const PositiveSystem& system, size_t k) {
    const size_t stride = system.stride;
    float* const square = system.a + k * stride + k;
    float* const factors = system.scaled + k;
    eliminate_columns<kBegin, kEnd>(square, factors, stride, [&](size_t p, Floats row) {
        const float reciprocal = 1.0f / Vector::lane(row, p);
        system.reciprocals[k + p] = reciprocal;
        const Floats scaled = Vector::multiply(row, Vector::broadcast(-reciprocal));
        Vector::store(factors + p * stride, scaled);
        return Vector::broadcast_lane(scaled, (p + 1) % kLanes);
    });
}

// A square is taken by halves, which are short enough for the processor to have those of several
// systems in work at once.
constexpr size_t kHalf = 8;

template <size_t kBegin>
void factorise_half(const PositiveSystem* systems, size_t count, size_t k) {
    for (size_t s = 0; s < count; ++s)
        if (k < systems[s].size) factorise_rows<kBegin, kBegin + kHalf>(systems[s], k);
}

// Takes the rows of the square at k before kBegin off the others.
template <size_t kBegin>
void eliminate_half(const PositiveSystem& system, size_t k) {
    const size_t stride = system.stride;
    float* const square = system.a + k * stride + k;
    const float* const factors = system.scaled + k;
    Floats row[kLanes];
    unrolled<kLanes, kBegin>(
        [&](auto q) { row[q.kPlace] = Vector::load(square + q.kPlace * stride); });
    unrolled<kBegin>([&](auto p) {
        const Floats pivot_row = Vector::load(square + p.kPlace * stride);
        unrolled<kLanes, kBegin>([&](auto q) {
            const Floats factor = Vector::broadcast(factors[p.kPlace * stride + q.kPlace]);
            row[q.kPlace] = Vector::fused(factor, pivot_row, row[q.kPlace]);
        });
    });
    unrolled<kLanes, kBegin>(
        [&](auto q) { Vector::store(square + q.kPlace * stride, row[q.kPlace]); });
}

void factorise_squares(const PositiveSystem* systems, size_t count, size_t k) {
    factorise_half<0>(systems, count, k);
    if constexpr (kLanes > kHalf) {
        for (size_t s = 0; s < count; ++s)
            if (k < systems[s].size) eliminate_half<kHalf>(systems[s], k);
        factorise_half<kHalf>(systems, count, k);
    }
}

// The vector of columns at j, to the right of the square at k.
void factorise_columns(const PositiveSystem& system, size_t k, size_t j) {
    const size_t stride = system.stride;
    const float* const factors = system.scaled + k;
    eliminate_columns<0, kLanes>(
        system.a + k * stride + j, factors, stride, [&](size_t p, Floats row) {
            const Floats minus = Vector::broadcast(-system.reciprocals[k + p]);
            Vector::store(system.scaled + p * stride + j, Vector::multiply(row, minus));
            return Vector::broadcast(factors[p * stride + (p + 1) % kLanes]);
        });
}

// Takes the square's part off the right-hand side.
void substitute_forward(const PositiveSystem& system, size_t k) {
    const float* const scaled = system.scaled;
    float* const b = system.b;
    Floats own = Vector::load(b + k);
    for (size_t p = 0; p < kLanes; ++p) {
        Vector::store(b + k, own);
        const Floats factors = Vector::load(scaled + p * system.stride + k);
        own = Vector::fused_after(p, Vector::broadcast(b[k + p]), factors, own);
    }
    for (size_t j = k + kLanes; j < system.size; j += kLanes) {
        Floats later = Vector::load(b + j);
        for (size_t p = 0; p < kLanes; ++p)
            later = Vector::fused(Vector::broadcast(b[k + p]),
                                  Vector::load(scaled + p * system.stride + j), later);
        Vector::store(b + j, later);
    }
}

void eliminate_square(const PositiveSystem& system, size_t k) {
    for (size_t j = k + kLanes; j < system.size; j += kLanes) factorise_columns(system, k, j);
    substitute_forward(system, k);
    const size_t next = k + kLanes;
    const size_t left = system.size - next;
    if (left == 0) return;
    add_upper_products({.c = system.a + next * system.stride + next,
                        .c_stride = system.stride,
                        .left = system.scaled + next,
                        .left_stride = system.stride,
                        .right = system.a + k * system.stride + next,
                        .right_stride = system.stride,
                        .count = kLanes,
                        .rows = left,
                        .columns = left,
                        .first_row = 0});
}

// What the unknowns after the kRowUnit rows at k leave of their right-hand sides.
void take_off_later(const PositiveSystem& system, size_t k, float* left) {
    constexpr size_t kParts = kRowUnit / kLanes;
    const float* const x = system.b;
    for (size_t p = 0; p < kRowUnit; ++p) {
        const float* const row = system.a + (k + p) * system.stride;
        Floats parts[kParts];
        for (Floats& part : parts) part = Vector::zero();
        for (size_t j = k + kRowUnit; j < system.size; j += kRowUnit)
            for (size_t i = 0; i < kParts; ++i)
                parts[i] = Vector::fused(Vector::load(row + j + i * kLanes),
                                         Vector::load(x + j + i * kLanes), parts[i]);
        left[p] = x[k + p] - Vector::sum_16(parts);
    }
}

// The unknowns of the kRowUnit rows at k, those after them being known. Column by column: an
// unknown is taken off the rows before its own; what that makes of the others is not read.
void substitute_back(const PositiveSystem& system, size_t k) {
    constexpr size_t kParts = kRowUnit / kLanes;
    float* const x = system.b + k;
    if (k + kRowUnit < system.size) take_off_later(system, k, x);

    const float* rows[kRowUnit];
    for (size_t p = 0; p < kRowUnit; ++p) rows[p] = system.a + (k + p) * system.stride + k;
    alignas(64) float columns[kRowUnit][kRowUnit];
    transpose(rows, kRowUnit, kRowUnit, columns[0], kRowUnit);
    Floats left[kParts];
    Floats reciprocals[kParts];
    for (size_t i = 0; i < kParts; ++i) {
        left[i] = Vector::load(x + i * kLanes);
        reciprocals[i] = Vector::load(system.reciprocals + k + i * kLanes);
    }
    for (size_t q = kRowUnit; q-- > 0;) {
        const size_t part = q / kLanes;
        const Floats unknown =
            Vector::broadcast_lane(Vector::multiply(left[part], reciprocals[part]), q % kLanes);
        x[q] = Vector::lane(unknown, 0);
        for (size_t i = 0; i < kParts; ++i)
            left[i] =
                Vector::fused_negative(Vector::load(columns[q] + i * kLanes), unknown, left[i]);
    }
}

void solve_positive(const PositiveSystem* systems, size_t count) {
    size_t largest = 0;
    for (size_t s = 0; s < count; ++s)
        if (systems[s].size > largest) largest = systems[s].size;
    for (size_t k = 0; k < largest; k += kLanes) {
        factorise_squares(systems, count, k);
        for (size_t s = 0; s < count; ++s)
            if (k < systems[s].size) eliminate_square(systems[s], k);
    }
    for (size_t k = largest; k > 0; k -= kRowUnit)
        for (size_t s = 0; s < count; ++s)
            if (k <= systems[s].size) substitute_back(systems[s], k - kRowUnit);
}

}  // namespace
