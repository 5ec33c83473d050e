// Public functions under every variant of the inner loops: those with stated bits give the same
// everywhere, ALS gives the same on all processors with fused multiply-add, and nearly the same on
// the others.

#include "float_bits.hpp"
#include "model_records.hpp"
#include "simd/simd.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {
namespace {

constexpr simd::Variant kAll[] = {simd::Variant::kScalar, simd::Variant::kAvx2,
                                  simd::Variant::kAvx512};

class EveryVariant : public testing::Test {
  protected:
    void TearDown() override {
        for (const simd::Variant which : kAll)
            if (simd::variant(which)) simd::use(which);
    }
};

struct Results {
    std::vector<float> pairs;
    std::vector<float> list;
    Ids best;
    std::vector<float> best_scores;
    ModelContents trained;
};

Results exact_results(std::uint32_t dim) {
    Results results;
    RandomNumbers random(dim);
    const ModelPtr model = random_model({20, 83, dim, true}, random);
    const Ids users = random.ids(300, 20);
    const Ids items = random.ids(300, 83);
    const Ids others = random.ids(300, 83);
    const TensorPtr pairs(zx_model_score(model.get(), users.data(), items.data(), 300));
    if (pairs) results.pairs = contents(pairs.get());
    results.list.resize(50);
    EXPECT_EQ(zx_model_score_items(model.get(), 7, items.data(), 50, results.list.data()), ZX_OK);
    results.best.resize(30);
    results.best_scores.resize(30);
    EXPECT_EQ(zx_recommend(model.get(), 3, 30, results.best.data(), results.best_scores.data()),
              ZX_OK);
    EXPECT_EQ(zx_model_train_step_bpr(model.get(), users.data(), items.data(), others.data(), 300,
                                      0.05f, 0.01f),
              ZX_OK);
    results.trained = contents(model.get());
    return results;
}

TEST_F(EveryVariant, ScoresRanksAndTrainsToTheSameBits) {
    for (const std::uint32_t dim : {1u, 3u, 4u, 17u, 64u, 100u}) {
        simd::use(simd::Variant::kScalar);
        const Results expected = exact_results(dim);
        ASSERT_EQ(expected.pairs.size(), 300u);
        for (const simd::Variant which : kAll) {
            if (!simd::variant(which)) continue;
            SCOPED_TRACE(testing::Message() << simd::variant(which)->name << ", " << dim);
            simd::use(which);
            const Results actual = exact_results(dim);
            EXPECT_TRUE(same_numbers(actual.pairs, expected.pairs));
            EXPECT_TRUE(same_numbers(actual.list, expected.list));
            EXPECT_EQ(actual.best, expected.best);
            EXPECT_TRUE(same_numbers(actual.best_scores, expected.best_scores));
            EXPECT_TRUE(same_numbers(actual.trained.users, expected.trained.users));
            EXPECT_TRUE(same_numbers(actual.trained.items, expected.trained.items));
            EXPECT_TRUE(same_numbers(actual.trained.item_biases, expected.trained.item_biases));
        }
    }
}

// Users with 1 to 96 of 120 items, so that there are rows with fewer and with more entries than
// dimensions on both sides.
ModelContents after_als(std::uint32_t dim) {
    constexpr std::uint32_t kUsers = 40;
    constexpr std::uint32_t kItems = 120;
    RandomNumbers random(dim);
    const ModelPtr model = random_model({kUsers, kItems, dim, false}, random);
    std::vector<std::uint32_t> starts = {0};
    for (std::uint32_t user = 0; user < kUsers; ++user)
        starts.push_back(starts.back() + 1 + user * 37 % 96);
    const SparsePtr matrix(zx_sparse_create(kUsers, kItems, starts.back()));
    std::copy(starts.begin(), starts.end(), matrix->row_ptr);
    for (std::uint32_t i = 0; i < starts.back(); ++i) {
        matrix->col_idx[i] = random.below(kItems);
        matrix->values[i] = static_cast<float>(random.between(0.5, 3.0));
    }
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 2.0f, 0.5f), ZX_OK);
    return contents(model.get());
}

TEST_F(EveryVariant, SolvesAlike) {
    for (const std::uint32_t dim : {1u, 5u, 15u, 16u, 33u, 64u, 80u, 130u}) {
        simd::use(simd::Variant::kScalar);
        const ModelContents scalar = after_als(dim);
        std::vector<ModelContents> fused;
        for (const simd::Variant which : kAll) {
            if (!simd::variant(which)) continue;
            SCOPED_TRACE(testing::Message() << simd::variant(which)->name << ", " << dim);
            simd::use(which);
            const ModelContents actual = after_als(dim);
            for (std::size_t i = 0; i < scalar.users.size(); ++i)
                ASSERT_NEAR(actual.users[i], scalar.users[i], 1e-3) << i;
            for (std::size_t i = 0; i < scalar.items.size(); ++i)
                ASSERT_NEAR(actual.items[i], scalar.items[i], 1e-3) << i;
            if (!simd::variant(which)->fused) continue;
            fused.push_back(actual);
            EXPECT_TRUE(same_numbers(actual.users, fused.front().users));
            EXPECT_TRUE(same_numbers(actual.items, fused.front().items));
        }
    }
}

}  // namespace
}  // namespace zx::test
