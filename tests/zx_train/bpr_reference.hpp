// The BPR step written for reading: the passes one after the other over the tables, through plain
// pointers, so that rows that coincide do what the passes make of them.
#pragma once

#include "float_bits.hpp"
#include "owned.hpp"
#include "random_numbers.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {

struct Triples {
    Ids users;
    Ids positives;
    Ids negatives;

    [[nodiscard]] std::uint32_t count() const { return static_cast<std::uint32_t>(users.size()); }

    void add(std::uint32_t user, std::uint32_t positive, std::uint32_t negative) {
        users.push_back(user);
        positives.push_back(positive);
        negatives.push_back(negative);
    }
};

inline zx_status_t train(zx_model_t* model, const Triples& triples, float learning_rate,
                         float regularization) {
    return zx_model_train_step_bpr(model, triples.users.data(), triples.positives.data(),
                                   triples.negatives.data(), triples.count(), learning_rate,
                                   regularization);
}

// The tables of a model, copied. `items` is `users` itself where the two share one table.
struct BprTables {
    std::vector<float> users;
    std::vector<float> items;
    std::vector<float> biases;
    std::size_t dim = 0;
    bool shared = false;

    float* user_row(std::uint32_t user) { return users.data() + user * dim; }
    float* item_row(std::uint32_t item) { return (shared ? users : items).data() + item * dim; }
    [[nodiscard]] std::size_t num_users() const { return users.size() / dim; }
    [[nodiscard]] std::size_t num_items() const { return (shared ? users : items).size() / dim; }
};

// The seven passes over the three rows of a triple, each over the whole row before the next.
// Without a copy of the old user row, the item rows move along the new one.
inline void bpr_passes(float* w, float* p, float* n, std::size_t dim, float decay, float g,
                       bool copies) {
    const std::vector<float> old(w, w + dim);
    const float* const source = copies ? old.data() : w;
    for (std::size_t k = 0; k < dim; ++k) w[k] = w[k] * decay;
    for (std::size_t k = 0; k < dim; ++k) w[k] = w[k] + g * p[k];
    for (std::size_t k = 0; k < dim; ++k) w[k] = w[k] + (-g) * n[k];
    for (std::size_t k = 0; k < dim; ++k) p[k] = p[k] * decay;
    for (std::size_t k = 0; k < dim; ++k) p[k] = p[k] + g * source[k];
    for (std::size_t k = 0; k < dim; ++k) n[k] = n[k] * decay;
    for (std::size_t k = 0; k < dim; ++k) n[k] = n[k] + (-g) * source[k];
}

// The step factor of a score difference, in double precision up to the final rounding.
inline float bpr_factor(double x, float learning_rate) {
    if (x > 35.0) return 0.0f;
    if (x < -35.0) return learning_rate;
    return static_cast<float>(learning_rate / (1.0 + std::exp(x)));
}

inline double exact_dot(const float* a, const float* b, std::size_t dim) {
    double sum = 0.0;
    for (std::size_t k = 0; k < dim; ++k) sum += double{a[k]} * b[k];
    return sum;
}

// One whole batch. Where every score difference is 0 or beyond 35 on either side, whatever way it
// is summed, the result is exact to the bit.
inline void bpr_reference(BprTables& tables, const Triples& triples, float learning_rate,
                          float regularization) {
    const float decay = 1.0f - learning_rate * regularization;
    const bool copies = tables.dim <= 512 || triples.count() >= 256;
    for (std::uint32_t i = 0; i < triples.count(); ++i) {
        const std::uint32_t user = triples.users[i];
        const std::uint32_t positive = triples.positives[i];
        const std::uint32_t negative = triples.negatives[i];
        if (user >= tables.num_users() || std::max(positive, negative) >= tables.num_items())
            continue;
        float* const w = tables.user_row(user);
        float* const p = tables.item_row(positive);
        float* const n = tables.item_row(negative);
        double x = exact_dot(w, p, tables.dim) - exact_dot(w, n, tables.dim);
        if (!tables.biases.empty()) x += double{tables.biases[positive]} - tables.biases[negative];
        const float g = bpr_factor(x, learning_rate);
        bpr_passes(w, p, n, tables.dim, decay, g, copies);
        if (tables.biases.empty()) continue;
        tables.biases[positive] = tables.biases[positive] + g;
        tables.biases[negative] = tables.biases[negative] - g;
    }
}

inline BprTables bpr_tables(const zx_model_t& model) {
    BprTables tables;
    tables.dim = model.embedding_dim;
    tables.shared = model.user_embeddings == model.item_embeddings;
    const auto copied = [](const zx_tensor_t* tensor) {
        return std::vector<float>(tensor->data, tensor->data + tensor->size);
    };
    tables.users = copied(model.user_embeddings);
    if (!tables.shared) tables.items = copied(model.item_embeddings);
    if (model.use_bias) tables.biases = copied(model.item_biases);
    return tables;
}

inline testing::AssertionResult same_tables(const zx_model_t& model, const BprTables& expected) {
    const BprTables actual = bpr_tables(model);
    if (auto same = same_numbers(actual.users, expected.users); !same)
        return same << ", in the user table";
    if (auto same = same_numbers(actual.items, expected.items); !same)
        return same << ", in the item table";
    if (auto same = same_numbers(actual.biases, expected.biases); !same)
        return same << ", in the item biases";
    return testing::AssertionSuccess();
}

inline Triples random_triples(std::uint32_t count, std::uint32_t users, std::uint32_t items,
                              RandomNumbers& random) {
    return {random.ids(count, users), random.ids(count, items), random.ids(count, items)};
}

}  // namespace zx::test
