// The inner loops that fuse multiplications and additions where the processor can: the fused
// variants agree with each other to the bit, because each number takes one fused step for each
// term, in the stated order; the scalar one takes two roundings instead.

#include "float_bits.hpp"
#include "random_numbers.hpp"
#include "variants.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace zx::test {
namespace {

constexpr float kGuard = -12345.5f;

float multiply_add(const simd::Operations& ops, float a, float b, float c) {
    if (ops.fused) return std::fma(a, b, c);
    const float product = a * b;
    return c + product;
}

// A matrix whose rows are whole vectors and start on a vector boundary.
class AlignedMatrix {
  public:
    explicit AlignedMatrix(const std::vector<float>& values)
        : size_(values.size()),
          data_(static_cast<float*>(zx_malloc_aligned((size_ + 1) * sizeof(float)))) {
        std::copy(values.begin(), values.end(), data_);
        data_[size_] = kGuard;
    }
    ~AlignedMatrix() { zx_free_aligned(data_); }
    AlignedMatrix(const AlignedMatrix&) = delete;
    AlignedMatrix& operator=(const AlignedMatrix&) = delete;

    float* data() { return data_; }
    [[nodiscard]] const float* data() const { return data_; }
    [[nodiscard]] bool guard_stands() const { return data_[size_] == kGuard; }

  private:
    std::size_t size_;
    float* data_;
};

// Rows of d floats each, and pointers to them.
struct Rows {
    Rows(RandomNumbers& random, std::size_t count, std::size_t d)
        : numbers(random.floats(count * d, -1, 1)) {
        for (std::size_t j = 0; j < count; ++j) starts.push_back(numbers.data() + j * d);
    }
    std::vector<float> numbers;
    std::vector<const float*> starts;
};

TEST(SimdTranspose, TurnsRowsIntoColumns) {
    RandomNumbers random(4);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t count : {0u, 16u, 32u, 80u}) {
            for (const std::size_t d : {0u, 1u, 3u, 7u, 8u, 15u, 16u, 17u, 31u, 64u, 77u}) {
                const Rows rows(random, count, d);
                const std::size_t stride = count + 16;
                std::vector<float> out(d * stride, kGuard);
                ops->transpose(rows.starts.data(), count, d, out.data(), stride);
                for (std::size_t k = 0; k < d; ++k)
                    for (std::size_t j = 0; j < stride; ++j)
                        ASSERT_EQ(out[k * stride + j], j < count ? rows.starts[j][k] : kGuard)
                            << k << ", " << j << " of " << d << " x " << count;
            }
        }
    }
}

TEST(SimdAddScaledRows, AddsInTheOrderOfTheRows) {
    RandomNumbers random(1);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 16; d <= 320; d += 16) {
            for (const std::size_t count : {0u, 1u, 2u, 5u, 51u}) {
                const Rows rows(random, count, d);
                const std::vector<float> factors = random.floats(count, -2, 2);
                std::vector<float> out = random.floats(d + 1, -1, 1);
                std::vector<float> expected = out;
                for (std::size_t j = 0; j < count; ++j)
                    for (std::size_t k = 0; k < d; ++k)
                        expected[k] =
                            multiply_add(*ops, rows.starts[j][k], factors[j], expected[k]);
                ops->add_scaled_rows(out.data(), rows.starts.data(), factors.data(), count, d);
                EXPECT_TRUE(same_numbers(out, expected)) << d << " x " << count;
            }
        }
    }
}

TEST(SimdAddWeightedSquares, AddsInTheOrderOfTheRows) {
    RandomNumbers random(5);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t d : {16u, 32u, 48u, 64u, 80u, 96u, 112u, 144u}) {
            for (const std::size_t count : {0u, 1u, 7u, 64u}) {
                const Rows rows(random, count, d);
                const std::vector<float> weights = random.floats(count, 0, 3);
                const std::vector<float> start = random.floats(d * d, -1, 1);
                AlignedMatrix a(start);
                std::vector<float> scratch(count * d);
                ops->add_weighted_squares(a.data(), rows.starts.data(), weights.data(), count, d,
                                          scratch.data());
                EXPECT_TRUE(a.guard_stands());
                for (std::size_t k = 0; k < d; ++k) {
                    for (std::size_t l = k; l < d; ++l) {
                        float expected = start[k * d + l];
                        for (std::size_t j = 0; j < count; ++j) {
                            const float scaled = rows.starts[j][l] * weights[j];
                            expected = multiply_add(*ops, rows.starts[j][k], scaled, expected);
                        }
                        ASSERT_TRUE(same_number(a.data()[k * d + l], expected))
                            << k << ", " << l << " of " << d << " after " << count;
                    }
                }
            }
        }
    }
}

struct ProductsCase {
    std::size_t rows;
    std::size_t columns;
    std::size_t count;
    std::size_t first_row;
};

// Compares every sum that is asked for with its terms added one by one; sums that are not in the
// rows and columns stay as they are.
void expect_products(const simd::Operations& ops, RandomNumbers& random, const ProductsCase& c,
                     bool upper) {
    const std::size_t c_stride = c.columns + 16;
    const std::size_t left_stride = c.rows + 32;
    const std::size_t right_stride = c.columns + 16;
    const std::vector<float> start = random.floats(c.rows * c_stride, -1, 1);
    AlignedMatrix sums(start);
    const AlignedMatrix left(random.floats(c.count * left_stride, -1, 1));
    const AlignedMatrix right(random.floats(c.count * right_stride, -1, 1));
    (upper ? ops.add_upper_products : ops.add_products)({.c = sums.data(),
                                                         .c_stride = c_stride,
                                                         .left = left.data(),
                                                         .left_stride = left_stride,
                                                         .right = right.data(),
                                                         .right_stride = right_stride,
                                                         .count = c.count,
                                                         .rows = c.rows,
                                                         .columns = c.columns,
                                                         .first_row = c.first_row});
    EXPECT_TRUE(sums.guard_stands());
    for (std::size_t i = 0; i < c.rows; ++i) {
        for (std::size_t j = upper ? i : 0; j < c_stride; ++j) {
            if (i < c.first_row && j < c.columns) continue;
            float expected = start[i * c_stride + j];
            for (std::size_t k = 0; j < c.columns && k < c.count; ++k)
                expected = multiply_add(ops, left.data()[k * left_stride + i],
                                        right.data()[k * right_stride + j], expected);
            ASSERT_TRUE(same_number(sums.data()[i * c_stride + j], expected))
                << i << ", " << j << " of " << c.rows << " x " << c.columns << " after " << c.count
                << " from row " << c.first_row;
        }
    }
}

TEST(SimdAddProducts, AddsInTheOrderOfTheTerms) {
    RandomNumbers random(2);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t rows : {16u, 32u, 64u})
            for (const std::size_t columns : {16u, 32u, 48u, 64u, 80u, 112u})
                for (const std::size_t count : {0u, 1u, 5u, 64u, 600u})
                    expect_products(*ops, random, {rows, columns, count, 0}, false);
    }
}

TEST(SimdAddUpperProducts, AddsInTheOrderOfTheTermsFromTheDiagonalOn) {
    RandomNumbers random(6);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t size : {16u, 32u, 48u, 64u, 80u, 112u})
            for (const std::size_t count : {0u, 1u, 5u, 64u, 300u})
                for (const std::size_t first_row : {0u, 1u, 3u, 4u, 7u, 8u, 11u, 12u, 15u})
                    expect_products(*ops, random, {size, size, count, first_row}, true);
    }
}

TEST(SimdEliminate, ChangesEveryOtherRowFromTheNextColumnOn) {
    RandomNumbers random(3);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t stride : {16u, 32u, 48u}) {
            for (const std::size_t rows : {1u, 2u, 3u, 5u, 8u, 15u, 16u, 31u}) {
                if (rows >= stride) continue;
                for (std::size_t k = 0; k < rows; ++k) {
                    const std::vector<float> start = random.floats(rows * stride, -1, 1);
                    AlignedMatrix a(start);
                    ops->eliminate(a.data(), k, rows, stride);
                    EXPECT_TRUE(a.guard_stands());
                    for (std::size_t r = 0; r < rows; ++r) {
                        for (std::size_t m = k + 1; m < stride; ++m) {
                            float expected = start[r * stride + m];
                            if (r != k)
                                expected = multiply_add(*ops, -start[k * stride + m],
                                                        start[r * stride + k], expected);
                            ASSERT_TRUE(same_number(a.data()[r * stride + m], expected))
                                << r << ", " << m << " of " << rows << " x " << stride
                                << ", column " << k;
                        }
                    }
                }
            }
        }
    }
}

// A positive definite system, its solution in double precision, and room to solve it.
class System {
  public:
    System(RandomNumbers& random, std::size_t size)
        : size_(size),
          stride_(size + 16),
          a_(random.floats(size * stride_, -1, 1)),
          b_(random.floats(size, -1, 1)),
          scaled_(std::vector<float>(16 * stride_)),
          reciprocals_(size) {
        for (std::size_t k = 0; k < size; ++k)
            a_.data()[k * stride_ + k] = static_cast<float>(size);
        expected_ = solution();
    }
    simd::PositiveSystem system() {
        return {a_.data(), b_.data(), scaled_.data(), reciprocals_.data(), size_, stride_};
    }
    [[nodiscard]] const std::vector<float>& b() const { return b_; }
    [[nodiscard]] const std::vector<double>& expected() const { return expected_; }
    [[nodiscard]] bool guards_stand() const { return a_.guard_stands() && scaled_.guard_stands(); }

  private:
    // By Gauss elimination; the upper triangle is what counts.
    [[nodiscard]] std::vector<double> solution() const {
        std::vector<std::vector<double>> rows(size_, std::vector<double>(size_ + 1));
        for (std::size_t i = 0; i < size_; ++i) {
            for (std::size_t j = 0; j < size_; ++j)
                rows[i][j] = double{a_.data()[std::min(i, j) * stride_ + std::max(i, j)]};
            rows[i][size_] = double{b_[i]};
        }
        for (std::size_t k = 0; k < size_; ++k)
            for (std::size_t i = 0; i < size_; ++i) {
                if (i == k) continue;
                const double factor = rows[i][k] / rows[k][k];
                for (std::size_t j = k; j <= size_; ++j) rows[i][j] -= factor * rows[k][j];
            }
        std::vector<double> x(size_);
        for (std::size_t i = 0; i < size_; ++i) x[i] = rows[i][size_] / rows[i][i];
        return x;
    }

    std::size_t size_;
    std::size_t stride_;
    AlignedMatrix a_;
    std::vector<float> b_;
    AlignedMatrix scaled_;
    std::vector<float> reciprocals_;
    std::vector<double> expected_;
};

TEST(SimdSolvePositive, SolvesSystemsOfDifferentSizesTogether) {
    const std::vector<std::size_t> groups[] = {{16}, {32, 16}, {48, 16, 64, 16}, {112, 80, 96}};
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        RandomNumbers random(7);
        for (const std::vector<std::size_t>& sizes : groups) {
            std::vector<std::unique_ptr<System>> solved;
            std::vector<simd::PositiveSystem> systems;
            for (const std::size_t size : sizes) {
                solved.push_back(std::make_unique<System>(random, size));
                systems.push_back(solved.back()->system());
            }
            ops->solve_positive(systems.data(), systems.size());
            for (std::size_t s = 0; s < sizes.size(); ++s) {
                EXPECT_TRUE(solved[s]->guards_stand());
                for (std::size_t k = 0; k < sizes[s]; ++k) {
                    EXPECT_NEAR(solved[s]->b()[k], solved[s]->expected()[k], 1e-5);
                    EXPECT_GT(systems[s].reciprocals[k], 0.0f);
                }
            }
        }
    }
}

TEST(SimdSolvePositive, GivesTheSameBitsWithEveryFusedVariantAndInAnyCompany) {
    std::vector<std::vector<float>> results;
    for (const simd::Operations* ops : variants()) {
        if (!ops->fused) continue;
        for (const bool together : {true, false}) {
            RandomNumbers random(8);
            System first(random, 80);
            System second(random, 48);
            const simd::PositiveSystem systems[] = {first.system(), second.system()};
            if (together) {
                ops->solve_positive(systems, 2);
            } else {
                ops->solve_positive(systems, 1);
                ops->solve_positive(systems + 1, 1);
            }
            results.push_back(first.b());
            results.back().insert(results.back().end(), second.b().begin(), second.b().end());
        }
    }
    for (const std::vector<float>& result : results)
        EXPECT_TRUE(same_numbers(result, results.front()));
}

// A pivot that is not positive shows in its reciprocal; nothing else is done about it.
TEST(SimdSolvePositive, LeavesAReciprocalThatIsNoPositiveNumberWithoutAPositivePivot) {
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const bool is_nan : {false, true}) {
            RandomNumbers random(9);
            System one(random, 32);
            const simd::PositiveSystem system = one.system();
            system.a[20 * system.stride + 20] = is_nan ? NAN : -1.0f;
            ops->solve_positive(&system, 1);
            EXPECT_FALSE(system.reciprocals[20] > 0.0f);
            EXPECT_GT(system.reciprocals[19], 0.0f);
        }
    }
}

}  // namespace
}  // namespace zx::test
