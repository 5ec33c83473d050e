// The ALS epoch: its solutions against the normal equations, and what becomes of systems without
// one.

#include "als_reference.hpp"
#include "csr.hpp"
#include "error_record.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"

#include <cmath>
#include <cstdlib>
#include <vector>

namespace zx::test {
namespace {

// The length of the difference against the length of what is expected.
double relative_error(const zx_tensor_t* actual, const std::vector<double>& expected) {
    double difference = 0.0;
    double length = 0.0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const double d = actual->data[i] - expected[i];
        difference += d * d;
        length += expected[i] * expected[i];
    }
    return std::sqrt(difference / length);
}

struct Weights {
    float alpha;
    float regularization;
};

// Runs an epoch and compares both tables with the solution in double precision.
void expect_solution(zx_model_t* model, const std::vector<Entry>& entries, const Weights& weights,
                     double tolerance) {
    AlsTables<double> expected = als_tables<double>(*model);
    als_epoch(expected, entries, double{weights.alpha}, double{weights.regularization});
    const SparsePtr matrix = csr(model->num_users, model->num_items, entries);
    ASSERT_NE(matrix, nullptr);
    plant_record();
    ASSERT_EQ(
        zx_model_train_als_epoch(model, matrix.get(), 1, weights.alpha, weights.regularization),
        ZX_OK);
    expect_untouched();
    EXPECT_LT(relative_error(model->user_embeddings, expected.users), tolerance);
    EXPECT_LT(relative_error(model->item_embeddings, expected.items), tolerance);
}

TEST(AlsEpoch, SolvesTheNormalEquationsAtEveryDimension) {
    const bool slow = std::getenv("ZORVEX_VALGRIND") != nullptr;
    RandomNumbers random(1);
    for (const std::uint32_t dim : {1u, 2u, 3u, 5u, 8u, 15u, 16u, 17u, 33u, 64u, 100u, 128u}) {
        if (slow && dim > 33) break;
        SCOPED_TRACE(dim);
        const ModelPtr model = random_model({60, 90, dim, false}, random);
        ASSERT_NE(model, nullptr);
        expect_solution(model.get(), random_entries(60, 90, 8, 0.5, 5.0, random), {2.0f, 1.0f},
                        1e-4);
    }
}

// More entries than are gathered at a time, and users with a single one.
TEST(AlsEpoch, SolvesRowsOfVeryDifferentLengths) {
    RandomNumbers random(2);
    const ModelPtr model = random_model({8, 300, 12, false}, random);
    ASSERT_NE(model, nullptr);
    std::vector<Entry> entries;
    const std::uint32_t lengths[] = {1, 63, 64, 65, 128, 129, 300, 0};
    for (std::uint32_t user = 0; user < 8; ++user)
        for (std::uint32_t item = 0; item < lengths[user]; ++item)
            entries.push_back({user, item, static_cast<float>(random.between(0.5, 5.0))});
    expect_solution(model.get(), entries, {1.5f, 0.5f}, 1e-4);
}

TEST(AlsEpoch, LearnsFromNegativeAndZeroStrengths) {
    RandomNumbers random(3);
    for (const std::uint32_t dim : {3u, 16u}) {
        SCOPED_TRACE(dim);
        const ModelPtr model = random_model({40, 60, dim, false}, random);
        ASSERT_NE(model, nullptr);
        std::vector<Entry> entries = random_entries(40, 60, 6, -0.9, 2.0, random);
        for (std::size_t i = 0; i < entries.size(); i += 5) entries[i].value = 0.0f;
        expect_solution(model.get(), entries, {1.0f, 1.0f}, 1e-4);
    }
}

// Strengths so negative that the systems are no longer positive definite. Their solutions can be
// large, so it is the residual that has to be small.
TEST(AlsEpoch, SolvesIndefiniteSystems) {
    RandomNumbers random(4);
    for (const std::uint32_t dim : {2u, 5u, 16u, 33u}) {
        SCOPED_TRACE(dim);
        const ModelPtr model = random_model({25, 40, dim, false}, random);
        ASSERT_NE(model, nullptr);
        const AlsTables<double> before = als_tables<double>(*model);
        const std::vector<Entry> entries = random_entries(25, 40, 5, -30.0, 5.0, random);
        const SparsePtr matrix = csr(25, 40, entries);
        ASSERT_NE(matrix, nullptr);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f), ZX_OK);
        const std::vector<double> gram = gram_of(before.items, dim, 0.5);
        for (std::uint32_t user = 0; user < 25; ++user) {
            std::vector<Entry> of_user;
            for (const Entry& entry : entries)
                if (entry.row == user) of_user.push_back(entry);
            const AlsSystem<double> system = als_system(gram, before.items, dim, of_user, 1.0);
            const float* const x = user_row(*model, user);
            for (std::uint32_t k = 0; k < dim; ++k) {
                double residual = -system.b[k];
                double size = std::abs(system.b[k]);
                for (std::uint32_t l = 0; l < dim; ++l) {
                    residual += system.a[k * dim + l] * x[l];
                    size += std::abs(system.a[k * dim + l] * x[l]);
                }
                EXPECT_LE(std::abs(residual), 1e-3 * size + 1e-5) << user << ", " << k;
            }
        }
    }
}

struct Worked {
    const char* when;
    std::uint32_t dim;
    std::vector<float> items;
    std::vector<Entry> entries;
    Weights weights;
    std::vector<float> user;
};

// One user; every step of the arithmetic is exact or a single rounding, up to the last one.
TEST(AlsEpoch, FollowsWorkedExamples) {
    const Worked cases[] = {
        // A = 1 + 4 + 1 + 6 * 4 = 30, b = 2 * 7.
        {"one dimension", 1, {1, 2}, {{0, 1, 3.0f}}, {2.0f, 1.0f}, {14.0f / 30.0f}},
        // A = diag(1 + 1 - 3, 1 + 1), b = -2 * (1, 0).
        {"a negative pivot", 2, {1, 0, 0, 1}, {{0, 0, -3.0f}}, {1.0f, 1.0f}, {2, 0}},
        // A = [[2, 1], [1, 1]] - 2 * [[1, 0], [0, 0]], b = -1 * (1, 0): the rows change places.
        {"a zero on the diagonal", 2, {1, 0, 1, 1}, {{0, 0, -2.0f}}, {1.0f, 0.0f}, {1, -1}},
        // Without regularisation nothing tells the two coordinates apart: the second is skipped.
        {"equal coordinates", 2, {1, 1, 1, 1}, {{0, 0, 5.0f}}, {0.0f, 0.0f}, {0.5f, 0}},
        {"a coordinate without items", 2, {4, 0, 0, 0}, {{0, 0, 5.0f}}, {0.0f, 0.0f}, {0.25f, 0}},
        {"items all zero", 2, {0, 0, 0, 0}, {{0, 0, 5.0f}}, {1.0f, 0.0f}, {0, 0}},
        // A = 9e-12 + 9e-12 is skipped: the right-hand side, 3e-6 * 2, stays as it is.
        {"a pivot below 1e-10", 1, {3e-6f}, {{0, 0, 1.0f}}, {1.0f, 0.0f}, {6e-6f}},
        // alpha = 0: strengths do not matter, the entry counts once. A = 16, b = 4.
        {"no confidence in strengths", 1, {4}, {{0, 0, 1e6f}}, {0.0f, 0.0f}, {0.25f}},
        // The two entries are those of one pair: A = 4 + 2 * 4 + 4 * 4, b = 2 * 3 + 2 * 5.
        {"a pair given twice", 1, {2}, {{0, 0, 2.0f}, {0, 0, 4.0f}}, {1.0f, 0.0f}, {16.f / 28.f}},
    };
    for (const Worked& c : cases) {
        SCOPED_TRACE(c.when);
        const auto num_items = static_cast<std::uint32_t>(c.items.size()) / c.dim;
        const ModelPtr model(zx_model_mf_create(1, num_items, c.dim, false));
        ASSERT_NE(model, nullptr);
        fill(model->item_embeddings, c.items);
        const SparsePtr matrix = csr(1, num_items, c.entries);
        ASSERT_NE(matrix, nullptr);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, c.weights.alpha,
                                           c.weights.regularization),
                  ZX_OK);
        const std::vector<float> solved = contents(model->user_embeddings);
        ASSERT_EQ(solved.size(), c.user.size());
        // A zero may have either sign.
        for (std::size_t k = 0; k < solved.size(); ++k) EXPECT_FLOAT_EQ(solved[k], c.user[k]) << k;
    }
}

// Around the smallest pivot: y * y just below 1e-10 leaves b = y, just above it gives 1 / y.
TEST(AlsEpoch, SkipsPivotsBelow1em10) {
    const struct {
        float y;
        bool skipped;
    } cases[] = {{9.99e-6f, true}, {1.001e-5f, false}};
    for (const auto& c : cases) {
        const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
        ASSERT_NE(model, nullptr);
        fill(model->item_embeddings, {c.y});
        const SparsePtr matrix = csr(1, 1, {{0, 0, 1.0f}});
        ASSERT_NE(matrix, nullptr);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 0.0f, 0.0f), ZX_OK);
        const float expected = c.skipped ? c.y : 1.0f / c.y;
        EXPECT_NEAR(model->user_embeddings->data[0], expected, 1e-5 * expected);
    }
}

// Exact arithmetic on small integers, so that the coordinates that depend on others are skipped
// by the library and by the stated elimination alike.
TEST(AlsEpoch, EliminatesSingularSystemsAsStated) {
    // The third coordinate repeats the first, the fourth is zero, and 4 is a power of two.
    const std::vector<float> items = {2, 0, 2, 0, 0, 2, 0, 0};
    const std::vector<Entry> entries = {{0, 0, 1.0f}, {1, 0, 1.0f}, {1, 1, 1.0f}};
    const ModelPtr model(zx_model_mf_create(2, 2, 4, false));
    ASSERT_NE(model, nullptr);
    fill(model->item_embeddings, items);
    AlsTables<float> expected = als_tables<float>(*model);
    als_epoch(expected, entries, 0.0f, 0.0f);
    const SparsePtr matrix = csr(2, 2, entries);
    ASSERT_NE(matrix, nullptr);
    ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 0.0f, 0.0f), ZX_OK);
    for (std::size_t i = 0; i < expected.users.size(); ++i)
        EXPECT_EQ(model->user_embeddings->data[i], expected.users[i]) << "user number " << i;
    for (std::size_t i = 0; i < expected.items.size(); ++i)
        EXPECT_EQ(model->item_embeddings->data[i], expected.items[i]) << "item number " << i;
    EXPECT_EQ(contents(model->user_embeddings),
              (std::vector<float>{0.5f, 0, 0, 0, 0.5f, 0.5f, 0, 0}));
}

TEST(AlsEpoch, AgreesWithTheStatedEliminationInSinglePrecision) {
    RandomNumbers random(5);
    for (const std::uint32_t dim : {1u, 2u, 7u, 16u, 30u}) {
        SCOPED_TRACE(dim);
        const ModelPtr model = random_model({30, 40, dim, false}, random);
        ASSERT_NE(model, nullptr);
        const std::vector<Entry> entries = random_entries(30, 40, 6, 0.5, 3.0, random);
        AlsTables<float> expected = als_tables<float>(*model);
        als_epoch(expected, entries, 1.0f, 0.5f);
        const SparsePtr matrix = csr(30, 40, entries);
        ASSERT_NE(matrix, nullptr);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f), ZX_OK);
        const std::vector<double> users(expected.users.begin(), expected.users.end());
        const std::vector<double> items(expected.items.begin(), expected.items.end());
        EXPECT_LT(relative_error(model->user_embeddings, users), 1e-4);
        EXPECT_LT(relative_error(model->item_embeddings, items), 1e-4);
    }
}

TEST(AlsEpoch, ZeroesRowsWithoutEntries) {
    RandomNumbers random(6);
    for (const float regularization : {0.0f, 1.0f}) {
        const ModelPtr model = random_model({3, 4, 6, false}, random);
        ASSERT_NE(model, nullptr);
        const SparsePtr matrix = csr(3, 4, {{1, 2, 1.0f}});
        ASSERT_NE(matrix, nullptr);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, regularization),
                  ZX_OK);
        for (std::uint32_t k = 0; k < 6; ++k) {
            EXPECT_EQ(user_row(*model, 0)[k], 0.0f);
            EXPECT_EQ(user_row(*model, 2)[k], 0.0f);
            for (const std::uint32_t item : {0u, 1u, 3u})
                EXPECT_EQ(item_row(*model, item)[k], 0.0f);
        }
        EXPECT_NE(user_row(*model, 1)[0], 0.0f);
        EXPECT_NE(item_row(*model, 2)[0], 0.0f);
    }
}

// With alpha 0 the strengths drop out, so the bits cannot depend on them.
TEST(AlsEpoch, IgnoresStrengthsWithoutConfidence) {
    RandomNumbers random(7);
    const ModelPtr model = random_model({20, 30, 8, false}, random);
    RandomNumbers again(7);
    const ModelPtr other = random_model({20, 30, 8, false}, again);
    ASSERT_TRUE(model && other);
    std::vector<Entry> entries = random_entries(20, 30, 5, 0.5, 5.0, random);
    const SparsePtr first = csr(20, 30, entries);
    for (Entry& entry : entries) entry.value = -100.0f * entry.value;
    const SparsePtr second = csr(20, 30, entries);
    ASSERT_TRUE(first && second);
    ASSERT_EQ(zx_model_train_als_epoch(model.get(), first.get(), 1, 0.0f, 1.0f), ZX_OK);
    ASSERT_EQ(zx_model_train_als_epoch(other.get(), second.get(), 1, 0.0f, 1.0f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), contents(other->user_embeddings)));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), contents(other->item_embeddings)));
}

TEST(AlsEpoch, DoesNotDependOnTheNumberOfThreads) {
    ModelContents first;
    for (const std::uint32_t threads : {0u, 1u, 2u, 8u, 64u}) {
        SCOPED_TRACE(threads);
        RandomNumbers random(8);
        const ModelPtr model = random_model({20, 30, 17, true}, random);
        ASSERT_NE(model, nullptr);
        const SparsePtr matrix = csr(20, 30, random_entries(20, 30, 5, 0.5, 5.0, random));
        ASSERT_NE(matrix, nullptr);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), threads, 2.0f, 0.1f), ZX_OK);
        if (threads == 0) {
            first = contents(model.get());
            continue;
        }
        const ModelContents after = contents(model.get());
        EXPECT_TRUE(same_numbers(after.users, first.users));
        EXPECT_TRUE(same_numbers(after.items, first.items));
    }
}

TEST(AlsEpoch, LeavesBiasesAlone) {
    RandomNumbers random(9);
    const ModelPtr model = random_model({10, 12, 5, true}, random);
    ASSERT_NE(model, nullptr);
    const ModelContents before = contents(model.get());
    const SparsePtr matrix = csr(10, 12, random_entries(10, 12, 3, 0.5, 5.0, random));
    ASSERT_NE(matrix, nullptr);
    ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 2.0f, 0.1f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_biases), before.user_biases));
    EXPECT_TRUE(same_numbers(contents(model->item_biases), before.item_biases));
    EXPECT_TRUE(same_number(model->global_bias, before.global_bias));
}

// The starting values of the users do not matter, those of the items do.
TEST(AlsEpoch, SolvesUsersFromTheItemsAlone) {
    RandomNumbers random(10);
    const ModelPtr model = random_model({10, 12, 5, false}, random);
    RandomNumbers again(10);
    const ModelPtr other = random_model({10, 12, 5, false}, again);
    ASSERT_TRUE(model && other);
    fill(other->user_embeddings, std::vector<float>(50, kNaN));
    const SparsePtr matrix = csr(10, 12, random_entries(10, 12, 3, 0.5, 5.0, random));
    ASSERT_NE(matrix, nullptr);
    ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 2.0f, 0.1f), ZX_OK);
    ASSERT_EQ(zx_model_train_als_epoch(other.get(), matrix.get(), 1, 2.0f, 0.1f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), contents(other->user_embeddings)));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), contents(other->item_embeddings)));
}

TEST(AlsEpoch, KeepsAStrengthThatIsNotANumberToItsRows) {
    RandomNumbers random(11);
    const ModelPtr model = random_model({3, 4, 6, false}, random);
    ASSERT_NE(model, nullptr);
    const SparsePtr matrix = csr(3, 4, {{0, 1, 1.0f}, {1, 2, kNaN}, {2, 3, 1.0f}});
    ASSERT_NE(matrix, nullptr);
    ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f), ZX_OK);
    for (std::uint32_t k = 0; k < 6; ++k) {
        EXPECT_TRUE(std::isfinite(user_row(*model, 0)[k])) << k;
        EXPECT_TRUE(std::isnan(user_row(*model, 1)[k])) << k;
        EXPECT_TRUE(std::isfinite(user_row(*model, 2)[k])) << k;
    }
}

}  // namespace
}  // namespace zx::test
