#include "data.hpp"

#include <algorithm>
#include <cmath>

namespace zxbench {
namespace {

constexpr std::uint32_t kUsers = 20000;
constexpr std::uint32_t kItems = 10000;
constexpr std::uint32_t kMaxUserEntries = 2000;

std::uint32_t random_below(std::uint32_t limit) {
    const auto drawn = static_cast<std::uint32_t>(zx_rng_uniform() * static_cast<float>(limit));
    return std::min(drawn, limit - 1);
}

SparsePtr make_zipf_interactions() {
    zx_rng_seed(20000);
    std::vector<float> cumulative(kItems);
    float total = 0.0f;
    for (std::uint32_t item = 0; item < kItems; ++item) {
        total += 1.0f / std::pow(static_cast<float>(item + 1), 0.8f);
        cumulative[item] = total;
    }
    std::vector<std::uint32_t> starts = {0};
    std::vector<std::uint32_t> columns;
    std::vector<bool> taken(kItems);
    for (std::uint32_t user = 0; user < kUsers; ++user) {
        const float mean = -46.0f * std::log(std::max(zx_rng_uniform(), 1e-9f));
        const std::size_t end =
            columns.size() + std::min(5 + static_cast<std::uint32_t>(mean), kMaxUserEntries);
        while (columns.size() < end) {
            const auto at = std::lower_bound(cumulative.begin(), cumulative.end() - 1,
                                             zx_rng_uniform() * total);
            const auto item = static_cast<std::uint32_t>(at - cumulative.begin());
            if (!taken[item]) columns.push_back(item);
            taken[item] = true;
        }
        std::sort(columns.begin() + starts.back(), columns.end());
        for (std::size_t i = starts.back(); i < end; ++i) taken[columns[i]] = false;
        starts.push_back(static_cast<std::uint32_t>(end));
    }

    SparsePtr matrix(zx_sparse_create(kUsers, kItems, starts.back()));
    std::copy(starts.begin(), starts.end(), matrix->row_ptr);
    std::copy(columns.begin(), columns.end(), matrix->col_idx);
    std::fill_n(matrix->values, matrix->nnz, 1.0f);
    return matrix;
}

Triples make_zipf_triples() {
    const zx_sparse_t& matrix = zipf_interactions();
    zx_rng_seed(7);
    Triples triples;
    for (std::uint32_t i = 0; i < matrix.nnz; ++i) {
        const std::uint32_t entry = random_below(matrix.nnz);
        const std::uint32_t* const row =
            std::upper_bound(matrix.row_ptr, matrix.row_ptr + matrix.rows + 1, entry) - 1;
        triples.users.push_back(static_cast<std::uint32_t>(row - matrix.row_ptr));
        triples.pos_items.push_back(matrix.col_idx[entry]);
    }
    triples.neg_items.resize(matrix.nnz);
    zx_sample_negatives_uniform(&matrix, triples.users.data(), triples.neg_items.data(), matrix.nnz,
                                kItems);
    return triples;
}

}  // namespace

const zx_sparse_t& zipf_interactions() {
    static const SparsePtr matrix = make_zipf_interactions();
    return *matrix;
}

const Triples& zipf_triples() {
    static const Triples triples = make_zipf_triples();
    return triples;
}

Triples uniform_triples(std::uint32_t num_users, std::uint32_t num_items, std::size_t count) {
    zx_rng_seed(11);
    Triples triples;
    for (std::size_t i = 0; i < count; ++i) {
        triples.users.push_back(random_below(num_users));
        triples.pos_items.push_back(random_below(num_items));
        triples.neg_items.push_back(random_below(num_items));
    }
    return triples;
}

ModelPtr make_model(std::uint32_t num_users, std::uint32_t num_items, std::uint32_t d,
                    bool use_bias) {
    zx_rng_seed(1);
    return ModelPtr(zx_model_mf_create(num_users, num_items, d, use_bias));
}

}  // namespace zxbench
