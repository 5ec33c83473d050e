// The device operations on elements, rows and vectors: what they compute, against double precision.

#include "operations_fixture.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

namespace {

using zx::test::blank;
using zx::test::dot;
using zx::test::expect_close;
using zx::test::expect_exact;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::fetched;
using zx::test::kMatrixShapes;
using zx::test::kTensorShapes;
using zx::test::opencl;
using zx::test::RandomNumbers;
using zx::test::size_of;
using zx::test::tensor_of;
using zx::test::TensorPtr;
using zx::test::with_what_is_behind;

using Floats = std::vector<float>;
using Doubles = std::vector<double>;
using DeviceElementwise = zx::test::DeviceOperations;

// What the device's relaxed exponential is off by at most, and then some.
constexpr double kTolerance = 1e-5;

Doubles softmax_of_rows(const Floats& x, std::size_t width) {
    Doubles result;
    for (std::size_t start = 0; start < x.size(); start += width) {
        const double largest =
            static_cast<double>(*std::max_element(&x[start], x.data() + start + width));
        double sum = 0.0;
        for (std::size_t c = 0; c < width; ++c)
            sum += std::exp(static_cast<double>(x[start + c]) - largest);
        for (std::size_t c = 0; c < width; ++c)
            result.push_back(std::exp(static_cast<double>(x[start + c]) - largest) / sum);
    }
    return result;
}

Doubles normalised_rows(const Floats& x, const Floats& gamma, const Floats& beta, double eps) {
    const std::size_t width = gamma.size();
    const auto count = static_cast<double>(width);
    Doubles result;
    for (std::size_t start = 0; start < x.size(); start += width) {
        double mean = 0.0;
        for (std::size_t c = 0; c < width; ++c) mean += static_cast<double>(x[start + c]) / count;
        double variance = 0.0;
        for (std::size_t c = 0; c < width; ++c) {
            const double difference = static_cast<double>(x[start + c]) - mean;
            variance += difference * difference / count;
        }
        for (std::size_t c = 0; c < width; ++c)
            result.push_back((static_cast<double>(x[start + c]) - mean) /
                                 std::sqrt(variance + eps) * static_cast<double>(gamma[c]) +
                             static_cast<double>(beta[c]));
    }
    return result;
}

TEST_F(DeviceElementwise, AppliesActivationsInPlace) {
    const struct {
        const char* name;
        zx_status_t (*apply)(zx_tensor_t* x);
        double (*expected)(double x);
    } cases[] = {
        {"relu", zx_gpu_relu, [](double x) { return std::max(x, 0.0); }},
        {"sigmoid", zx_gpu_sigmoid, [](double x) { return 1.0 / (1.0 + std::exp(-x)); }},
        {"tanh", zx_gpu_tanh, [](double x) { return std::tanh(x); }},
        {"gelu", zx_gpu_gelu,
         [](double x) {
             const double inner = std::sqrt(2.0 / std::numbers::pi) * (x + 0.044715 * x * x * x);
             return 0.5 * x * (1.0 + std::tanh(inner));
         }},
        {"leaky_relu", [](zx_tensor_t* x) { return zx_gpu_leaky_relu(x, 0.25f); },
         [](double x) { return x > 0.0 ? x : 0.25 * x; }},
        {"leaky_relu that grows", [](zx_tensor_t* x) { return zx_gpu_leaky_relu(x, -2.0f); },
         [](double x) { return x > 0.0 ? x : -2.0 * x; }},
        {"vec_scale", [](zx_tensor_t* x) { return zx_gpu_vec_scale(x, -1.5f); },
         [](double x) { return -1.5 * x; }},
    };
    RandomNumbers random(11);
    for (const auto& test : cases) {
        for (const std::vector<std::uint32_t>& dims : kTensorShapes) {
            SCOPED_TRACE(testing::Message() << test.name << " " << testing::PrintToString(dims));
            const Floats before = random.floats(size_of(dims), -8.0, 8.0);
            const TensorPtr x = tensor_of(dims, before);
            EXPECT_EQ(test.apply(x.get()), ZX_OK);
            Doubles expected;
            for (const float value : before)
                expected.push_back(test.expected(static_cast<double>(value)));
            expect_close(fetched(x), expected, kTolerance);
        }
    }
    expect_untouched();
}

TEST_F(DeviceElementwise, SaturatesActivationsForLargeValues) {
    // An argument of the exponential from 89 on overflows, and so does the cube of 1e13.
    const Floats large = {-1e13f, -100, -45, -30, -20.5f, 0, 20.5f, 30, 45, 100, 1e13f};
    const struct {
        const char* name;
        zx_status_t (*apply)(zx_tensor_t* x);
        Doubles expected;
    } cases[] = {
        {"sigmoid", zx_gpu_sigmoid, {0, 0, 0, 0, 0, 0.5, 1, 1, 1, 1, 1}},
        {"tanh", zx_gpu_tanh, {-1, -1, -1, -1, -1, 0, 1, 1, 1, 1, 1}},
        {"gelu", zx_gpu_gelu, {0, 0, 0, 0, 0, 0, 20.5, 30, 45, 100, 1e13}},
        {"relu", zx_gpu_relu, {0, 0, 0, 0, 0, 0, 20.5, 30, 45, 100, 1e13}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        const TensorPtr x = tensor_of({11}, large);
        EXPECT_EQ(test.apply(x.get()), ZX_OK);
        expect_close(fetched(x), test.expected, kTolerance);
    }
}

TEST_F(DeviceElementwise, AppliesSoftmaxToEachRow) {
    RandomNumbers random(12);
    for (const auto& [rows, width, unused_axes] : kMatrixShapes) {  // it takes two axes only
        SCOPED_TRACE(testing::Message() << rows << " " << width);
        const Floats before = random.floats(std::size_t{rows} * width, -4.0, 4.0);
        const TensorPtr x = tensor_of({rows, width}, before);
        EXPECT_EQ(zx_gpu_softmax_rows(x.get()), ZX_OK);
        expect_close(fetched(x), softmax_of_rows(before, width), kTolerance);
    }
    expect_untouched();
}

TEST_F(DeviceElementwise, KeepsSoftmaxInRangeForLargeValues) {
    const TensorPtr x =
        tensor_of({3, 3}, {1000, 1001, 1000, -5000, -5000, -5000, 10000, -10000, 0});
    EXPECT_EQ(zx_gpu_softmax_rows(x.get()), ZX_OK);
    // e / (e + 2) and 1 / (e + 2) in the first row.
    expect_close(fetched(x),
                 {0.21194156, 0.57611688, 0.21194156, 1.0 / 3, 1.0 / 3, 1.0 / 3, 1.0, 0.0, 0.0},
                 kTolerance);
}

TEST_F(DeviceElementwise, FollowsAMaximumThatGrowsAlongTheRow) {
    // Each new maximum makes the old ones vanish, by far or by a little, and some rows begin with
    // excluded elements of minus infinity.
    constexpr std::uint32_t kWidth = 27;
    Floats before;
    for (const float step : {0.25f, 3.0f, 100.0f, -0.25f, -3.0f, -100.0f})
        for (std::uint32_t c = 0; c < kWidth; ++c)
            before.push_back(step * static_cast<float>(c) - 7.0f);
    const Floats unmasked = before;
    constexpr float kExcluded = -std::numeric_limits<float>::infinity();
    for (const std::uint32_t excluded : {1U, 4U, 26U}) {
        Floats row(unmasked.begin(), unmasked.begin() + kWidth);
        std::fill_n(row.begin(), excluded, kExcluded);
        before.insert(before.end(), row.begin(), row.end());
    }
    const TensorPtr x = tensor_of({9, kWidth}, before);
    EXPECT_EQ(zx_gpu_softmax_rows(x.get()), ZX_OK);
    expect_close(fetched(x), softmax_of_rows(before, kWidth), kTolerance);
}

TEST_F(DeviceElementwise, RefusesSoftmaxOfOtherThanTwoAxesBeforeItLooksAtCounts) {
    const std::vector<std::uint32_t> shapes[] = {{6}, {1, 2, 3}, {1, 1, 2, 3}};
    for (const std::vector<std::uint32_t>& dims : shapes) {
        const TensorPtr x = tensor_of(dims, {1, 2, 3, 4, 5, 6});
        x->dims[0] = 0x80000000U;
        EXPECT_EQ(zx_gpu_softmax_rows(x.get()), ZX_ERR_DIMENSION_MISMATCH);
        expect_recorded(304, "src/zx_gpu", "Softmax requires 2D tensor");
        // The data is looked at first.
        float* const data = std::exchange(x->data, nullptr);
        EXPECT_EQ(zx_gpu_softmax_rows(x.get()), ZX_ERR_NULL_POINTER);
        expect_recorded(3, "src/zx_gpu", "NULL tensor");
        x->data = data;
    }
    EXPECT_TRUE(opencl().calls.empty());
}

TEST_F(DeviceElementwise, NormalisesEachRow) {
    RandomNumbers random(13);
    for (const auto& [rows, width, further_axes] : kMatrixShapes) {
        SCOPED_TRACE(testing::Message() << rows << " " << width);
        const Floats before = random.floats(std::size_t{rows} * width, -4.0, 4.0);
        const Floats gammas = random.floats(width, -2.0, 2.0);
        const Floats betas = random.floats(width, -2.0, 2.0);
        const TensorPtr x = tensor_of({rows, width}, before, further_axes);
        const TensorPtr gamma = tensor_of({width}, gammas);
        const TensorPtr beta = tensor_of({width}, betas);
        EXPECT_EQ(zx_gpu_layer_norm(x.get(), gamma.get(), beta.get(), 0.5f), ZX_OK);
        expect_close(fetched(x),
                     with_what_is_behind(normalised_rows(before, gammas, betas, 0.5), further_axes),
                     kTolerance);
    }
    expect_untouched();
}

TEST_F(DeviceElementwise, NormalisesRowsFarFromZero) {
    // The mean square of such a row has no digits left for its variance.
    RandomNumbers random(14);
    Floats before = random.all_eighths(std::size_t{3} * 513);
    for (float& value : before) value += 1024.0f;
    const Floats ones(513, 1.0f);
    const Floats zeros(513, 0.0f);
    const TensorPtr x = tensor_of({3, 513}, before);
    const TensorPtr gamma = tensor_of({513}, ones);
    const TensorPtr beta = tensor_of({513}, zeros);
    EXPECT_EQ(zx_gpu_layer_norm(x.get(), gamma.get(), beta.get(), 1e-5f), ZX_OK);
    expect_close(fetched(x), normalised_rows(before, ones, zeros, 1e-5), 5e-4);
}

TEST_F(DeviceElementwise, NormalisesRowsWhoseFirstElementsAreFarFromTheOthers) {
    RandomNumbers random(19);
    for (const std::uint32_t width : {5U, 513U, 5003U}) {
        SCOPED_TRACE(width);
        Floats before = random.floats(width, -1.0, 1.0);
        before[0] = 1000.0f;
        before[1] = -500.0f;
        const Floats ones(width, 1.0f);
        const Floats zeros(width, 0.0f);
        const TensorPtr x = tensor_of({1, width}, before);
        const TensorPtr gamma = tensor_of({width}, ones);
        const TensorPtr beta = tensor_of({width}, zeros);
        EXPECT_EQ(zx_gpu_layer_norm(x.get(), gamma.get(), beta.get(), 1e-5f), ZX_OK);
        expect_close(fetched(x), normalised_rows(before, ones, zeros, 1e-5), 1e-4);
    }
}

TEST_F(DeviceElementwise, NormalisesARowOfEqualsToBeta) {
    RandomNumbers random(15);
    const Floats betas = random.all_eighths(64);
    const TensorPtr x = tensor_of({1, 64}, Floats(64, 4096.0f));
    const TensorPtr gamma = tensor_of({64}, Floats(64, 3.0f));
    const TensorPtr beta = tensor_of({64}, betas);
    EXPECT_EQ(zx_gpu_layer_norm(x.get(), gamma.get(), beta.get(), 1e-5f), ZX_OK);
    EXPECT_EQ(fetched(x), betas);
}

TEST_F(DeviceElementwise, ComputesCosinesOfRows) {
    RandomNumbers random(16);
    for (const auto& [rows, width, further_axes] : kMatrixShapes) {
        SCOPED_TRACE(testing::Message() << rows << " " << width);
        const Floats left = random.floats(std::size_t{rows} * width, -1.0, 1.0);
        const Floats right = random.floats(left.size(), -1.0, 1.0);
        const TensorPtr a = tensor_of({rows, width}, left, further_axes);
        const TensorPtr b = tensor_of({rows, width}, right, further_axes);
        const TensorPtr output = blank({rows});
        EXPECT_EQ(zx_gpu_cosine_similarity(output.get(), a.get(), b.get()), ZX_OK);
        Doubles expected;
        for (std::size_t row = 0; row < rows; ++row) {
            const float* const u = &left[row * width];
            const float* const v = &right[row * width];
            expected.push_back(dot(u, v, width) / std::sqrt(dot(u, u, width) * dot(v, v, width)));
        }
        expect_close(fetched(output), expected, kTolerance);
    }
    expect_untouched();
}

TEST_F(DeviceElementwise, GivesTheCosineZeroToARowOfZeros) {
    const TensorPtr a = tensor_of({5, 2}, {0, 0, 3, 4, 0, 0, 3, 4, 3, 4});
    const TensorPtr b = tensor_of({5, 2}, {1, 2, 0, 0, 0, 0, 6, 8, -4, 3});
    const TensorPtr output = blank({5});
    EXPECT_EQ(zx_gpu_cosine_similarity(output.get(), a.get(), b.get()), ZX_OK);
    const Floats cosines = fetched(output);
    for (const std::size_t row : {0U, 1U, 2U}) EXPECT_EQ(cosines[row], 0.0f) << row;
    EXPECT_NEAR(cosines[3], 1.0f, 1e-6f);
    EXPECT_EQ(cosines[4], 0.0f);
}

TEST_F(DeviceElementwise, AddsVectors) {
    RandomNumbers random(17);
    for (const std::vector<std::uint32_t>& dims : kTensorShapes) {
        SCOPED_TRACE(testing::PrintToString(dims));
        const std::size_t size = size_of(dims);
        const Floats left = random.all_eighths(size);
        const Floats right = random.all_eighths(size);
        Doubles expected;
        for (std::size_t i = 0; i < size; ++i)
            expected.push_back(static_cast<double>(left[i]) + static_cast<double>(right[i]));
        const TensorPtr a = tensor_of(dims, left);
        const TensorPtr b = tensor_of(dims, right);
        const TensorPtr output = blank(dims);
        EXPECT_EQ(zx_gpu_vec_add(output.get(), a.get(), b.get()), ZX_OK);
        expect_exact(fetched(output), expected);
    }
    expect_untouched();
}

TEST_F(DeviceElementwise, AddsAndScalesInPlaceWhenTensorsAreTheSame) {
    const TensorPtr x = tensor_of({3}, {1, 2, 3});
    const TensorPtr y = tensor_of({3}, {10, 20, 30});
    EXPECT_EQ(zx_gpu_vec_add(x.get(), x.get(), y.get()), ZX_OK);
    // Two tensors, two buffers.
    EXPECT_EQ(opencl().buffers.size(), 2U);
    EXPECT_EQ(fetched(x), (Floats{11, 22, 33}));
    EXPECT_EQ(zx_gpu_vec_add(x.get(), y.get(), x.get()), ZX_OK);
    EXPECT_EQ(fetched(x), (Floats{21, 42, 63}));
    EXPECT_EQ(zx_gpu_vec_add(x.get(), x.get(), x.get()), ZX_OK);
    EXPECT_EQ(fetched(x), (Floats{42, 84, 126}));
    EXPECT_EQ(zx_gpu_vec_axpy(x.get(), x.get(), 0.5f), ZX_OK);
    EXPECT_EQ(fetched(x), (Floats{63, 126, 189}));
    EXPECT_EQ(fetched(y), (Floats{10, 20, 30}));
}

TEST_F(DeviceElementwise, AddsAMultipleOfOneVectorToAnother) {
    RandomNumbers random(18);
    for (const std::vector<std::uint32_t>& dims : kTensorShapes) {
        SCOPED_TRACE(testing::PrintToString(dims));
        const std::size_t size = size_of(dims);
        const Floats left = random.all_eighths(size);
        const Floats right = random.all_eighths(size);
        Doubles expected;
        for (std::size_t i = 0; i < size; ++i)
            expected.push_back(2.0 * static_cast<double>(left[i]) + static_cast<double>(right[i]));
        const TensorPtr x = tensor_of(dims, left);
        const TensorPtr y = tensor_of(dims, right);
        EXPECT_EQ(zx_gpu_vec_axpy(x.get(), y.get(), 2.0f), ZX_OK);
        expect_exact(fetched(y), expected);
        EXPECT_EQ(fetched(x), left);
    }
    expect_untouched();
}

TEST_F(DeviceElementwise, LeavesElementsBeyondTheFirstVectorAlone) {
    const TensorPtr x = tensor_of({2}, {1, 2});
    const TensorPtr y = tensor_of({3}, {10, 20, 30});
    const TensorPtr output = tensor_of({4}, {5, 6, 7, 8});
    EXPECT_EQ(zx_gpu_vec_add(output.get(), x.get(), y.get()), ZX_OK);
    EXPECT_EQ(fetched(output), (Floats{11, 22, 7, 8}));
    EXPECT_EQ(zx_gpu_vec_axpy(x.get(), y.get(), -1.0f), ZX_OK);
    EXPECT_EQ(fetched(y), (Floats{9, 18, 30}));
}

}  // namespace
