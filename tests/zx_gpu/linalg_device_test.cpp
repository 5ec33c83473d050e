// The device operations on matrices: what they compute, against sums in double precision, and the
// checks that only some of them make.

#include "operations_fixture.hpp"

#include <algorithm>
#include <utility>

namespace {

using zx::test::blank;
using zx::test::dot;
using zx::test::expect_exact;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::fetched;
using zx::test::kMatrixShapes;
using zx::test::opencl;
using zx::test::RandomNumbers;
using zx::test::tensor_of;
using zx::test::TensorPtr;

using Floats = std::vector<float>;
using Doubles = std::vector<double>;
using DeviceLinalg = zx::test::DeviceOperations;

struct ProductShape {
    std::uint32_t m;
    std::uint32_t k;
    std::uint32_t n;
    std::vector<std::uint32_t> further_axes = {};  // of both factors, behind those of the matrix
};
const std::vector<ProductShape> kProductShapes = [] {
    std::vector<ProductShape> shapes = {{1, 1, 1},    {3, 17, 64},     {17, 513, 3}, {64, 64, 64},
                                        {513, 3, 17}, {513, 513, 513}, {64, 1, 513}, {1, 513, 1},
                                        {17, 64, 1},  {5003, 3, 2},    {2, 7, 5003}, {512, 5, 31},
                                        {2, 5003, 2}, {31, 512, 512}};
    RandomNumbers random(43);
    const std::vector<std::uint32_t> axes[] = {{}, {2}, {1, 2}};
    for (int i = 0; i < zx::test::kRandomShapes; ++i) {
        const std::uint32_t m = zx::test::random_extent(random);
        const std::uint32_t k = zx::test::random_extent(random);
        shapes.push_back({m, k, zx::test::random_extent(random), axes[i % 3]});
    }
    if (zx::test::is_simulated())
        std::erase_if(shapes, [](const ProductShape& s) { return s.m * s.k * s.n > 40000; });
    return shapes;
}();

// a [m x k] times transposed b [n x k].
Doubles product(const Floats& a, const Floats& b, const ProductShape& shape) {
    Doubles c;
    for (std::size_t row = 0; row < shape.m; ++row)
        for (std::size_t column = 0; column < shape.n; ++column)
            c.push_back(dot(&a[row * shape.k], &b[column * shape.k], shape.k));
    return c;
}

TEST_F(DeviceLinalg, ComputesADenseLayerWithAndWithoutBiasAndRectifier) {
    const TensorPtr input = tensor_of({2, 3}, {1, 2, 3, 4, 5, 6});
    const TensorPtr weight = tensor_of({3, 3}, {1, 0, -1, 0, 2, 1, -1, -1, -1});
    const TensorPtr bias = tensor_of({3}, {3, -7.5f, 6.5f});
    const struct {
        zx_tensor_t* bias;
        bool relu;
        Floats expected;
    } cases[] = {
        {nullptr, false, {-2, 7, -6, -2, 16, -15}},
        {nullptr, true, {0, 7, 0, 0, 16, 0}},
        {bias.get(), false, {1, -0.5f, 0.5f, 1, 8.5f, -8.5f}},
        {bias.get(), true, {1, 0, 0.5f, 1, 8.5f, 0}},
    };
    for (const auto& [layer_bias, relu, expected] : cases) {
        const TensorPtr output = blank({2, 3});
        EXPECT_EQ(zx_gpu_dense_forward(output.get(), input.get(), weight.get(), layer_bias, relu),
                  ZX_OK);
        EXPECT_EQ(fetched(output), expected);
    }
    expect_untouched();
}

TEST_F(DeviceLinalg, ComputesDenseLayersOfManyShapes) {
    RandomNumbers random(1);
    for (const ProductShape& shape : kProductShapes) {
        SCOPED_TRACE(testing::Message() << shape.m << " " << shape.k << " " << shape.n);
        const Floats inputs = random.all_eighths(std::size_t{shape.m} * shape.k);
        const Floats weights = random.all_eighths(std::size_t{shape.n} * shape.k);
        const Floats biases = random.all_eighths(shape.n);
        const TensorPtr input = tensor_of({shape.m, shape.k}, inputs, shape.further_axes);
        const TensorPtr weight = tensor_of({shape.n, shape.k}, weights, shape.further_axes);
        const TensorPtr bias = tensor_of({shape.n}, biases);
        Doubles expected = product(inputs, weights, shape);
        for (std::size_t i = 0; i < expected.size(); ++i)
            expected[i] += static_cast<double>(biases[i % shape.n]);
        for (const bool relu : {false, true}) {
            const TensorPtr output = blank({shape.m, shape.n});
            EXPECT_EQ(
                zx_gpu_dense_forward(output.get(), input.get(), weight.get(), bias.get(), relu),
                ZX_OK);
            if (relu)
                for (double& value : expected) value = std::max(value, 0.0);
            expect_exact(fetched(output), expected);
        }
    }
}

TEST_F(DeviceLinalg, DoesNotCheckADenseBiasForData) {
    const TensorPtr input = tensor_of({1, 2}, {1, 2});
    const TensorPtr weight = tensor_of({2, 2}, {1, 2, 3, 4});
    const TensorPtr bias = tensor_of({2}, {5, 6});
    const TensorPtr output = blank({1, 2});
    float* const data = std::exchange(bias->data, nullptr);
    // Its upload is what fails, and that is not recorded.
    EXPECT_EQ(zx_gpu_dense_forward(output.get(), input.get(), weight.get(), bias.get(), false),
              ZX_ERR_BUFFER_CREATE);
    bias->data = data;
    expect_untouched();
    EXPECT_EQ(weight->on_device, 1);
    EXPECT_EQ(output->on_device, 0);
}

TEST_F(DeviceLinalg, MultipliesMatricesOfManyShapes) {
    RandomNumbers random(2);
    for (const ProductShape& shape : kProductShapes) {
        SCOPED_TRACE(testing::Message() << shape.m << " " << shape.k << " " << shape.n);
        const Floats left = random.all_eighths(std::size_t{shape.m} * shape.k);
        const Floats right = random.all_eighths(std::size_t{shape.n} * shape.k);
        const TensorPtr a = tensor_of({shape.m, shape.k}, left, shape.further_axes);
        const TensorPtr b = tensor_of({shape.n, shape.k}, right, shape.further_axes);
        const TensorPtr c = blank({shape.m, shape.n});
        EXPECT_EQ(zx_gpu_matmul(c.get(), a.get(), b.get()), ZX_OK);
        expect_exact(fetched(c), product(left, right, shape));
    }
    expect_untouched();
}

TEST_F(DeviceLinalg, ChainsOperationsWithoutAFetchInBetween) {
    const TensorPtr a = tensor_of({1, 2}, {1, -2});
    const TensorPtr b = tensor_of({2, 2}, {3, 1, 1, 2});
    const TensorPtr c = blank({1, 2});
    EXPECT_EQ(zx_gpu_matmul(c.get(), a.get(), b.get()), ZX_OK);  // 1, -3
    EXPECT_EQ(zx_gpu_vec_scale(c.get(), 2.0f), ZX_OK);
    EXPECT_EQ(zx_gpu_leaky_relu(c.get(), 0.5f), ZX_OK);
    EXPECT_EQ(fetched(c), (Floats{2, -3}));
}

TEST_F(DeviceLinalg, FetchesTableRows) {
    RandomNumbers random(3);
    for (const auto& [rows, width, further_axes] : kMatrixShapes) {
        SCOPED_TRACE(testing::Message() << rows << " " << width);
        const Floats values = random.floats(std::size_t{rows} * width, -1.0, 1.0);
        const std::vector<std::uint32_t> wanted = random.ids(64, rows);
        const TensorPtr table = tensor_of({rows, width}, values, further_axes);
        const TensorPtr output = blank({64, width});
        EXPECT_EQ(zx_gpu_embedding_lookup(output.get(), table.get(), wanted.data(), 64), ZX_OK);
        Floats expected;
        for (const std::uint32_t row : wanted)
            expected.insert(expected.end(), &values[std::size_t{row} * width],
                            &values[std::size_t{row} * width] + width);
        EXPECT_EQ(fetched(output), expected);
    }
    expect_untouched();
}

TEST_F(DeviceLinalg, FetchesZerosForRowsThatTheTableLacks) {
    const TensorPtr table = tensor_of({3, 2}, {1, 2, 3, 4, 5, 6});
    const TensorPtr output = blank({5, 2});
    const std::uint32_t wanted[] = {2, 3, 0, 0x80000000U, 0xffffffffU};
    EXPECT_EQ(zx_gpu_embedding_lookup(output.get(), table.get(), wanted, 5), ZX_OK);
    EXPECT_EQ(fetched(output), (Floats{5, 6, 0, 0, 1, 2, 0, 0, 0, 0}));
}

TEST_F(DeviceLinalg, LeavesTheRowsBeyondTheWantedOnesAlone) {
    const TensorPtr table = tensor_of({2, 2}, {1, 2, 3, 4});
    const TensorPtr output = tensor_of({3, 2}, {9, 9, 9, 9, 8, 8});
    const std::uint32_t wanted[] = {1, 0};
    EXPECT_EQ(zx_gpu_embedding_lookup(output.get(), table.get(), wanted, 2), ZX_OK);
    EXPECT_EQ(fetched(output), (Floats{3, 4, 1, 2, 8, 8}));
}

TEST_F(DeviceLinalg, ChecksTheArgumentsOfALookupInOrder) {
    const TensorPtr table = tensor_of({2, 2}, {1, 2, 3, 4});
    const TensorPtr output = blank({2, 2});
    const std::uint32_t wanted[] = {0, 1, 1};
    const struct {
        zx_tensor_t* output;
        zx_tensor_t* table;
        const std::uint32_t* indices;
        std::uint32_t count;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {nullptr, table.get(), nullptr, 2, ZX_ERR_NULL_POINTER, "NULL tensor"},
        {output.get(), nullptr, nullptr, 2, ZX_ERR_NULL_POINTER, "NULL tensor"},
        {output.get(), table.get(), nullptr, 0x80000000U, ZX_ERR_NULL_POINTER, "NULL indices"},
        {output.get(), table.get(), nullptr, 0, ZX_ERR_NULL_POINTER, "NULL indices"},
        {output.get(), table.get(), wanted, 0x80000000U, ZX_ERR_OVERFLOW,
         "Element count exceeds 32 bits"},
        {output.get(), table.get(), wanted, 0x7fffffffU, ZX_ERR_DIMENSION_MISMATCH,
         "Tensor shapes do not fit"},
        {output.get(), table.get(), wanted, 3, ZX_ERR_DIMENSION_MISMATCH,
         "Tensor shapes do not fit"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::Message() << test.message << " " << test.count);
        EXPECT_EQ(zx_gpu_embedding_lookup(test.output, test.table, test.indices, test.count),
                  test.code);
        expect_recorded(test.code, "src/zx_gpu", test.message);
        EXPECT_TRUE(opencl().calls.empty());
    }
}

TEST_F(DeviceLinalg, ReportsAnIndexBufferThatCannotBeMade) {
    const TensorPtr table = tensor_of({2, 2}, {1, 2, 3, 4});
    const TensorPtr output = blank({2, 2});
    const std::uint32_t wanted[] = {0, 1};
    // OpenCL has no buffers without bytes.
    EXPECT_EQ(zx_gpu_embedding_lookup(output.get(), table.get(), wanted, 0),
              ZX_ERR_ALLOCATION_FAILED);
    expect_recorded(101, "src/zx_gpu", "Failed to create index buffer");
    EXPECT_EQ(table->on_device, 1);
    EXPECT_EQ(output->on_device, 1);

    zx::test::plant_record();
    opencl().refused.insert("clCreateBuffer");
    EXPECT_EQ(zx_gpu_embedding_lookup(output.get(), table.get(), wanted, 2),
              ZX_ERR_ALLOCATION_FAILED);
    expect_recorded(101, "src/zx_gpu", "Failed to create index buffer");
    EXPECT_TRUE(opencl().launches.empty());
}

TEST_F(DeviceLinalg, ComputesDotProductsOfRows) {
    RandomNumbers random(4);
    for (const auto& [rows, width, further_axes] : kMatrixShapes) {
        SCOPED_TRACE(testing::Message() << rows << " " << width);
        const Floats left = random.all_eighths(std::size_t{rows} * width);
        const Floats right = random.all_eighths(left.size());
        const TensorPtr a = tensor_of({rows, width}, left, further_axes);
        const TensorPtr b = tensor_of({rows, width}, right, further_axes);
        const TensorPtr output = blank({rows});
        EXPECT_EQ(zx_gpu_batched_dot(output.get(), a.get(), b.get()), ZX_OK);
        Doubles expected;
        for (std::size_t row = 0; row < rows; ++row)
            expected.push_back(dot(&left[row * width], &right[row * width], width));
        expect_exact(fetched(output), expected);
    }
    expect_untouched();
}

TEST_F(DeviceLinalg, ScoresAllItems) {
    RandomNumbers random(5);
    for (const auto& [num_items, width, further_axes] : kMatrixShapes) {
        SCOPED_TRACE(testing::Message() << num_items << " " << width);
        const Floats numbers = random.all_eighths(width);
        const Floats rows = random.all_eighths(std::size_t{num_items} * width);
        const TensorPtr user = tensor_of({width}, numbers);
        const TensorPtr items = tensor_of({num_items, width}, rows, further_axes);
        const TensorPtr scores = blank({num_items});
        EXPECT_EQ(zx_gpu_score_all_items(scores.get(), user.get(), items.get()), ZX_OK);
        Doubles expected;
        for (std::size_t item = 0; item < num_items; ++item)
            expected.push_back(dot(numbers.data(), &rows[item * width], width));
        expect_exact(fetched(scores), expected);
    }
    expect_untouched();
}

}  // namespace
