// What the BPR training step refuses, skips and allocates.

#include "bpr_reference.hpp"
#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "model_records.hpp"

namespace zx::test {
namespace {

TEST(BprStep, SkipsTriplesOutOfRange) {
    RandomNumbers random(6);
    for (const bool biased : {false, true}) {
        const ModelPtr model = random_model({3, 4, 9, biased}, random);
        ASSERT_NE(model, nullptr);
        const BprTables before = bpr_tables(*model);
        Triples triples;
        triples.add(3, 0, 1);
        triples.add(0, 4, 1);
        triples.add(0, 1, 4);
        triples.add(0xffffffffu, 0, 1);
        triples.add(0, 0xffffffffu, 1);
        triples.add(0, 1, 0xffffffffu);
        triples.add(3, 4, 4);
        plant_record();
        EXPECT_EQ(train(model.get(), triples, 0.5f, 0.5f), ZX_OK);
        expect_untouched();
        EXPECT_TRUE(same_tables(*model, before));

        Triples last = triples;
        last.add(2, 3, 0);
        last.add(3, 0, 1);
        EXPECT_EQ(train(model.get(), last, 0.5f, 0.5f), ZX_OK);
        EXPECT_FALSE(same_tables(*model, before)) << "the triple of the last ids is accepted";
    }
}

TEST(BprStep, DoesNothingForAnEmptyBatch) {
    RandomNumbers random(7);
    const ModelPtr model = random_model({3, 4, 600, true}, random);
    ASSERT_NE(model, nullptr);
    const BprTables before = bpr_tables(*model);
    const std::uint32_t never_read = 0;
    plant_record();
    const FailingAllocator allocator(1, true);
    EXPECT_EQ(
        zx_model_train_step_bpr(model.get(), &never_read, &never_read, &never_read, 0, 0.5f, 0.5f),
        ZX_OK);
    EXPECT_EQ(allocator.requests(), 0u);
    expect_untouched();
    EXPECT_TRUE(same_tables(*model, before));
}

TEST(BprStep, RefusesInTheStatedOrder) {
    RandomNumbers random(8);
    const ModelPtr model = random_model({3, 4, 5, true}, random);
    ASSERT_NE(model, nullptr);
    const BprTables before = bpr_tables(*model);
    const std::uint32_t id = 0;
    model->type = kNotMf;
    plant_record();
    EXPECT_EQ(zx_model_train_step_bpr(nullptr, &id, &id, &id, 1, 0.5f, 0), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_train_step_bpr(model.get(), nullptr, &id, &id, 1, 0.5f, 0),
              ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_train_step_bpr(model.get(), &id, nullptr, &id, 1, 0.5f, 0),
              ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_train_step_bpr(model.get(), &id, &id, nullptr, 1, 0.5f, 0),
              ZX_ERR_NULL_POINTER);
    expect_untouched();
    for (const std::uint32_t count : {0u, 1u}) {
        zx_clear_error();
        EXPECT_EQ(zx_model_train_step_bpr(model.get(), &id, &id, &id, count, 0.5f, 0),
                  ZX_ERR_MODEL_TYPE_MISMATCH);
        expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_train",
                        "BPR training only supported for MF");
    }
    model->type = ZX_MODEL_MF;
    EXPECT_TRUE(same_tables(*model, before));
}

TEST(BprStep, AllocatesOnceForLargeBatchesOfWideRowsOnly) {
    RandomNumbers random(9);
    const struct {
        std::uint32_t dim, count;
        std::uint64_t allocations;
    } cases[] = {
        {512, 255, 0}, {512, 256, 0}, {513, 255, 0}, {513, 256, 1}, {600, 1, 0}, {600, 1000, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.count << " triples of dimension " << c.dim);
        const ModelPtr model = random_model({3, 4, c.dim, false}, random);
        ASSERT_NE(model, nullptr);
        const Triples triples = random_triples(c.count, 3, 4, random);
        const std::uint64_t before = allocation_requests();
        EXPECT_EQ(train(model.get(), triples, 0.01f, 0.01f), ZX_OK);
        EXPECT_EQ(allocation_requests() - before, c.allocations);
    }
}

TEST(BprStep, LeavesTheModelAloneWhenMemoryIsShort) {
    RandomNumbers random(10);
    const ModelPtr model = random_model({3, 4, 513, true}, random);
    ASSERT_NE(model, nullptr);
    const BprTables before = bpr_tables(*model);
    const Triples triples = random_triples(256, 3, 4, random);
    plant_record();
    const FailingAllocator allocator(1);
    EXPECT_EQ(train(model.get(), triples, 0.5f, 0.5f), ZX_ERR_OUT_OF_MEMORY);
    EXPECT_TRUE(allocator.failed());
    expect_untouched();
    EXPECT_TRUE(same_tables(*model, before));
}

}  // namespace
}  // namespace zx::test
