// Whether training learns: on interactions that come from hidden factors, both methods have to find
// held-out items far better than chance and than popularity.

#include "csr.hpp"
#include "low_rank_data.hpp"
#include "model_records.hpp"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <numeric>
#include <utility>
#include <vector>

namespace zx::test {
namespace {

constexpr std::uint32_t kDim = 8;

const LowRankData& data() {
    static const LowRankData made = low_rank_data(300, 200, 24, 4, 2024);
    return made;
}

std::vector<Entry> training_entries() {
    std::vector<Entry> entries;
    for (std::uint32_t user = 0; user < data().num_users; ++user)
        for (const std::uint32_t item : data().training[user])
            entries.push_back({user, item, 1.0f});
    return entries;
}

// The mean over all users of a ranking of the items that the user does not know yet.
double mean_ndcg(const std::function<Ids(std::uint32_t user)>& rank_all) {
    double sum = 0.0;
    for (std::uint32_t user = 0; user < data().num_users; ++user) {
        const Ids& known = data().training[user];
        Ids ranking;
        for (const std::uint32_t item : rank_all(user))
            if (!std::binary_search(known.begin(), known.end(), item)) ranking.push_back(item);
        sum += ndcg_at_10(ranking, data().held_out[user]);
    }
    return sum / data().num_users;
}

double ndcg_of(zx_model_t* model) {
    return mean_ndcg([model](std::uint32_t user) {
        Ids items(data().num_items);
        std::vector<float> scores(data().num_items);
        EXPECT_EQ(zx_recommend(model, user, data().num_items, items.data(), scores.data()), ZX_OK);
        return items;
    });
}

double ndcg_of_popularity() {
    Ids popular(data().num_items);
    std::iota(popular.begin(), popular.end(), 0u);
    std::vector<int> counts(data().num_items, 0);
    for (const Entry& entry : training_entries()) ++counts[entry.col];
    std::stable_sort(popular.begin(), popular.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return counts[a] > counts[b]; });
    return mean_ndcg([&](std::uint32_t) { return popular; });
}

double ndcg_of_chance() {
    RandomNumbers random(1);
    Ids items(data().num_items);
    std::iota(items.begin(), items.end(), 0u);
    return mean_ndcg([&](std::uint32_t) {
        for (std::uint32_t i = data().num_items; i > 1; --i)
            std::swap(items[i - 1], items[random.below(i)]);
        return items;
    });
}

ModelPtr new_model(bool biased) {
    zx_rng_seed(7);
    return ModelPtr(zx_model_mf_create(data().num_users, data().num_items, kDim, biased));
}

ModelPtr als_model() {
    ModelPtr model = new_model(false);
    const SparsePtr matrix = csr(data().num_users, data().num_items, training_entries());
    for (int epoch = 0; model && epoch < 8; ++epoch)
        EXPECT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 10.0f, 5.0f), ZX_OK);
    return model;
}

ModelPtr bpr_model() {
    ModelPtr model = new_model(true);
    const std::vector<Entry> entries = training_entries();
    const SparsePtr matrix = csr(data().num_users, data().num_items, entries);
    RandomNumbers random(3);
    const auto count = static_cast<std::uint32_t>(entries.size());
    for (int epoch = 0; model && epoch < 40; ++epoch) {
        Ids users;
        Ids positives;
        for (std::uint32_t i = 0; i < count; ++i) {
            const Entry& entry = entries[random.below(count)];
            users.push_back(entry.row);
            positives.push_back(entry.col);
        }
        Ids negatives(count);
        zx_sample_negatives_uniform(matrix.get(), users.data(), negatives.data(), count,
                                    data().num_items);
        EXPECT_EQ(zx_model_train_step_bpr(model.get(), users.data(), positives.data(),
                                          negatives.data(), count, 0.05f, 0.01f),
                  ZX_OK);
    }
    return model;
}

// The share of held-out pairs that are hits, sampled.
float hit_rate_of(const zx_model_t* model) {
    Ids users;
    Ids items;
    for (std::uint32_t user = 0; user < data().num_users; ++user) {
        for (const std::uint32_t item : data().held_out[user]) {
            users.push_back(user);
            items.push_back(item);
        }
    }
    zx_rng_seed(5);
    return zx_metric_hit_rate(model, users.data(), items.data(),
                              static_cast<std::uint32_t>(users.size()), 10);
}

TEST(Learning, HasBaselinesThatLeaveRoom) {
    EXPECT_LT(ndcg_of_chance(), 0.06);
    EXPECT_LT(ndcg_of_popularity(), 0.20);
    EXPECT_GT(ndcg_of_popularity(), ndcg_of_chance());
    const ModelPtr untrained = new_model(false);
    ASSERT_NE(untrained, nullptr);
    EXPECT_LT(ndcg_of(untrained.get()), 0.06);
    EXPECT_LT(hit_rate_of(untrained.get()), 0.2f);
}

// Far more than popularity explains, more than ten times what chance does; and most of the pairs
// are hits that an untrained model would miss nine times out of ten.
void expect_learned(zx_model_t* model) {
    const double ndcg = ndcg_of(model);
    EXPECT_GT(ndcg, ndcg_of_popularity() + 0.4);
    EXPECT_GT(ndcg, 10.0 * ndcg_of_chance());
    EXPECT_GT(hit_rate_of(model), 0.4f);
}

TEST(Learning, FindsHeldOutItemsWithAls) {
    const ModelPtr model = als_model();
    ASSERT_NE(model, nullptr);
    expect_learned(model.get());
}

TEST(Learning, FindsHeldOutItemsWithBpr) {
    const ModelPtr model = bpr_model();
    ASSERT_NE(model, nullptr);
    expect_learned(model.get());
}

}  // namespace
}  // namespace zx::test
