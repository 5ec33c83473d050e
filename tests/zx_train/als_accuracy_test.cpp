// How near an ALS row comes to the solution in double precision, beside the elimination that
// defines it, in single precision; and that a row does not depend on its company.

#include "als_reference.hpp"
#include "csr.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {
namespace {

constexpr std::uint32_t kItems = 300;
constexpr std::uint32_t kUsers = 12;

// Users with `length` different items each.
std::vector<Entry> entries_of_length(std::uint32_t length, RandomNumbers& random) {
    std::vector<Entry> entries;
    for (std::uint32_t user = 0; user < kUsers; ++user) {
        const std::uint32_t first = random.below(kItems);
        for (std::uint32_t i = 0; i < length; ++i)
            entries.push_back(
                {user, (first + i * 7) % kItems, static_cast<float>(random.between(0.5, 2.0))});
    }
    return entries;
}

double squared_distance(const float* row, const double* exact, std::size_t dim) {
    double sum = 0.0;
    for (std::size_t k = 0; k < dim; ++k) {
        const double difference = double{row[k]} - exact[k];
        sum += difference * difference;
    }
    return sum;
}

struct Point {
    std::uint32_t dim;
    float alpha;
    float regularization;
    std::uint32_t length;  // entries of a row
};

// Sums over all rows of the square of the error relative to the row's length.
struct Errors {
    double squares = 0.0;
    double stated_squares = 0.0;

    void add(const std::vector<float>& users, const std::vector<float>& stated,
             const std::vector<double>& exact, std::size_t dim) {
        const std::vector<float> zeros(dim);
        for (std::size_t at = 0; at < users.size(); at += dim) {
            const double length = squared_distance(zeros.data(), &exact[at], dim);
            squares += squared_distance(&users[at], &exact[at], dim) / length;
            stated_squares += squared_distance(&stated[at], &exact[at], dim) / length;
        }
    }
};

void solve_and_add(const Point& point, RandomNumbers& random, Errors& errors) {
    const ModelPtr model = random_model({kUsers, kItems, point.dim, false}, random);
    ASSERT_NE(model, nullptr);
    const std::vector<Entry> entries = entries_of_length(point.length, random);
    const SparsePtr matrix = csr(kUsers, kItems, entries);
    ASSERT_NE(matrix, nullptr);
    AlsTables<double> exact = als_tables<double>(*model);
    AlsTables<float> stated = als_tables<float>(*model);
    als_half(exact.users, exact.items, point.dim, entries, double{point.alpha},
             double{point.regularization});
    als_half(stated.users, stated.items, point.dim, entries, point.alpha, point.regularization);
    ASSERT_EQ(
        zx_model_train_als_epoch(model.get(), matrix.get(), 1, point.alpha, point.regularization),
        ZX_OK);
    errors.add(contents(model->user_embeddings), stated.users, exact.users, point.dim);
}

// The errors of a table's Gram matrix are those of all its rows, so there are several tables, more
// of them where they are small.
double error_beside_the_elimination(const Point& point) {
    RandomNumbers random(point.dim + point.length);
    Errors errors;
    for (std::uint32_t table = 0; table < 1200 / (point.dim * point.dim) + 3; ++table)
        solve_and_add(point, random, errors);
    return std::sqrt(errors.squares / errors.stated_squares);
}

// Rows with fewer and with more entries than dimensions, from weights that hardly count to those
// that outweigh everything else, from nearly no regularisation to one that outweighs the entries.
class AlsAccuracy : public testing::TestWithParam<std::uint32_t> {};

TEST_P(AlsAccuracy, IsAtMostATenthWorseThanTheElimination) {
    for (const float alpha : {1.0f, 40.0f, 1000.0f})
        for (const float regularization : {1e-4f, 1.0f, 1000.0f})
            for (const std::uint32_t length : {1u, 12u, 24u, 60u}) {
                const Point point = {GetParam(), alpha, regularization, length};
                EXPECT_LE(error_beside_the_elimination(point), 1.1)
                    << "alpha " << alpha << ", regularisation " << regularization << ", " << length
                    << " entries";
            }
}

INSTANTIATE_TEST_SUITE_P(Dimensions, AlsAccuracy, testing::Values(4u, 16u, 40u));

// A row has the same bits whichever rows are solved with it.
TEST(AlsRows, DoNotDependOnTheirCompany) {
    for (const std::uint32_t dim : {5u, 16u, 40u, 64u}) {
        SCOPED_TRACE(dim);
        RandomNumbers random(dim);
        std::vector<Entry> entries;
        for (std::uint32_t user = 0; user < 150; ++user)
            for (const std::uint32_t item : random.ids(user % 90, kItems))
                entries.push_back({user, item, static_cast<float>(random.between(0.5, 2.0))});
        const ModelPtr together = random_model({150, kItems, dim, false}, random);
        ASSERT_NE(together, nullptr);
        const std::vector<float> items = contents(together->item_embeddings);
        const SparsePtr all = csr(150, kItems, entries);
        ASSERT_EQ(zx_model_train_als_epoch(together.get(), all.get(), 1, 2.0f, 0.5f), ZX_OK);
        for (const std::uint32_t user : {1u, 17u, 64u, 89u, 149u}) {
            std::vector<Entry> own;
            for (const Entry& entry : entries)
                if (entry.row == user) own.push_back({0, entry.col, entry.value});
            const ModelPtr alone = random_model({1, kItems, dim, false}, random);
            ASSERT_NE(alone, nullptr);
            fill(alone->item_embeddings, items);
            const SparsePtr one = csr(1, kItems, own);
            ASSERT_EQ(zx_model_train_als_epoch(alone.get(), one.get(), 1, 2.0f, 0.5f), ZX_OK);
            const float* const row = together->user_embeddings->data + std::size_t{user} * dim;
            EXPECT_TRUE(
                same_numbers(contents(alone->user_embeddings), std::vector<float>(row, row + dim)))
                << user;
        }
    }
}

// The first numbers agree with the second as nearly as single precision has them in common; what is
// not a number is so in both.
void expect_alike(const std::vector<float>& actual, const std::vector<float>& stated) {
    ASSERT_EQ(actual.size(), stated.size());
    for (std::size_t k = 0; k < stated.size(); ++k) {
        EXPECT_EQ(std::isnan(actual[k]), std::isnan(stated[k])) << k;
        if (std::isnan(stated[k])) continue;
        EXPECT_NEAR(actual[k], stated[k], 1e-3f * std::fabs(stated[k]) + 1e-5f) << k;
    }
}

// A weight that is zero, negative or not finite leaves its row to the elimination, and a row beside
// it does not notice.
TEST(AlsRows, AreThoseOfTheEliminationForEveryWeight) {
    constexpr std::uint32_t kDim = 24;
    for (const float strength : {0.0f, -1.0f, -0.25f, 1e-30f, NAN, INFINITY, -INFINITY}) {
        SCOPED_TRACE(strength);
        RandomNumbers random(3);
        const ModelPtr model = random_model({2, kItems, kDim, false}, random);
        ASSERT_NE(model, nullptr);
        AlsTables<float> stated = als_tables<float>(*model);
        std::vector<Entry> entries;
        for (std::uint32_t i = 0; i < 8; ++i) entries.push_back({0, i * 3, 1.0f});
        for (std::uint32_t i = 0; i < 8; ++i)
            entries.push_back({1, i * 5, i == 3 ? strength : 1.0f});
        als_half(stated.users, stated.items, kDim, entries, 1.0f, 0.5f);
        const SparsePtr matrix = csr(2, kItems, entries);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f), ZX_OK);
        expect_alike(contents(model->user_embeddings), stated.users);
    }
}

// Weights that leave nothing of the regularisation beside them, on entries that cannot be told
// apart: a smaller system would have no pivot left. Of the largest weights not even the elimination
// makes much.
TEST(AlsRows, StayFiniteForEqualEntriesOfEnormousWeight) {
    for (const float square : {6.530761e-5f, 2.6123e-4f, 1.306e-4f})
        for (const float alpha : {1e5f, 1e6f, 501244854.0f, 2004979420.57f}) {
            constexpr std::uint32_t kDim = 256;
            const ModelPtr model(zx_model_mf_create(1, 2, kDim, false));
            ASSERT_NE(model, nullptr);
            fill(model->item_embeddings,
                 std::vector<float>(std::size_t{2} * kDim, std::sqrt(square)));
            AlsTables<double> exact = als_tables<double>(*model);
            const std::vector<Entry> entries = {{0, 0, 1.0f}, {0, 0, 1.0f}, {0, 1, 1.0f}};
            als_half(exact.users, exact.items, kDim, entries, double{alpha}, 1.0);
            const SparsePtr matrix = csr(1, 2, entries);
            ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, alpha, 1.0f), ZX_OK);
            for (std::uint32_t k = 0; k < kDim; ++k) {
                const float solved = model->user_embeddings->data[k];
                ASSERT_TRUE(std::isfinite(solved)) << "alpha " << alpha << ", square " << square;
                if (alpha > 1e6f) continue;
                ASSERT_NEAR(solved, exact.users[k], 0.02 * std::fabs(exact.users[k]))
                    << "alpha " << alpha << ", square " << square;
            }
        }
}

TEST(AlsRows, AreThoseOfTheEliminationForEveryTable) {
    constexpr std::uint32_t kDim = 24;
    for (const float number : {NAN, INFINITY, -INFINITY, 1e30f}) {
        SCOPED_TRACE(number);
        RandomNumbers random(4);
        const ModelPtr model = random_model({3, 40, kDim, false}, random);
        ASSERT_NE(model, nullptr);
        model->item_embeddings->data[kDim * 7 + 5] = number;
        AlsTables<float> stated = als_tables<float>(*model);
        const std::vector<Entry> entries = {{0, 1, 1.0f}, {0, 7, 1.0f}, {2, 3, 1.0f}};
        als_half(stated.users, stated.items, kDim, entries, 1.0f, 0.5f);
        const SparsePtr matrix = csr(3, 40, entries);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f), ZX_OK);
        std::fill_n(stated.users.begin() + kDim, kDim, 0.0f);  // a user without entries
        expect_alike(contents(model->user_embeddings), stated.users);
    }
}

}  // namespace
}  // namespace zx::test
