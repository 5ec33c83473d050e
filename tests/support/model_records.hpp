// Models with chosen contents, and looks into them.
#pragma once

#include "owned.hpp"
#include "random_numbers.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {

inline std::vector<float> contents(const zx_tensor_t* tensor) {
    return {tensor->data, tensor->data + tensor->size};
}

inline void fill(zx_tensor_t* tensor, const std::vector<float>& values) {
    ASSERT_EQ(tensor->size, values.size());
    std::copy(values.begin(), values.end(), tensor->data);
}

// Everything that training may change.
struct ModelContents {
    std::vector<float> users;
    std::vector<float> items;
    std::vector<float> user_biases;
    std::vector<float> item_biases;
    float global_bias = 0.0f;
};

inline ModelContents contents(const zx_model_t* model) {
    ModelContents all;
    all.users = contents(model->user_embeddings);
    all.items = contents(model->item_embeddings);
    if (model->user_biases) all.user_biases = contents(model->user_biases);
    if (model->item_biases) all.item_biases = contents(model->item_biases);
    all.global_bias = model->global_bias;
    return all;
}

struct Shape {
    std::uint32_t users;
    std::uint32_t items;
    std::uint32_t dim;
    bool biased;
};

// A model whose numbers are uniform in [-1, 1).
inline ModelPtr random_model(const Shape& shape, RandomNumbers& random) {
    ModelPtr model(zx_model_mf_create(shape.users, shape.items, shape.dim, shape.biased));
    if (!model) return model;
    fill(model->user_embeddings, random.floats(model->user_embeddings->size, -1.0, 1.0));
    fill(model->item_embeddings, random.floats(model->item_embeddings->size, -1.0, 1.0));
    if (shape.biased) {
        fill(model->user_biases, random.floats(shape.users, -1.0, 1.0));
        fill(model->item_biases, random.floats(shape.items, -1.0, 1.0));
        model->global_bias = static_cast<float>(random.between(-1.0, 1.0));
    }
    return model;
}

// A model of one user whose score of item i is scores[i], whatever the number: the user's only
// coordinate is 1.
inline ModelPtr model_with_scores(const std::vector<float>& scores) {
    ModelPtr model(zx_model_mf_create(1, static_cast<std::uint32_t>(scores.size()), 1, false));
    if (!model) return model;
    model->user_embeddings->data[0] = 1.0f;
    fill(model->item_embeddings, scores);
    return model;
}

inline const float* user_row(const zx_model_t& model, std::uint32_t user) {
    return model.user_embeddings->data + static_cast<std::size_t>(user) * model.embedding_dim;
}

inline const float* item_row(const zx_model_t& model, std::uint32_t item) {
    return model.item_embeddings->data + static_cast<std::size_t>(item) * model.embedding_dim;
}

// A value no model kind has.
inline constexpr zx_model_type_t kNotMf = 1;

}  // namespace zx::test
