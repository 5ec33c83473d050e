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

TEST(SimdAddScaled, AddsInOneStepWhereItCan) {
    RandomNumbers random(1);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= 67; ++d) {
            for (std::size_t shift = 0; shift < 4; ++shift) {
                const std::vector<float> x = random.floats(shift + d, -1, 1);
                std::vector<float> out = random.floats(shift + d + 1, -1, 1);
                std::vector<float> expected = out;
                const float factor = static_cast<float>(random.between(-2, 2));
                for (std::size_t k = shift; k < shift + d; ++k)
                    expected[k] = multiply_add(*ops, x[k], factor, expected[k]);
                ops->add_scaled(out.data() + shift, x.data() + shift, factor, d);
                EXPECT_TRUE(same_numbers(out, expected)) << d << " from " << shift;
            }
        }
    }
}

TEST(SimdAddOuterProducts, AddsInTheOrderOfTheRows) {
    RandomNumbers random(2);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t stride : {16u, 32u, 48u, 80u}) {
            for (std::size_t rows = 1; rows <= stride; rows += rows < 18 ? 1 : 7) {
                for (const std::size_t count : {0u, 1u, 2u, 5u, 64u}) {
                    const std::vector<float> start = random.floats(rows * stride, -1, 1);
                    AlignedMatrix a(start);
                    const AlignedMatrix left(random.floats(count * stride, -1, 1));
                    const AlignedMatrix right(random.floats(count * stride, -1, 1));
                    ops->add_outer_products(a.data(), left.data(), right.data(), count, rows,
                                            stride);
                    EXPECT_TRUE(a.guard_stands());
                    for (std::size_t k = 0; k < rows; ++k) {
                        for (std::size_t l = k; l < stride; ++l) {
                            float expected = start[k * stride + l];
                            for (std::size_t j = 0; j < count; ++j)
                                expected = multiply_add(*ops, left.data()[j * stride + k],
                                                        right.data()[j * stride + l], expected);
                            ASSERT_TRUE(same_number(a.data()[k * stride + l], expected))
                                << k << ", " << l << " of " << rows << " x " << stride << " after "
                                << count;
                        }
                    }
                }
            }
        }
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

}  // namespace
}  // namespace zx::test
