// The positive definite way to a row's solution, at a cost that follows the row's own length.
//
// With Y the fixed side's table and lambda the regularisation, G = Y' Y + lambda I is the same for
// all rows of a half-epoch. A row has entries with the rows Y_u of it, weights w = alpha *
// strength, W = diag(w), and confidences c = 1 + w. Its system is
//
//     (G + Y_u' W Y_u) x = Y_u' c,
//
// which has no need of pivoting when the weights are positive. A row with fewer entries than
// unknowns has a smaller one by the push-through identity (Henderson, Searle, "On deriving the
// inverse of a sum of matrices", SIAM Review 23, 1981): with G = L L' and the whitened table
// Z = Y L^-T, both worked out once for all rows,
//
//     x = L^-T Z_u' t,    (W^-1 + Z_u Z_u') t = W^-1 c.
//
// As Z' Z is at most I, its eigenvalues lie between 1 / w and 1 / w + 1, times the number of times
// that an entry is repeated: it is better conditioned than the row's own. With m entries the first
// costs about m d^2 + d^3 / 3 operations, the second m^2 d + m^3 / 3.
//
// Why the solution is the elimination's. In exact arithmetic there is one solution as soon as the
// matrix A of the row's system is regular, and the elimination finds it unless it skips a pivot. A
// is at least lambda I for positive weights. After k steps the elimination works on a Schur
// complement S of A with its rows exchanged, of order d - k. The inverse of S is a block of the
// inverse of that matrix, so no singular value of S is smaller than A's smallest. Its first column
// therefore has a length of lambda at least, and its largest element, which is the pivot, is
// lambda / sqrt(d) at least. With kMinRegularization that is above the 1e-10 below which a pivot is
// skipped for every d that there is memory for, and 10,000 times as much up to d = 4096. Rounding
// moves the elements by some units in the last place of the largest one; kMaxRatio keeps A's
// smallest singular value, for which there is a bound from the factorisation, well above that.
// Every other row is left to the elimination.

#include "zx_train/als_positive.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <numeric>

namespace zx::als {
namespace {

constexpr float kMinRegularization = 1e-4f;
constexpr float kMaxRatio = 0x1p18f;

// Weights whose reciprocals are normal numbers, and which leave a smaller system well enough
// conditioned even where a row has the same entry, or equal ones, more than once.
constexpr float kMinWeight = 0x1p-40f;
constexpr float kMaxWeight = 0x1p20f;

// Elements of the Gram matrix whose products are numbers.
constexpr float kMaxDiagonal = 0x1p40f;

// Columns of a product that are worked on at a time, to leave out the zeros of triangles.
constexpr std::uint64_t kSlice = 32;

// body(i, i % kRowUnit) for every i below count, in whole groups as far as they go: what a body
// keeps for each lane becomes a vector.
template <typename Body>
void for_each_lane(std::uint64_t count, const Body& body) {
    const std::uint64_t whole = count / simd::kRowUnit * simd::kRowUnit;
    for (std::uint64_t i = 0; i < whole; i += simd::kRowUnit)
        for (std::uint64_t lane = 0; lane < simd::kRowUnit; ++lane) body(i + lane, lane);
    for (std::uint64_t i = whole; i < count; ++i) body(i, i - whole);
}

float largest_square_of(const float* numbers, std::uint64_t count) {
    float largest[simd::kRowUnit] = {};
    for_each_lane(count, [&](std::uint64_t i, std::uint64_t lane) {
        const float square = numbers[i] * numbers[i];
        largest[lane] = square > largest[lane] ? square : largest[lane];
    });
    return *std::max_element(std::begin(largest), std::end(largest));
}

// out = left' * right for `rows` rows, where column j of right is zero outside [begin(j), end(j)).
void multiply(const float* left, std::uint64_t left_stride, const float* right,
              std::uint64_t stride, std::uint64_t rows, bool upper, float* out) {
    const simd::Operations& ops = simd::operations();
    std::fill_n(out, rows * stride, 0.0f);
    for (std::uint64_t j = 0; j < stride; j += kSlice) {
        const std::uint64_t columns = std::min(kSlice, stride - j);
        const std::uint64_t begin = upper ? 0 : j;
        const std::uint64_t end = upper ? j + columns : stride;
        ops.add_products({.c = out + j,
                          .c_stride = stride,
                          .left = left + begin * left_stride,
                          .left_stride = left_stride,
                          .right = right + begin * stride + j,
                          .right_stride = stride,
                          .count = end - begin,
                          .rows = rows,
                          .columns = columns,
                          .first_row = 0});
    }
}

// Replaces the upper triangle of a by its Cholesky factor R, R' R = a; false without one.
bool cholesky(double* a, std::uint64_t d) {
    for (std::uint64_t k = 0; k < d; ++k) {
        double* const pivot_row = a + k * d;
        if (!(pivot_row[k] > 0.0)) return false;
        const double root = std::sqrt(pivot_row[k]);
        for (std::uint64_t l = k; l < d; ++l) pivot_row[l] /= root;
        for (std::uint64_t r = k + 1; r < d; ++r) {
            const double factor = pivot_row[r];
            double* const row = a + r * d;
            for (std::uint64_t l = r; l < d; ++l) row[l] -= factor * pivot_row[l];
        }
    }
    return true;
}

// Replaces an upper triangle by its inverse, from the last row on. `sums` has d elements.
void invert_triangle(double* a, std::uint64_t d, double* sums) {
    for (std::uint64_t k = d; k-- > 0;) {
        double* const row = a + k * d;
        std::fill_n(sums, d, 0.0);
        for (std::uint64_t j = k + 1; j < d; ++j)
            for (std::uint64_t l = j; l < d; ++l) sums[l] += row[j] * a[j * d + l];
        const double reciprocal = 1.0 / row[k];
        row[k] = reciprocal;
        for (std::uint64_t l = k + 1; l < d; ++l) row[l] = -sums[l] * reciprocal;
    }
}

}  // namespace

bool PositiveSystems::serves(float regularization) {
    return regularization >= kMinRegularization &&
           regularization <= std::numeric_limits<float>::max();
}

bool PositiveSystems::allocate(std::uint32_t d, std::uint32_t max_rows) {
    d_ = d;
    stride_ = padded(d);
    group_ = stride_ <= 128 ? kMaxGroup : 1;
    const std::uint64_t square = stride_ * stride_;
    const std::uint64_t table = padded(max_rows) * stride_;
    const std::uint64_t columns = stride_ * std::max<std::uint64_t>(stride_, kBatchRows);
    const std::uint64_t panel = kPanelRows * stride_;
    const std::uint64_t system = square + (2 + simd::kRowUnit) * stride_;
    const std::uint64_t floats =
        stride_ + 2 * square + columns + 2 * panel + kBatchRows * stride_ + group_ * system + table;
    factor_ = make_array<double>(std::uint64_t{d} * (std::uint64_t{d} + 1));
    block_ = make_array<float>(floats);
    rows_ = make_array<const float*>(std::max<std::uint64_t>(stride_, kPanelRows));
    weights_ = make_array<float>(std::max<std::uint64_t>(stride_, kPanelRows));
    if (!factor_ || !block_ || !rows_ || !weights_) return false;

    float* next = block_.get();
    const auto take = [&next](std::uint64_t count) {
        float* const taken = next;
        next += count;
        return taken;
    };
    zeros_ = take(stride_);
    transform_ = take(square);
    back_transform_ = take(square);
    columns_ = take(columns);
    panel_ = take(panel);
    padded_rows_ = take(panel);
    batch_ = take(kBatchRows * stride_);
    for (std::uint32_t place = 0; place < group_; ++place)
        systems_[place] = {.a = take(square),
                           .b = take(stride_),
                           .scaled = take(simd::kRowUnit * stride_),
                           .reciprocals = take(stride_),
                           .size = 0,
                           .stride = 0};
    table_ = take(table);
    std::fill_n(zeros_, stride_ + 2 * square, 0.0f);  // the transformations are triangles
    std::fill_n(padded_rows_, panel, 0.0f);
    return true;
}

// The triangular factors of the Gram matrix, and a lower bound of its smallest singular value: the
// inverse's trace is the sum of the squares of L^-1. In double precision, once for all rows.
bool PositiveSystems::factorise(const FixedSide& fixed) {
    double* const a = factor_.get();
    for (std::uint64_t k = 0; k < d_; ++k)
        for (std::uint64_t l = k; l < d_; ++l) a[k * d_ + l] = double{fixed.gram[k * stride_ + l]};
    if (!cholesky(a, d_)) return false;
    invert_triangle(a, d_, a + std::uint64_t{d_} * d_);

    double squares = 0.0;
    for (std::uint64_t k = 0; k < d_; ++k)
        for (std::uint64_t l = k; l < d_; ++l) {
            const double element = a[k * d_ + l];
            squares += element * element;
            transform_[k * stride_ + l] = static_cast<float>(element);
            back_transform_[l * stride_ + k] = static_cast<float>(element);
        }
    smallest_value_ = std::max(fixed.regularization, static_cast<float>(1.0 / squares));
    return true;
}

void PositiveSystems::whiten(const FixedSide& fixed) {
    const simd::Operations& ops = simd::operations();
    for (std::uint64_t first = 0; first < fixed.rows; first += kBatchRows) {
        const std::uint64_t count = std::min<std::uint64_t>(fixed.rows - first, kBatchRows);
        for (std::uint64_t i = 0; i < padded(count); ++i)
            rows_[i] = i < count ? fixed.table + (first + i) * d_ : zeros_;
        ops.transpose(rows_.get(), padded(count), d_, columns_, kBatchRows);
        std::fill_n(columns_ + std::uint64_t{d_} * kBatchRows, (stride_ - d_) * kBatchRows, 0.0f);
        multiply(columns_, kBatchRows, transform_, stride_, padded(count), true,
                 table_ + first * stride_);
    }
}

void PositiveSystems::prepare(const FixedSide& fixed) {
    fixed_ = fixed;
    largest_diagonal_ = 0.0f;
    for (std::uint64_t k = 0; k < d_; ++k) {
        const float element = fixed.gram[k * stride_ + k];
        // Not a number, or beyond the numbers: what then happens is the elimination's.
        if (!(element <= kMaxDiagonal)) {
            largest_diagonal_ = std::numeric_limits<float>::infinity();
            return;
        }
        largest_diagonal_ = std::max(largest_diagonal_, element);
    }
    largest_square_ = largest_square_of(fixed.table, std::uint64_t{fixed.rows} * d_);
    if (factorise(fixed))
        whiten(fixed);
    else
        largest_diagonal_ = std::numeric_limits<float>::infinity();
}

bool PositiveSystems::accepts(const Row& row) const {
    float sums[simd::kRowUnit] = {};
    std::uint32_t within[simd::kRowUnit] = {};  // not a weight that is not a number
    const float alpha = row.alpha;
    const float* const strengths = row.strengths;
    for_each_lane(row.count, [&](std::uint64_t i, std::uint64_t lane) {
        const float weight = alpha * strengths[i];
        within[lane] += static_cast<std::uint32_t>(weight >= kMinWeight) &
                        static_cast<std::uint32_t>(weight <= kMaxWeight);
        sums[lane] += weight;
    });
    if (std::accumulate(std::begin(within), std::end(within), 0U) != row.count) return false;
    const float sum = std::accumulate(std::begin(sums), std::end(sums), 0.0f);
    return largest_diagonal_ + sum * largest_square_ <= smallest_value_ * kMaxRatio;
}

bool PositiveSystems::is_short(const Row& row) const {
    return padded(row.count) < stride_;
}

// Fetches the rows of entries from `first` on, a panel at most, into the second cache.
void PositiveSystems::fetch(const Row& row, std::uint32_t first) const {
    constexpr std::uint64_t kLineFloats = 16;
    const bool whitened = is_short(row);
    const float* const table = whitened ? table_ : fixed_.table;
    const std::uint64_t stride = whitened ? stride_ : d_;
    const std::uint32_t end = first + std::min(row.count - first, kPanelRows);
    for (std::uint32_t i = first; i < end; ++i) {
        const float* const start = table + row.ids[i] * stride;
        for (std::uint64_t k = 0; k < stride; k += kLineFloats) __builtin_prefetch(start + k, 0, 2);
    }
}

void PositiveSystems::gather_whitened(const Row& row, const float** rows) const {
    for (std::uint32_t i = 0; i < row.count; ++i)
        rows[i] = table_ + std::uint64_t{row.ids[i]} * stride_;
}

// The rows and the weights of entries [first, first + count); rows that are not whole vectors are
// copied to where zeros follow.
void PositiveSystems::gather(const Row& row, std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
        const float* const y = fixed_.table + std::uint64_t{row.ids[first + i]} * d_;
        rows_[i] = y;
        weights_[i] = row.weight(first + i);
        if (d_ == stride_) continue;
        float* const copy = padded_rows_ + i * stride_;
        std::memcpy(copy, y, d_ * sizeof(float));
        rows_[i] = copy;
    }
}

// (W^-1 + Z_u Z_u') t = W^-1 c. What fills the system up to whole vectors comes first, where the
// rows of its products can be left out: unknowns that are 0.
void PositiveSystems::build_short(const Row& row, simd::PositiveSystem& system) {
    const simd::Operations& ops = simd::operations();
    const std::uint64_t size = padded(row.count);
    const std::uint64_t fill = size - row.count;
    system.size = size;
    system.stride = size;
    std::fill_n(rows_.get(), fill, zeros_);
    gather_whitened(row, rows_.get() + fill);
    ops.transpose(rows_.get(), size, d_, columns_, size);
    std::fill_n(system.a, size * size, 0.0f);
    ops.add_upper_products({.c = system.a,
                            .c_stride = size,
                            .left = columns_,
                            .left_stride = size,
                            .right = columns_,
                            .right_stride = size,
                            .count = d_,
                            .rows = size,
                            .columns = size,
                            .first_row = fill});
    for (std::uint64_t i = 0; i < fill; ++i) {
        system.a[i * size + i] = 1.0f;
        system.b[i] = 0.0f;
    }
    for (std::uint32_t i = 0; i < row.count; ++i) {
        const float weight = row.weight(i);
        const float reciprocal = 1.0f / weight;
        system.a[(fill + i) * size + fill + i] += reciprocal;
        system.b[fill + i] = (1.0f + weight) * reciprocal;
    }
}

// (G + Y_u' W Y_u) x = Y_u' c. Unknowns that fill the system up are 0.
void PositiveSystems::build_long(const Row& row, simd::PositiveSystem& system) {
    const simd::Operations& ops = simd::operations();
    system.size = stride_;
    system.stride = stride_;
    std::memcpy(system.a, fixed_.gram, stride_ * stride_ * sizeof(float));
    for (std::uint64_t k = d_; k < stride_; ++k) system.a[k * stride_ + k] = 1.0f;
    std::fill_n(system.b, stride_, 0.0f);
    for (std::uint32_t first = 0; first < row.count;) {
        const std::uint32_t count = std::min(row.count - first, kPanelRows);
        fetch(row, first + count);
        gather(row, first, count);
        ops.add_weighted_squares(system.a, rows_.get(), weights_.get(), count, stride_, panel_);
        for (std::uint32_t i = 0; i < count; ++i) weights_[i] += 1.0f;
        ops.add_scaled_rows(system.b, rows_.get(), weights_.get(), count, stride_);
        first += count;
    }
}

// What a short row's unknowns stand for: Z_u' t.
void PositiveSystems::combine(const Row& row, const simd::PositiveSystem& system, float* whitened) {
    gather_whitened(row, rows_.get());
    std::fill_n(whitened, stride_, 0.0f);
    const float* const unknowns = system.b + (system.size - row.count);
    simd::operations().add_scaled_rows(whitened, rows_.get(), unknowns, row.count, stride_);
}

// Solves a group of rows. What is left to be transformed of the short ones' solutions goes into
// `whitened`, one row of it each; the others are done.
void PositiveSystems::solve_group(const Row* rows, std::uint32_t count, float** solutions,
                                  float* whitened) {
    for (std::uint32_t i = 0; i < count; ++i)
        if (is_short(rows[i]))
            build_short(rows[i], systems_[i]);
        else
            build_long(rows[i], systems_[i]);
    simd::operations().solve_positive(systems_, count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const simd::PositiveSystem& system = systems_[i];
        const bool solved = std::all_of(
            system.reciprocals, system.reciprocals + system.size,
            [](float reciprocal) { return reciprocal > 0.0f && std::isfinite(reciprocal); });
        if (!solved)  // by rounding
            solutions[i] = nullptr;
        else if (is_short(rows[i]))
            combine(rows[i], system, whitened + i * stride_);
        else
            std::memcpy(solutions[i], system.b, d_ * sizeof(float));
    }
}

void PositiveSystems::solve(const Row* rows, std::uint32_t count, float** solutions) {
    for (std::uint32_t first = 0; first < count; first += group_) {
        if (first + group_ < count) fetch(rows[first + group_], 0);
        solve_group(rows + first, std::min(group_, count - first), solutions + first,
                    batch_ + first * stride_);
    }

    // x = L^-T q for all short rows at once.
    const auto is_whitened = [&](std::uint32_t i) { return solutions[i] && is_short(rows[i]); };
    for (std::uint32_t i = 0; i < padded(count); ++i)
        rows_[i] = i < count && is_whitened(i) ? batch_ + i * stride_ : zeros_;
    simd::operations().transpose(rows_.get(), padded(count), stride_, columns_, kBatchRows);
    multiply(columns_, kBatchRows, back_transform_, stride_, padded(count), false, panel_);
    for (std::uint32_t i = 0; i < count; ++i)
        if (is_whitened(i)) std::memcpy(solutions[i], panel_ + i * stride_, d_ * sizeof(float));
}

}  // namespace zx::als
