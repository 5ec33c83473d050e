// Small models for the tests of the tool, with scores that can be read off.
#pragma once

#include "model_store.hpp"

#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace zxtool::test {

// A model of dimension 1: the score of user u and item i is user_factors[u] * item_scores[i].
inline ModelPtr model_with_scores(const std::vector<float>& user_factors,
                                  const std::vector<float>& item_scores) {
    ModelPtr model(zx_model_mf_create(static_cast<std::uint32_t>(user_factors.size()),
                                      static_cast<std::uint32_t>(item_scores.size()), 1, false));
    EXPECT_NE(model, nullptr);
    for (std::uint32_t u = 0; u < user_factors.size(); ++u)
        *zx_tensor_row_ptr(model->user_embeddings, u) = user_factors[u];
    for (std::uint32_t i = 0; i < item_scores.size(); ++i)
        *zx_tensor_row_ptr(model->item_embeddings, i) = item_scores[i];
    return model;
}

// All numbers of a model's tables, as the host's memory has them.
inline std::vector<float> numbers(const zx_model_t& model) {
    std::vector<float> all;
    for (const zx_tensor_t* tensor :
         {model.user_embeddings, model.item_embeddings, model.user_biases, model.item_biases}) {
        const float* data = zx_tensor_data(tensor);
        all.insert(all.end(), data, data + zx_tensor_size(tensor));
    }
    return all;
}

// A random number below n, for making up cases.
inline std::uint32_t below(std::mt19937& random, std::uint32_t n) {
    return static_cast<std::uint32_t>(random() % n);
}

}  // namespace zxtool::test
