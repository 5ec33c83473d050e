// The embedding lookups and the forward passes, which are the same functions under other names.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"

#include <cstdint>
#include <thread>
#include <vector>

namespace zx::test {
namespace {

using Lookup = zx_tensor_t* (*)(const zx_model_t*, const std::uint32_t*, std::uint32_t);

struct Side {
    const char* name;
    Lookup lookup;
    bool users;
    const char* out_of_bounds;
};

const Side kSides[] = {
    {"lookup of users", zx_model_lookup_user_embeddings, true, "User ID out of bounds"},
    {"lookup of items", zx_model_lookup_item_embeddings, false, "Item ID out of bounds"},
    {"forward of users", zx_model_forward_user, true, "User ID out of bounds"},
    {"forward of items", zx_model_forward_item, false, "Item ID out of bounds"},
};

constexpr std::uint32_t kUsers = 4;
constexpr std::uint32_t kItems = 6;

ModelPtr small_model(std::uint32_t dim) {
    RandomNumbers random(11);
    return random_model({kUsers, kItems, dim, true}, random);
}

TEST(ModelLookup, CopiesRowsInTheOrderOfTheIds) {
    for (const Side& side : kSides) {
        for (const std::uint32_t dim : {1u, 3u, 4u, 17u}) {
            SCOPED_TRACE(side.name);
            const ModelPtr model = small_model(dim);
            ASSERT_NE(model, nullptr);
            const Ids ids = {3, 0, 3, 2, 0};
            plant_record();
            const TensorPtr rows(side.lookup(model.get(), ids.data(), 5));
            ASSERT_NE(rows, nullptr);
            EXPECT_EQ(rows->ndim, 2);
            EXPECT_EQ(rows->dims[0], 5u);
            EXPECT_EQ(rows->dims[1], dim);
            EXPECT_EQ(rows->refcount, 1u);
            for (std::size_t j = 0; j < ids.size(); ++j) {
                const float* const expected =
                    side.users ? user_row(*model, ids[j]) : item_row(*model, ids[j]);
                EXPECT_TRUE(same_numbers(rows->data + j * dim, expected, dim)) << j;
            }
            expect_untouched();
        }
    }
}

TEST(ModelLookup, RefusesMissingArgumentsSilentlyAndBeforeTheKindOfModel) {
    for (const Side& side : kSides) {
        SCOPED_TRACE(side.name);
        const ModelPtr model = small_model(2);
        ASSERT_NE(model, nullptr);
        const std::uint32_t id = 0;
        const std::uint32_t outside = 1000;
        model->type = kNotMf;
        plant_record();
        EXPECT_EQ(side.lookup(model.get(), nullptr, 1), nullptr);
        EXPECT_EQ(side.lookup(model.get(), &id, 0), nullptr);
        EXPECT_EQ(side.lookup(model.get(), &outside, 0), nullptr);
        EXPECT_EQ(side.lookup(nullptr, &id, 1), nullptr);
        EXPECT_EQ(side.lookup(nullptr, nullptr, 0), nullptr);
        expect_untouched();
        model->type = ZX_MODEL_MF;
    }
}

TEST(ModelLookup, RefusesAnotherKindOfModelBeforeTheIds) {
    for (const Side& side : kSides) {
        SCOPED_TRACE(side.name);
        const ModelPtr model = small_model(2);
        ASSERT_NE(model, nullptr);
        const std::uint32_t outside = 1000;
        model->type = kNotMf;
        plant_record();
        EXPECT_EQ(side.lookup(model.get(), &outside, 1), nullptr);
        expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_model", "Unsupported model type");
        model->type = ZX_MODEL_MF;
    }
}

TEST(ModelLookup, RefusesAnIdPastTheTable) {
    for (const Side& side : kSides) {
        SCOPED_TRACE(side.name);
        const ModelPtr model = small_model(3);
        ASSERT_NE(model, nullptr);
        const std::uint32_t rows = side.users ? kUsers : kItems;
        const Ids last = {0, rows - 1};
        const TensorPtr result(side.lookup(model.get(), last.data(), 2));
        EXPECT_NE(result, nullptr);
        const Ids lists[] = {{0, 1, rows}, {rows, 0}, {0xffffffffu}};
        for (const Ids& ids : lists) {
            plant_record();
            EXPECT_EQ(side.lookup(model.get(), ids.data(), static_cast<std::uint32_t>(ids.size())),
                      nullptr);
            expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", side.out_of_bounds);
        }
    }
}

// The result is made before the ids are looked at.
TEST(ModelLookup, ReportsShortMemoryBeforeTheIds) {
    for (const Side& side : kSides) {
        SCOPED_TRACE(side.name);
        const ModelPtr model = small_model(3);
        ASSERT_NE(model, nullptr);
        const std::uint32_t outside = 1000;
        const char* const messages[] = {"Failed to allocate tensor",
                                        "Failed to allocate tensor data"};
        for (std::uint64_t failing = 1; failing <= 2; ++failing) {
            plant_record();
            const FailingAllocator allocator(failing);
            EXPECT_EQ(side.lookup(model.get(), &outside, 1), nullptr);
            expect_recorded(ZX_ERR_OUT_OF_MEMORY, "src/zx_memory", messages[failing - 1]);
        }
    }
}

TEST(ModelLookup, ReadsTheHostDataWhateverTheDeviceHolds) {
    for (const Side& side : kSides) {
        SCOPED_TRACE(side.name);
        const ModelPtr model = small_model(3);
        ASSERT_NE(model, nullptr);
        zx_tensor_t* const table = side.users ? model->user_embeddings : model->item_embeddings;
        table->on_device = 1;
        const std::uint32_t id = 2;
        const TensorPtr row(side.lookup(model.get(), &id, 1));
        ASSERT_NE(row, nullptr);
        EXPECT_TRUE(same_numbers(row->data, table->data + 6, 3));
        EXPECT_EQ(row->on_device, 0);
        EXPECT_EQ(table->on_device, 1);
    }
}

TEST(ModelLookup, ServesManyThreadsAtOnce) {
    const ModelPtr model = small_model(8);
    ASSERT_NE(model, nullptr);
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (std::size_t thread = 0; thread < wrong.size(); ++thread) {
        threads.emplace_back([&model, &wrong, thread] {
            for (std::uint32_t round = 0; round < 200; ++round) {
                const std::uint32_t id = round % kUsers;
                const TensorPtr row(zx_model_forward_user(model.get(), &id, 1));
                if (!row || !same_numbers(row->data, user_row(*model, id), 8)) ++wrong[thread];
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const int count : wrong) EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace zx::test
