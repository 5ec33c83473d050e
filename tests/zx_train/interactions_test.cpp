// Interaction sets, and uniform sampling of negatives.

#include "csr.hpp"
#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "generator_state.hpp"
#include "owned.hpp"
#include "random_numbers.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace zx::test {
namespace {

constexpr std::uint32_t kUntouched = 0xdeadbeefu;

TEST(Interactions, AreMadeZeroFilled) {
    for (const bool implicit : {false, true}) {
        SCOPED_TRACE(implicit);
        const InteractionsPtr set(zx_interactions_create(5, implicit));
        ASSERT_NE(set, nullptr);
        EXPECT_EQ(set->count, 5u);
        EXPECT_EQ(set->implicit, implicit ? 1 : 0);
        ASSERT_NE(set->users, nullptr);
        ASSERT_NE(set->items, nullptr);
        EXPECT_EQ(set->values == nullptr, implicit);
        for (std::size_t i = 0; i < 5; ++i) {
            EXPECT_EQ(set->users[i], 0u);
            EXPECT_EQ(set->items[i], 0u);
        }
        for (std::size_t i = 0; !implicit && i < 5; ++i)
            EXPECT_TRUE(same_number(set->values[i], 0.0f));
        const void* const blocks[] = {set.get(), set->users, set->items, set->values};
        for (const void* block : blocks)
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 128, 0u);
    }
}

TEST(Interactions, CannotBeNone) {
    plant_record();
    EXPECT_EQ(zx_interactions_create(0, false), nullptr);
    EXPECT_EQ(zx_interactions_create(0, true), nullptr);
    zx_interactions_free(nullptr);
    expect_untouched();
}

TEST(Interactions, AreNotMadeWhenMemoryIsShort) {
    for (const bool implicit : {false, true}) {
        const std::uint64_t allocations = implicit ? 3 : 4;
        for (std::uint64_t failing = 1; failing <= allocations + 1; ++failing) {
            SCOPED_TRACE(failing);
            plant_record();
            const FailingAllocator allocator(failing);
            const InteractionsPtr set(zx_interactions_create(7, implicit));
            EXPECT_EQ(set == nullptr, failing <= allocations);
            EXPECT_EQ(allocator.failed(), failing <= allocations);
            expect_untouched();
        }
    }
}

// The sampler step by step, with a search of its own for the positives.
Ids reference_sample(const std::vector<Entry>* positives, const Ids& users, std::uint32_t num_items,
                     ReferenceRng& rng) {
    const auto n = static_cast<float>(num_items);
    Ids sampled;
    for (const std::uint32_t user : users) {
        for (int draws = 1;; ++draws) {
            const float scaled = rng.uniform() * n;
            const auto whole = static_cast<std::uint64_t>(scaled);
            const auto item =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(whole, num_items - 1));
            bool is_positive = false;
            if (positives) {
                for (const Entry& entry : *positives) {
                    if (entry.row == user && entry.col == item)
                        is_positive = entry.value != 0.0f && !std::isnan(entry.value);
                }
            }
            if (!is_positive || draws == 100) {
                sampled.push_back(item);
                break;
            }
        }
    }
    return sampled;
}

// Samples from the given state, beside the reference; both the items and the draws must agree.
void expect_reference_sample(const ReferenceRng::State& state, const zx_sparse_t* positives,
                             const std::vector<Entry>* entries, const Ids& users,
                             std::uint32_t num_items) {
    set_generator_state(state);
    ReferenceRng reference(state);
    const Ids expected = reference_sample(entries, users, num_items, reference);
    Ids items(users.size() + 1, kUntouched);
    plant_record();
    zx_sample_negatives_uniform(positives, users.data(), items.data(),
                                static_cast<std::uint32_t>(users.size()), num_items);
    expect_untouched();
    EXPECT_EQ(items.back(), kUntouched);
    items.pop_back();
    EXPECT_EQ(items, expected);
    EXPECT_EQ(generator_state(), reference.state());
}

TEST(SampleNegatives, DrawsOneItemForEachUserWithoutPositives) {
    RandomNumbers random(1);
    for (const std::uint32_t num_items : {1u, 2u, 7u, 1000u, 16777216u, 16777217u, 0xffffffffu}) {
        SCOPED_TRACE(num_items);
        // Users that no model has are as good as any.
        Ids users = random.ids(500, 10);
        users[3] = 0xffffffffu;
        expect_reference_sample(ReferenceRng(num_items).state(), nullptr, nullptr, users,
                                num_items);
    }
}

TEST(SampleNegatives, RejectsPositives) {
    RandomNumbers random(2);
    for (const std::uint32_t num_items : {3u, 20u, 64u}) {
        SCOPED_TRACE(num_items);
        // Dense enough that most users need more than one draw.
        std::vector<Entry> entries =
            random_entries(30, num_items, num_items / 2 + 1, -2, 2, random);
        const SparsePtr positives = csr(30, num_items, entries);
        ASSERT_NE(positives, nullptr);
        const Ids users = random.ids(400, 30);
        expect_reference_sample(ReferenceRng(num_items).state(), positives.get(), &entries, users,
                                num_items);
    }
}

// Rows from none to thousands of entries, and more users than are looked at ahead.
TEST(SampleNegatives, RejectsPositivesInRowsOfAnyLength) {
    RandomNumbers random(8);
    constexpr std::uint32_t kItems = 4000;
    std::vector<Entry> entries;
    for (std::uint32_t row = 0; row < 12; ++row)
        for (std::uint32_t col = 0; col < kItems; ++col)
            if (random.below(kItems) < (1u << row)) entries.push_back({row, col, 1.0f});
    const SparsePtr positives = csr(14, kItems, entries);
    ASSERT_NE(positives, nullptr);
    Ids users = random.ids(200, 16);
    users[190] = 0xffffffffu;
    expect_reference_sample(ReferenceRng(8).state(), positives.get(), &entries, users, kItems);
}

TEST(SampleNegatives, TakesStoredZerosAndNaNForNoInteraction) {
    const std::vector<Entry> entries = {
        {0, 0, 0.0f},  {0, 1, -0.0f},     {0, 2, kNaN},       {0, 3, 1.0f},
        {1, 0, -1.0f}, {1, 1, kInfinity}, {1, 2, -kInfinity}, {1, 3, 1e-30f},
    };
    const SparsePtr positives = csr(2, 4, entries);
    ASSERT_NE(positives, nullptr);
    Ids users(300, 0);
    users.resize(310, 1);
    expect_reference_sample(ReferenceRng(3).state(), positives.get(), &entries, users, 4);
}

TEST(SampleNegatives, AcceptsAnyItemForAUserBeyondTheMatrix) {
    const std::vector<Entry> entries = {{0, 0, 1.0f}, {0, 1, 1.0f}, {1, 0, 1.0f}, {1, 1, 1.0f}};
    const SparsePtr positives = csr(2, 2, entries);
    ASSERT_NE(positives, nullptr);
    const Ids users = {2, 0xffffffffu, 2, 100};
    ReferenceRng reference(4);
    expect_reference_sample(reference.state(), positives.get(), &entries, users, 2);
    for (std::size_t i = 0; i < users.size(); ++i) reference.next();
    EXPECT_EQ(generator_state(), reference.state()) << "one draw for each";
}

TEST(SampleNegatives, AcceptsAnyItemBeyondTheMatrix) {
    const std::vector<Entry> entries = {{0, 0, 1.0f}, {0, 1, 1.0f}};
    const SparsePtr positives = csr(1, 2, entries);
    ASSERT_NE(positives, nullptr);
    expect_reference_sample(ReferenceRng(5).state(), positives.get(), &entries, Ids(50, 0), 6);
}

TEST(SampleNegatives, TakesTheHundredthDrawOfAUserWhoHasEverything) {
    const std::vector<Entry> entries = {{0, 0, 1.0f}, {0, 1, 1.0f}, {0, 2, 1.0f}};
    const SparsePtr positives = csr(1, 3, entries);
    ASSERT_NE(positives, nullptr);
    zx_rng_seed(6);
    ReferenceRng reference(6);
    float last = 0.0f;
    for (int draw = 0; draw < 100; ++draw) last = reference.uniform();
    const std::uint32_t user = 0;
    std::uint32_t item = kUntouched;
    zx_sample_negatives_uniform(positives.get(), &user, &item, 1, 3);
    EXPECT_EQ(item, static_cast<std::uint32_t>(last * 3.0f));
    EXPECT_EQ(generator_state(), reference.state());
}

// A uniform number of exactly 1 would be the item after the last.
TEST(SampleNegatives, TakesTheLastItemForAUniformNumberOfOne) {
    const ReferenceRng::State state = state_that_draws(0xffffffffffffffff);
    ASSERT_EQ(ReferenceRng(state).uniform(), 1.0f);
    const std::uint32_t user = 0;
    for (const std::uint32_t num_items : {1u, 2u, 1000u, 16777217u, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(num_items);
        set_generator_state(state);
        std::uint32_t item = kUntouched;
        zx_sample_negatives_uniform(nullptr, &user, &item, 1, num_items);
        EXPECT_EQ(item, num_items - 1);
    }
}

// 1 - 2^-24 is the largest number below 1; times 2^24 + 2 or more it rounds to whole numbers only.
TEST(SampleNegatives, RoundsTheProductToSinglePrecision) {
    const ReferenceRng::State state = state_that_draws(0xffffff0000000000);
    ASSERT_EQ(ReferenceRng(state).uniform(), 1.0f - 0x1p-24f);
    const struct {
        std::uint32_t num_items, item;
    } cases[] = {{2, 1}, {1000, 999}, {16777216, 16777215}, {0xffffffffu, 0xffffff00u}};
    const std::uint32_t user = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.num_items);
        set_generator_state(state);
        std::uint32_t item = kUntouched;
        zx_sample_negatives_uniform(nullptr, &user, &item, 1, c.num_items);
        EXPECT_EQ(item, c.item);
    }
}

TEST(SampleNegatives, WritesNothingWithoutAnythingToDo) {
    const SparsePtr positives = csr(1, 1, {{0, 0, 1.0f}});
    ASSERT_NE(positives, nullptr);
    const Ids users = {0, 0};
    Ids items = {kUntouched, kUntouched};
    zx_rng_seed(7);
    const ReferenceRng::State before = generator_state();
    plant_record();
    for (const zx_sparse_t* matrix : {static_cast<const zx_sparse_t*>(nullptr),
                                      static_cast<const zx_sparse_t*>(positives.get())}) {
        zx_sample_negatives_uniform(matrix, nullptr, items.data(), 2, 1);
        zx_sample_negatives_uniform(matrix, users.data(), nullptr, 2, 1);
        zx_sample_negatives_uniform(matrix, users.data(), items.data(), 0, 1);
        zx_sample_negatives_uniform(matrix, users.data(), items.data(), 2, 0);
    }
    EXPECT_EQ(items, (Ids{kUntouched, kUntouched}));
    EXPECT_EQ(generator_state(), before);
    expect_untouched();
}

}  // namespace
}  // namespace zx::test
