// What the ALS epoch refuses, and what it leaves behind when memory runs out on the way.

#include "als_reference.hpp"
#include "csr.hpp"
#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"

#include <cstdint>
#include <vector>

namespace zx::test {
namespace {

constexpr std::uint32_t kUsers = 3;
constexpr std::uint32_t kItems = 4;

const std::vector<Entry> kEntries = {
    {0, 1, 1.0f}, {0, 3, 2.0f}, {1, 0, 3.0f}, {2, 1, 4.0f}, {2, 2, 5.0f},
};

ModelPtr small_model() {
    RandomNumbers random(1);
    return random_model({kUsers, kItems, 5, true}, random);
}

testing::AssertionResult same_model(const zx_model_t* model, const ModelContents& expected) {
    const ModelContents actual = contents(model);
    if (auto same = same_numbers(actual.users, expected.users); !same) return same << ", users";
    if (auto same = same_numbers(actual.items, expected.items); !same) return same << ", items";
    if (auto same = same_numbers(actual.user_biases, expected.user_biases); !same) return same;
    return same_numbers(actual.item_biases, expected.item_biases);
}

// A matrix of the caller's own making: the record on the stack, the arrays in vectors.
struct HandMadeMatrix {
    std::vector<std::uint32_t> row_ptr;
    std::vector<std::uint32_t> col_idx;
    std::vector<float> values;
    std::uint32_t cols;
    std::uint32_t nnz;

    zx_sparse_t record() {
        zx_sparse_t matrix = {};
        matrix.refcount = 1;
        matrix.rows = static_cast<std::uint32_t>(row_ptr.size()) - 1;
        matrix.cols = cols;
        matrix.nnz = nnz;
        matrix.capacity = nnz;
        matrix.row_ptr = row_ptr.data();
        matrix.col_idx = col_idx.data();
        matrix.values = values.data();
        return matrix;
    }
};

// The entries of kEntries, as arrays.
HandMadeMatrix plain_matrix() {
    return {{0, 2, 3, 5}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5};
}

ModelContents trained_by(const zx_sparse_t& matrix) {
    const ModelPtr model = small_model();
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), &matrix, 1, 1.0f, 0.5f), ZX_OK);
    return contents(model.get());
}

TEST(AlsEpochLimits, RefusesMissingArgumentsSilently) {
    const ModelPtr model = small_model();
    const SparsePtr matrix = csr(kUsers, kItems, kEntries);
    ASSERT_TRUE(model && matrix);
    model->type = kNotMf;
    plant_record();
    EXPECT_EQ(zx_model_train_als_epoch(nullptr, matrix.get(), 1, 1, 1), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), nullptr, 1, 1, 1), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_train_als_epoch(nullptr, nullptr, 1, 1, 1), ZX_ERR_NULL_POINTER);
    expect_untouched();
    model->type = ZX_MODEL_MF;
}

TEST(AlsEpochLimits, RefusesAnotherKindOfModelBeforeTheMatrix) {
    const ModelPtr model = small_model();
    const SparsePtr too_small = csr(1, 1, {{0, 0, 1.0f}});
    ASSERT_TRUE(model && too_small);
    const ModelContents before = contents(model.get());
    model->type = kNotMf;
    const FailingAllocator allocator(1, true);
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), too_small.get(), 1, 1, 1),
              ZX_ERR_MODEL_TYPE_MISMATCH);
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_train",
                    "ALS only supports Matrix Factorization");
    EXPECT_EQ(allocator.requests(), 0u);
    model->type = ZX_MODEL_MF;
    EXPECT_TRUE(same_model(model.get(), before));
}

TEST(AlsEpochLimits, RefusesAMatrixThatLeadsOutOfMemory) {
    struct Case {
        const char* when;
        HandMadeMatrix matrix;
    };
    Case cases[] = {
        {"a row fewer than users", {{0, 2, 3}, {1, 3, 0}, {1, 2, 3}, kItems, 3}},
        {"no rows", {{0}, {}, {}, kItems, 0}},
        {"row starts that decrease", {{0, 3, 2, 5}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
        {"a first row that starts after the second",
         {{3, 2, 3, 5}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
        {"a last row that ends before it starts",
         {{0, 2, 3, 2}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
        {"an end past the entries that count",
         {{0, 2, 3, 6}, {1, 3, 0, 1, 2, 0}, {1, 2, 3, 4, 5, 6}, kItems, 5}},
        {"row starts far past the entries",
         {{0, 2, 3, 0xffffffffu}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
        {"rows that all start past the entries",
         {{7, 7, 7, 7}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
        {"a column one past the items",
         {{0, 2, 3, 5}, {1, 3, 0, 1, kItems}, {1, 2, 3, 4, 5}, kItems + 1, 5}},
        {"a column far past the items",
         {{0, 2, 3, 5}, {0xffffffffu, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = small_model();
        ASSERT_NE(model, nullptr);
        const ModelContents before = contents(model.get());
        const zx_sparse_t matrix = c.matrix.record();
        zx_clear_error();
        const FailingAllocator allocator(1, true);
        EXPECT_EQ(zx_model_train_als_epoch(model.get(), &matrix, 1, 1.0f, 0.5f),
                  ZX_ERR_DIMENSION_MISMATCH);
        expect_recorded(ZX_ERR_DIMENSION_MISMATCH, "src/zx_train",
                        "Interactions do not fit the model");
        EXPECT_EQ(allocator.requests(), 0u);
        EXPECT_TRUE(same_model(model.get(), before));
    }
}

// Whatever lies outside the users' rows is neither read nor refused.
TEST(AlsEpochLimits, ReadsTheRowsOfTheUsersOnly) {
    HandMadeMatrix plain = plain_matrix();
    const ModelContents expected = trained_by(plain.record());
    struct Case {
        const char* when;
        HandMadeMatrix matrix;
    };
    Case cases[] = {
        {"more columns than items", {{0, 2, 3, 5}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, 1000, 5}},
        {"more rows than users",
         {{0, 2, 3, 5, 7}, {1, 3, 0, 1, 2, 0, 1}, {1, 2, 3, 4, 5, 6, 7}, kItems, 7}},
        {"columns past the items in a row past the users",
         {{0, 2, 3, 5, 6}, {1, 3, 0, 1, 2, 99}, {1, 2, 3, 4, 5, 6}, kItems, 6}},
        {"row starts past the users that decrease",
         {{0, 2, 3, 5, 1, 0}, {1, 3, 0, 1, 2}, {1, 2, 3, 4, 5}, kItems, 5}},
        {"a first row that starts after entry 0",
         {{2, 4, 5, 7}, {99, 0xffffffffu, 1, 3, 0, 1, 2}, {9, 9, 1, 2, 3, 4, 5}, kItems, 7}},
        {"entries after the last row",
         {{0, 2, 3, 5}, {1, 3, 0, 1, 2, 99}, {1, 2, 3, 4, 5, 6}, kItems, 6}},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = small_model();
        ASSERT_NE(model, nullptr);
        const zx_sparse_t matrix = c.matrix.record();
        plant_record();
        EXPECT_EQ(zx_model_train_als_epoch(model.get(), &matrix, 1, 1.0f, 0.5f), ZX_OK);
        expect_untouched();
        EXPECT_TRUE(same_model(model.get(), expected));
    }
}

TEST(AlsEpochLimits, TakesColumnsInAnyOrderAndMoreThanOnce) {
    const std::vector<Entry> lists[] = {
        {{0, 3, 2.0f}, {0, 1, 1.0f}, {1, 0, 3.0f}, {2, 2, 5.0f}, {2, 1, 4.0f}},
        {{0, 1, 1.0f}, {0, 1, 1.0f}, {0, 1, 2.0f}, {2, 3, 4.0f}, {2, 0, 4.0f}, {2, 3, 1.0f}},
    };
    for (const std::vector<Entry>& entries : lists) {
        const ModelPtr model = small_model();
        const SparsePtr matrix = csr(kUsers, kItems, entries);
        ASSERT_TRUE(model && matrix);
        AlsTables<double> expected = als_tables<double>(*model);
        als_epoch(expected, entries, 1.0, 0.5);
        ASSERT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f), ZX_OK);
        for (std::size_t i = 0; i < expected.users.size(); ++i)
            EXPECT_NEAR(model->user_embeddings->data[i], expected.users[i], 1e-4);
        for (std::size_t i = 0; i < expected.items.size(); ++i)
            EXPECT_NEAR(model->item_embeddings->data[i], expected.items[i], 1e-4);
    }
}

TEST(AlsEpochLimits, EndsHalfWayWithoutEntries) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    ModelContents expected = contents(model.get());
    expected.users.assign(expected.users.size(), 0.0f);
    HandMadeMatrix empty = {{0, 0, 0, 0}, {}, {}, kItems, 0};
    const zx_sparse_t matrix = empty.record();
    plant_record();
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), &matrix, 1, 1.0f, 0.5f), ZX_ERR_OUT_OF_MEMORY);
    expect_untouched();
    EXPECT_TRUE(same_model(model.get(), expected));
}

// Entries beyond the users' rows make it a matrix with entries, of which no user has one.
TEST(AlsEpochLimits, ZeroesEverythingWhenNoUserHasAnEntry) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    ModelContents expected = contents(model.get());
    expected.users.assign(expected.users.size(), 0.0f);
    expected.items.assign(expected.items.size(), 0.0f);
    HandMadeMatrix beyond = {{0, 0, 0, 0, 2}, {0, 1}, {1, 1}, kItems, 2};
    const zx_sparse_t matrix = beyond.record();
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), &matrix, 1, 1.0f, 0.5f), ZX_OK);
    EXPECT_TRUE(same_model(model.get(), expected));
}

TEST(AlsEpochLimits, HasNoScratchWithoutADimension) {
    const ModelPtr model = small_model();
    const SparsePtr matrix = csr(kUsers, kItems, kEntries);
    ASSERT_TRUE(model && matrix);
    const ModelContents before = contents(model.get());
    model->embedding_dim = 0;
    plant_record();
    EXPECT_EQ(zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f),
              ZX_ERR_OUT_OF_MEMORY);
    expect_untouched();
    model->embedding_dim = 5;
    EXPECT_TRUE(same_model(model.get(), before));
}

// Each allocation in turn. Before the user half the model stays as it was, after it the users are
// solved and the items are not.
TEST(AlsEpochLimits, StopsBeforeOrBetweenTheHalvesWhenMemoryIsShort) {
    const SparsePtr matrix = csr(kUsers, kItems, kEntries);
    ASSERT_NE(matrix, nullptr);
    const ModelContents before = contents(small_model().get());
    const ModelContents solved = trained_by(*matrix);
    ModelContents half = before;
    half.users = solved.users;
    ASSERT_FALSE(same_numbers(before.users, solved.users));

    int unchanged = 0;
    int half_way = 0;
    for (std::uint64_t failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        const ModelPtr model = small_model();
        ASSERT_NE(model, nullptr);
        plant_record();
        const FailingAllocator allocator(failing);
        const zx_status_t status =
            zx_model_train_als_epoch(model.get(), matrix.get(), 1, 1.0f, 0.5f);
        expect_untouched();
        if (!allocator.failed()) {
            EXPECT_EQ(status, ZX_OK);
            EXPECT_TRUE(same_model(model.get(), solved));
            break;
        }
        EXPECT_EQ(status, ZX_ERR_OUT_OF_MEMORY);
        if (same_model(model.get(), before)) {
            EXPECT_EQ(half_way, 0) << "the users were solved with fewer allocations before";
            ++unchanged;
        } else {
            EXPECT_TRUE(same_model(model.get(), half));
            ++half_way;
        }
    }
    EXPECT_GE(unchanged, 2) << "the workspace and the Gram matrix are made first";
    EXPECT_GE(half_way, 4) << "the item-major copy has four arrays";
}

}  // namespace
}  // namespace zx::test
