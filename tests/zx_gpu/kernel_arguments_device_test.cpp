// What each operation sets on its kernel: every argument by its index, with its size and value, and
// the global size, written out from the kernels' own list of arguments.

#include "operations_fixture.hpp"

#include <algorithm>
#include <functional>
#include <span>
#include <string>
#include <variant>

namespace {

using zx::test::blank;
using zx::test::KernelArgument;
using zx::test::Launch;
using zx::test::opencl;
using zx::test::TensorPtr;

using Ids = std::vector<std::uint32_t>;
using KernelArguments = zx::test::DeviceOperations;

// A tensor stands for its device buffer, ids for the buffer that was made from them.
using Value = std::variant<const TensorPtr*, const Ids*, std::int32_t, float>;

struct Setting {
    const char* kernel;
    std::vector<std::size_t> global;
    std::function<zx_status_t()> call;
    std::vector<Value> arguments;  // in the order of their indices
};

template <typename T>
std::string bytes_of(const T& value) {
    const auto bytes = std::as_bytes(std::span(&value, 1));
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string expected_bytes(const Value& value) {
    if (const auto* const tensor = std::get_if<const TensorPtr*>(&value))
        return bytes_of((**tensor)->device_buffer);
    if (const auto* const integer = std::get_if<std::int32_t>(&value)) return bytes_of(*integer);
    if (const auto* const real = std::get_if<float>(&value)) return bytes_of(*real);
    for (const auto& [buffer, host] : opencl().made_buffers)
        if (host == std::get<const Ids*>(value)->data()) return bytes_of(buffer);
    ADD_FAILURE() << "no buffer was made from these ids";
    return {};
}

// Buffers are handles; integers and reals have four bytes each.
std::size_t expected_size(const Value& value) {
    return std::holds_alternative<std::int32_t>(value) || std::holds_alternative<float>(value) ? 4
                                                                                               : 8;
}

void expect_setting(const Setting& setting) {
    SCOPED_TRACE(setting.kernel);
    opencl() = {};
    ASSERT_EQ(setting.call(), ZX_OK);
    EXPECT_EQ(opencl().launched_kernels, std::vector<std::string>{setting.kernel});
    EXPECT_EQ(opencl().launches, (std::vector<Launch>{{setting.global, {}, false, false}}));
    const std::vector<KernelArgument>& set = opencl().kernel_arguments;
    ASSERT_EQ(set.size(), setting.arguments.size());
    for (const KernelArgument& argument : set) {
        SCOPED_TRACE(argument.index);
        ASSERT_LT(argument.index, setting.arguments.size());
        const Value& expected = setting.arguments[argument.index];
        EXPECT_EQ(argument.kernel, setting.kernel);
        EXPECT_EQ(argument.size, expected_size(expected));
        EXPECT_EQ(argument.value, expected_bytes(expected));
        // Each index once: as many are set as there are, so that none is left out.
        EXPECT_EQ(std::ranges::count(set, argument.index, &KernelArgument::index), 1);
    }
}

TEST_F(KernelArguments, OfMatrixOperations) {
    const TensorPtr input = blank({2, 3});
    const TensorPtr weight = blank({5, 3});
    const TensorPtr bias = blank({5});
    const TensorPtr output = blank({2, 5});
    const TensorPtr table = blank({6, 3});
    const TensorPtr fetched_rows = blank({4, 3});
    const TensorPtr other = blank({2, 3});
    const TensorPtr dots = blank({2});
    const TensorPtr user = blank({3});
    const TensorPtr scores = blank({6});
    const Ids rows = {5, 0, 3, 3};
    const auto dense = [&](const TensorPtr* layer_bias, bool relu) {
        return [&, layer_bias, relu] {
            return zx_gpu_dense_forward(output.get(), input.get(), weight.get(),
                                        layer_bias ? layer_bias->get() : nullptr, relu);
        };
    };
    const Setting settings[] = {
        {"dense_forward",
         {2, 5},
         dense(&bias, false),
         {&input, &weight, &bias, &output, 2, 3, 5, 1}},
        {"dense_forward",
         {2, 5},
         dense(nullptr, false),
         {&input, &weight, &input, &output, 2, 3, 5, 0}},
        {"dense_forward_relu",
         {2, 5},
         dense(&bias, true),
         {&input, &weight, &bias, &output, 2, 3, 5, 1}},
        {"dense_forward_relu",
         {2, 5},
         dense(nullptr, true),
         {&input, &weight, &input, &output, 2, 3, 5, 0}},
        {"matmul_simple",
         {2, 5},
         [&] { return zx_gpu_matmul(output.get(), input.get(), weight.get()); },
         {&input, &weight, &output, 2, 3, 5}},
        {"embedding_lookup",
         {4, 3},
         [&] { return zx_gpu_embedding_lookup(fetched_rows.get(), table.get(), rows.data(), 4); },
         {&table, &rows, &fetched_rows, 3, 4, 6}},
        {"batched_dot_product",
         {2},
         [&] { return zx_gpu_batched_dot(dots.get(), input.get(), other.get()); },
         {&input, &other, &dots, 2, 3}},
        {"score_all_items",
         {6},
         [&] { return zx_gpu_score_all_items(scores.get(), user.get(), table.get()); },
         {&user, &table, &scores, 6, 3}},
    };
    for (const Setting& setting : settings) expect_setting(setting);
}

TEST_F(KernelArguments, OfElementsRowsAndVectors) {
    const TensorPtr x = blank({2, 3});
    const TensorPtr y = blank({2, 3});
    const TensorPtr gamma = blank({3});
    const TensorPtr beta = blank({3});
    const TensorPtr output = blank({2, 3});
    const Setting settings[] = {
        {"relu", {6}, [&] { return zx_gpu_relu(x.get()); }, {&x, 6}},
        {"leaky_relu", {6}, [&] { return zx_gpu_leaky_relu(x.get(), 0.25f); }, {&x, 6, 0.25f}},
        {"sigmoid", {6}, [&] { return zx_gpu_sigmoid(x.get()); }, {&x, 6}},
        {"tanh_act", {6}, [&] { return zx_gpu_tanh(x.get()); }, {&x, 6}},
        {"gelu", {6}, [&] { return zx_gpu_gelu(x.get()); }, {&x, 6}},
        {"softmax_rows", {2}, [&] { return zx_gpu_softmax_rows(x.get()); }, {&x, 2, 3}},
        {"cosine_similarity",
         {2},
         [&] { return zx_gpu_cosine_similarity(output.get(), x.get(), y.get()); },
         {&x, &y, &output, 2, 3}},
        {"layer_norm",
         {2},
         [&] { return zx_gpu_layer_norm(x.get(), gamma.get(), beta.get(), 0.5f); },
         {&x, &gamma, &beta, 2, 3, 0.5f}},
        {"vec_add",
         {6},
         [&] { return zx_gpu_vec_add(output.get(), x.get(), y.get()); },
         {&x, &y, &output, 6}},
        {"vec_scale", {6}, [&] { return zx_gpu_vec_scale(x.get(), 0.75f); }, {&x, 0.75f, 6}},
        {"vec_axpy",
         {6},
         [&] { return zx_gpu_vec_axpy(x.get(), y.get(), 2.0f); },
         {2.0f, &x, &y, 6}},
    };
    for (const Setting& setting : settings) expect_setting(setting);
}

TEST_F(KernelArguments, OfUpdatesAndScoresOfBatches) {
    const TensorPtr u = blank({7});
    const TensorPtr i = blank({7});
    const TensorPtr j = blank({7});
    const TensorPtr user_table = blank({4, 3});
    const TensorPtr item_table = blank({12, 3});
    const TensorPtr biases = blank({12});
    const TensorPtr scores = blank({2});
    const Ids users = {0, 3};
    // Read as biases, the elements of these numbers lie in rows of the item table that are not
    // moved.
    const Ids positives = {9, 6};
    const Ids negatives = {10, 11};
    const auto update = [&](const TensorPtr* bias, bool use_bias) {
        return [&, bias, use_bias] {
            return zx_gpu_bpr_batch_update(
                user_table.get(), item_table.get(), bias ? bias->get() : nullptr, users.data(),
                positives.data(), negatives.data(), 2, use_bias, 0.5f, 0.125f);
        };
    };
    const auto score = [&](const TensorPtr* bias, bool use_bias) {
        return [&, bias, use_bias] {
            return zx_gpu_batched_score(user_table.get(), item_table.get(),
                                        bias ? bias->get() : nullptr, users.data(),
                                        positives.data(), scores.get(), 2, use_bias);
        };
    };
    // The item table stands in for biases that take no part, also where the flag asks for them.
    const struct {
        const TensorPtr* given;
        bool use_bias;
        const TensorPtr* passed;
        std::int32_t flag;
    } choices[] = {{&biases, true, &biases, 1},
                   {&biases, false, &item_table, 0},
                   {nullptr, false, &item_table, 0},
                   {nullptr, true, &item_table, 1}};
    expect_setting({"bpr_gradient_update",
                    {7},
                    [&] { return zx_gpu_bpr_update(u.get(), i.get(), j.get(), 0.5f, 0.125f); },
                    {&u, &i, &j, 0.5f, 0.125f, 7}});
    for (const auto& [given, use_bias, passed, flag] : choices) {
        SCOPED_TRACE(testing::Message() << (given ? "biases, " : "no biases, ") << use_bias);
        expect_setting({"bpr_batch_update",
                        {2},
                        update(given, use_bias),
                        {&user_table, &item_table, passed, &users, &positives, &negatives, 0.5f,
                         0.125f, 3, 2, flag}});
        expect_setting(
            {"batched_score",
             {2},
             score(given, use_bias),
             {&user_table, &item_table, passed, &users, &positives, &scores, 3, 2, flag}});
    }
}

}  // namespace
