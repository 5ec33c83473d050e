#include "dataset.hpp"

#include "files.hpp"
#include "pair_table.hpp"
#include "random.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <utility>

namespace zxtool::test {
namespace {

using NamedPair = std::pair<std::string, std::string>;
using NamedPairs = std::vector<NamedPair>;

Dataset prepare_text(const std::string& text, const Preparation& preparation = {}) {
    return prepare(read_text(text), preparation);
}

NamedPair named(const Dataset& dataset, std::uint32_t user, std::uint32_t item) {
    return {std::string(dataset.users.name(user)), std::string(dataset.items.name(item))};
}

NamedPairs training_pairs(const Dataset& dataset) {
    NamedPairs pairs;
    for (std::size_t i = 0; i < dataset.train_users.size(); ++i)
        pairs.push_back(named(dataset, dataset.train_users[i], dataset.train_items[i]));
    return pairs;
}

NamedPairs test_pairs(const Dataset& dataset) {
    NamedPairs pairs;
    for (const auto& [user, item] : dataset.test) pairs.push_back(named(dataset, user, item));
    return pairs;
}

Preparation with_core(std::uint32_t core) {
    Preparation preparation;
    preparation.core = core;
    return preparation;
}

Preparation with_holdout(Holdout::Kind kind, double fraction = 0.0, std::uint64_t seed = 0) {
    Preparation preparation;
    preparation.holdout = {kind, fraction};
    preparation.seed = seed;
    return preparation;
}

TEST(Prepare, SortsPairsByUserThenItem) {
    // Users are numbered b, a and items y, x, z by first appearance.
    const Dataset dataset = prepare_text("b,y\na,x\nb,z\na,y\nb,x\n");
    EXPECT_EQ(dataset.train_users, (std::vector<std::uint32_t>{0, 0, 0, 1, 1}));
    EXPECT_EQ(dataset.train_items, (std::vector<std::uint32_t>{0, 1, 2, 0, 1}));
    EXPECT_TRUE(dataset.train_strengths.empty());
    EXPECT_EQ(dataset.users.name(0), "b");
    EXPECT_EQ(dataset.items.name(1), "x");
    EXPECT_TRUE(dataset.test.empty());
    EXPECT_EQ(dataset.read_rows, 5U);
}

TEST(Prepare, MergesRepeatedPairs) {
    const Dataset dataset = prepare_text("a,x,2\na,y,1\na,x,3\nb,x,5\na,x,2\n");
    EXPECT_EQ(training_pairs(dataset), (NamedPairs{{"a", "x"}, {"a", "y"}, {"b", "x"}}));
    EXPECT_TRUE(dataset.train_strengths.empty());
    EXPECT_EQ(dataset.read_rows, 5U);
}

TEST(Prepare, SumsStrengthsWhenWeighted) {
    Preparation preparation;
    preparation.weighted = true;
    EXPECT_EQ(prepare_text("a,x,2\na,y,1\na,x,3.5\nb,x,0\na,x,2\n", preparation).train_strengths,
              (std::vector<float>{7.5F, 1.0F, 0.0F}));
    EXPECT_EQ(prepare_text("a,x\na,y\na,x\nb,x\na,x\n", preparation).train_strengths,
              (std::vector<float>{3.0F, 1.0F, 1.0F}));
}

// Far more users than are sorted together, and users with hundreds of rows and with one.
TEST(Prepare, SortsAndSumsManyUsersHoweverTheirRowsAreScattered) {
    SplitMix64 random(6);
    std::map<std::pair<std::uint32_t, std::uint32_t>, double> sums;
    InteractionFile scattered;
    for (std::uint32_t user = 0; user < 3000; ++user) scattered.users.add(std::to_string(user));
    for (std::uint32_t item = 0; item < 700; ++item) scattered.items.add(std::to_string(item));
    for (int row = 0; row < 60000; ++row) {
        const bool frequent = random.below(2) == 0;
        scattered.rows.users.push_back(frequent ? random.below(5) * 7 : random.below(3000));
        scattered.rows.items.push_back(random.below(700));
        scattered.rows.ratings.push_back(static_cast<float>(random.below(5)));
        sums[{scattered.rows.users.back(), scattered.rows.items.back()}] +=
            static_cast<double>(scattered.rows.ratings.back());
    }
    InteractionFile together;
    together.users = scattered.users;
    together.items = scattered.items;
    for (const auto& [pair, sum] : sums) {
        together.rows.users.push_back(pair.first);
        together.rows.items.push_back(699 - pair.second);
        together.rows.ratings.push_back(static_cast<float>(sum));
    }

    const PairTable table = make_pairs(scattered.rows, scattered.users, scattered.items, true);
    const PairTable mirrored = make_pairs(together.rows, together.users, together.items, true);
    ASSERT_EQ(table.entries.size(), sums.size());
    ASSERT_EQ(mirrored.starts, table.starts);
    std::size_t entry = 0;
    for (const auto& [pair, sum] : sums) {
        const std::size_t first = table.starts[pair.first];
        const std::size_t end = table.starts[pair.first + 1];
        ASSERT_TRUE(first <= entry && entry < end) << pair.first;
        ASSERT_EQ(table.entries[entry].item(), pair.second);
        ASSERT_EQ(table.strengths[entry], static_cast<float>(sum));
        const std::size_t opposite = first + end - 1 - entry;
        ASSERT_EQ(mirrored.entries[opposite].item(), 699 - pair.second);
        ASSERT_EQ(mirrored.strengths[opposite], static_cast<float>(sum));
        ++entry;
    }
}

TEST(Prepare, HasNoUseForColumnsThatItLeavesOut) {
    const std::string text = "a,x,5,2\nb,y,1,2\na,y,4,1\na,x,3,0\n";
    Preparation preparations[4];
    preparations[1].weighted = true;
    preparations[2].min_rating = 3.0F;
    preparations[3] = with_holdout(Holdout::Kind::kLeaveOneOut);
    const struct {
        bool ratings;
        bool timestamps;
    } wanted[] = {{false, false}, {true, false}, {true, false}, {false, true}};
    for (std::size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        ReadOptions read;
        leave_out_unused(preparations[i], read);
        EXPECT_EQ(read.wants_ratings, wanted[i].ratings);
        EXPECT_EQ(read.wants_timestamps, wanted[i].timestamps);
        const Dataset dataset = prepare(read_text(text, "x.csv", read), preparations[i]);
        const Dataset whole = prepare_text(text, preparations[i]);
        EXPECT_EQ(training_pairs(dataset), training_pairs(whole));
        EXPECT_EQ(dataset.train_strengths, whole.train_strengths);
        EXPECT_EQ(dataset.test, whole.test);
    }
}

TEST(Prepare, SumsManySmallStrengthsExactly) {
    Preparation preparation;
    preparation.weighted = true;
    std::string text = "a,x,16777216\n";  // where a float no longer counts by ones
    for (int i = 0; i < 10; ++i) text += "a,x,1\n";
    EXPECT_EQ(prepare_text(text, preparation).train_strengths, (std::vector<float>{16777226.0F}));
}

TEST(Prepare, RefusesStrengthsThatAreNoWeights) {
    Preparation preparation;
    preparation.weighted = true;
    EXPECT_EQ(failure_of([&] { prepare_text("a,x,1\nb,y,1\nb,y,-3\n", preparation); }),
              "3: strength -2 of user \"b\" and item \"y\" cannot be a weight, expected 0 or more "
              "as a 32-bit number");
    EXPECT_EQ(failure_of([&] { prepare_text("a,x,3e38\na,x,3e38\n", preparation); }).substr(0, 13),
              "3: strength 6");
    preparation.weighted = false;
    EXPECT_EQ(training_pairs(prepare_text("a,x,1\nb,y,-3\n", preparation)).size(), 2U);
}

TEST(Prepare, LeavesOutLowRatings) {
    Preparation preparation;
    preparation.min_rating = 4.0F;
    const Dataset dataset =
        prepare_text("a,x,3.5,1\nb,x,4,2\na,y,4,3\nc,z,3,4\na,z,5,5\n", preparation);
    EXPECT_EQ(training_pairs(dataset), (NamedPairs{{"a", "y"}, {"a", "z"}, {"b", "x"}}));
    EXPECT_EQ(dataset.users.size(), 2U);
    EXPECT_EQ(dataset.items.size(), 3U);
    EXPECT_EQ(dataset.read_rows, 5U);
}

TEST(Prepare, RefusesALeastRatingWhereThereAreNone) {
    Preparation preparation;
    preparation.min_rating = 1.0F;
    EXPECT_EQ(failure_of([&] { prepare_text("a,x\n", preparation); }),
              "3: a least rating was given, but the file has no ratings");
}

TEST(Prepare, RefusesWhenNothingIsLeft) {
    Preparation preparation;
    preparation.min_rating = 6.0F;
    EXPECT_EQ(failure_of([&] { prepare_text("a,x,5\nb,y,5\n", preparation); }),
              "3: none of 2 interactions is left after the filters");
    EXPECT_EQ(failure_of([&] { prepare_text("a,x\na,y\nb,x\n", with_core(3)); }),
              "3: none of 3 interactions is left after the filters");
}

TEST(CoreFilter, GoesOnUntilNothingChanges) {
    // c has one item, so it goes; then z has one user left, so it goes; then d has only x left.
    // What stays is the square of a, b and x, y.
    const std::string text = "a,x\na,y\nb,x\nb,y\nd,x\nd,z\nc,z\n";
    const Dataset dataset = prepare_text(text, with_core(2));
    EXPECT_EQ(training_pairs(dataset),
              (NamedPairs{{"a", "x"}, {"a", "y"}, {"b", "x"}, {"b", "y"}}));
    EXPECT_EQ(dataset.users.size(), 2U);
    EXPECT_EQ(dataset.items.size(), 2U);
    EXPECT_EQ(dataset.users.find("d"), std::nullopt);
    EXPECT_EQ(dataset.items.find("z"), std::nullopt);
}

TEST(CoreFilter, ChangesNothingBelowTwo) {
    const std::string text = "a,x\nb,y\n";
    EXPECT_EQ(training_pairs(prepare_text(text, with_core(0))).size(), 2U);
    EXPECT_EQ(training_pairs(prepare_text(text, with_core(1))).size(), 2U);
}

TEST(CoreFilter, CountsARepeatedPairOnce) {
    EXPECT_EQ(failure_of([] { prepare_text("a,x\na,x\na,x\n", with_core(2)); }),
              "3: none of 3 interactions is left after the filters");
}

TEST(CoreFilter, KeepsStrengthsWithTheirPairs) {
    Preparation preparation = with_core(2);
    preparation.weighted = true;
    const Dataset dataset = prepare_text("c,z,9\na,y,2\na,x,1\nb,x,3\nb,y,4\nb,z,8\n", preparation);
    EXPECT_EQ(training_pairs(dataset),
              (NamedPairs{{"a", "y"}, {"a", "x"}, {"b", "y"}, {"b", "x"}}));
    EXPECT_EQ(dataset.train_strengths, (std::vector<float>{2, 1, 4, 3}));
}

TEST(CoreFilter, LeavesTheSameAsCountingAgainAfterEveryStep) {
    SplitMix64 random(7);
    for (int round = 0; round < 20; ++round) {
        std::set<NamedPair> pairs;
        std::string text;
        for (int i = 0; i < 500; ++i) {
            NamedPair pair{std::to_string(random.below(60)), std::to_string(random.below(80))};
            text += pair.first + "," + pair.second + "\n";
            pairs.insert(std::move(pair));
        }
        for (bool changed = true; changed;) {
            std::map<std::string, int> users;
            std::map<std::string, int> items;
            for (const auto& [user, item] : pairs) ++users[user], ++items[item];
            changed = std::erase_if(pairs, [&](const NamedPair& pair) {
                          return users[pair.first] < 4 || items[pair.second] < 4;
                      }) > 0;
        }
        ASSERT_FALSE(pairs.empty());
        const NamedPairs kept = training_pairs(prepare_text(text, with_core(4)));
        EXPECT_EQ(std::set<NamedPair>(kept.begin(), kept.end()), pairs);
        EXPECT_EQ(kept.size(), pairs.size());
    }
}

TEST(LeaveOneOut, TakesEachUsersLatestPair) {
    const Preparation preparation = with_holdout(Holdout::Kind::kLeaveOneOut);
    const Dataset dataset =
        prepare_text("a,x,1,30\na,y,1,10\nb,x,1,5\nb,y,1,6\nb,z,1,4\nc,x,1,9\n", preparation);
    EXPECT_EQ(test_pairs(dataset), (NamedPairs{{"a", "x"}, {"b", "y"}}));
    EXPECT_EQ(training_pairs(dataset),
              (NamedPairs{{"a", "y"}, {"b", "x"}, {"b", "z"}, {"c", "x"}}));
}

TEST(LeaveOneOut, TakesTheLaterLineOfEqualTimesAndWithoutTimes) {
    const Preparation preparation = with_holdout(Holdout::Kind::kLeaveOneOut);
    EXPECT_EQ(test_pairs(prepare_text("a,z,1,5\na,y,1,5\na,x,1,5\n", preparation)),
              (NamedPairs{{"a", "x"}}));
    EXPECT_EQ(test_pairs(prepare_text("a,x,1,5\na,y,1,4\na,z,1,5\na,w,1,3\n", preparation)),
              (NamedPairs{{"a", "z"}}));
    EXPECT_EQ(test_pairs(prepare_text("a,z\nb,x\na,x\na,y\nb,z\n", preparation)),
              (NamedPairs{{"a", "y"}, {"b", "z"}}));
}

TEST(LeaveOneOut, GoesByTheLatestTimeOfARepeatedPair) {
    const Preparation preparation = with_holdout(Holdout::Kind::kLeaveOneOut);
    EXPECT_EQ(test_pairs(prepare_text("a,x,1,1\na,y,1,5\na,x,1,9\n", preparation)),
              (NamedPairs{{"a", "x"}}));
    EXPECT_EQ(test_pairs(prepare_text("a,x,1,9\na,y,1,5\na,x,1,1\n", preparation)),
              (NamedPairs{{"a", "x"}}));
    EXPECT_EQ(test_pairs(prepare_text("a,x\na,y\na,x\n", preparation)), (NamedPairs{{"a", "x"}}));
}

TEST(LeaveOneOut, KeepsTheOnlyPairOfAUser) {
    const Dataset dataset = prepare_text("a,x,1,1\na,x,1,2\nb,y,1,3\nb,x,1,4\n",
                                         with_holdout(Holdout::Kind::kLeaveOneOut));
    EXPECT_EQ(training_pairs(dataset), (NamedPairs{{"a", "x"}, {"b", "y"}}));
    EXPECT_EQ(test_pairs(dataset), (NamedPairs{{"b", "x"}}));
}

TEST(LeaveOneOut, KeepsTheNumberOfAnItemThatIsOnlyTested) {
    const Dataset dataset =
        prepare_text("a,x\na,z\nb,y\n", with_holdout(Holdout::Kind::kLeaveOneOut));
    EXPECT_EQ(dataset.items.size(), 3U);
    EXPECT_EQ(test_pairs(dataset), (NamedPairs{{"a", "z"}}));
}

TEST(LeaveOneOut, ComesAfterTheFilters) {
    Preparation preparation = with_holdout(Holdout::Kind::kLeaveOneOut);
    preparation.min_rating = 3.0F;
    preparation.core = 2;
    const Dataset dataset = prepare_text(
        "a,x,5,1\na,y,5,2\na,z,5,3\na,w,1,9\nb,x,5,1\nb,y,5,2\nc,x,5,8\n", preparation);
    EXPECT_EQ(test_pairs(dataset), (NamedPairs{{"a", "y"}, {"b", "y"}}));
    EXPECT_EQ(training_pairs(dataset), (NamedPairs{{"a", "x"}, {"b", "x"}}));
}

// User u0 with so many items, then user u1, ...
std::string rows_of_users(const std::vector<int>& counts) {
    std::ostringstream text;
    for (std::size_t user = 0; user < counts.size(); ++user)
        for (int item = 0; item < counts[user]; ++item) text << 'u' << user << ",i" << item << '\n';
    return text.str();
}

TEST(FractionHoldout, RoundsDownAndLeavesEveryUserOneForTraining) {
    const struct {
        double fraction;
        int pairs;
        std::size_t held_out;
    } cases[] = {
        {0.2, 1, 0},  {0.2, 4, 0},    {0.2, 5, 1},      {0.2, 9, 1},          {0.2, 10, 2},
        {0.5, 3, 1},  {0.1, 30, 3},   {0.3, 10, 3},     {0.7, 10, 7},         {0.29, 100, 29},
        {0.99, 2, 1}, {0.99, 50, 49}, {0.999999, 5, 4}, {0.9999999999, 7, 6},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.fraction) + " of " + std::to_string(c.pairs));
        const Dataset dataset = prepare_text(rows_of_users({c.pairs}),
                                             with_holdout(Holdout::Kind::kFraction, c.fraction));
        EXPECT_EQ(dataset.test.size(), c.held_out);
        EXPECT_EQ(dataset.train_users.size(), static_cast<std::size_t>(c.pairs) - c.held_out);
    }
}

TEST(FractionHoldout, SplitsEveryUsersPairsInTwo) {
    const Dataset dataset =
        prepare_text(rows_of_users({10, 1, 25, 7}), with_holdout(Holdout::Kind::kFraction, 0.3, 5));
    EXPECT_EQ(dataset.test.size(), 3U + 0U + 7U + 2U);
    EXPECT_TRUE(std::is_sorted(dataset.test.begin(), dataset.test.end()));
    NamedPairs all = training_pairs(dataset);
    EXPECT_EQ(all.size(), 31U);
    const NamedPairs test = test_pairs(dataset);
    all.insert(all.end(), test.begin(), test.end());
    EXPECT_EQ(std::set<NamedPair>(all.begin(), all.end()).size(), 43U);
}

TEST(FractionHoldout, DependsOnTheSeedAlone) {
    const std::string text = rows_of_users({40, 40, 40});
    const auto test_of = [&text](std::uint64_t seed) {
        return test_pairs(prepare_text(text, with_holdout(Holdout::Kind::kFraction, 0.25, seed)));
    };
    EXPECT_EQ(test_of(1), test_of(1));
    EXPECT_NE(test_of(1), test_of(2));
}

TEST(FractionHoldout, TakesEveryPairEquallyOften) {
    std::map<NamedPair, int> times;
    constexpr std::uint64_t kSeeds = 4000;
    const InteractionFile file = read_text(rows_of_users({8}));
    for (std::uint64_t seed = 0; seed < kSeeds; ++seed) {
        const Dataset dataset =
            prepare(InteractionFile(file), with_holdout(Holdout::Kind::kFraction, 0.25, seed));
        for (const auto& pair : test_pairs(dataset)) ++times[pair];
    }
    // Each of 8 is among the 2 in a quarter of the runs; five standard deviations are 137.
    ASSERT_EQ(times.size(), 8U);
    for (const auto& [pair, count] : times) EXPECT_NEAR(count, 1000, 137) << pair.second;
}

// Many rows of one user take another way of sorting than few.
TEST(Prepare, SortsShortAndLongRowsAlike) {
    for (const std::uint32_t num_items : {3U, 31U, 32U, 33U, 255U, 256U, 257U, 70'000U}) {
        SCOPED_TRACE(num_items);
        InteractionFile file;
        file.users.add("u");
        for (std::uint32_t item = 0; item < num_items; ++item) file.items.add_small(item);
        for (std::uint32_t i = 0; i < num_items; ++i) {
            file.rows.users.push_back(0);
            file.rows.items.push_back(num_items - 1 - i);
        }
        file.rows.users.push_back(0);  // the first pair again
        file.rows.items.push_back(num_items - 1);
        const Dataset dataset = prepare(std::move(file), {});
        ASSERT_EQ(dataset.train_items.size(), num_items);
        for (std::uint32_t item = 0; item < num_items; ++item)
            ASSERT_EQ(dataset.train_items[item], item);
    }
}

TEST(PairTable, HasTheLatestRowOfEachPair) {
    const InteractionFile file =
        read_text("a,x,1,5\na,y,1,1\na,x,1,7\na,x,1,7\na,x,1,6\nb,x,1,2\n");
    const PairTable table = make_pairs(file.rows, file.users, file.items, false);
    ASSERT_EQ(table.entries.size(), 3U);
    EXPECT_EQ(table.starts, (std::vector<std::size_t>{0, 2, 3}));
    EXPECT_EQ(table.entries[0].item(), 0U);
    EXPECT_EQ(table.entries[0].row(), 3U);
    EXPECT_EQ(table.entries[1].row(), 1U);
    EXPECT_EQ(table.entries[2].row(), 5U);
    EXPECT_TRUE(table.strengths.empty());
}

TEST(Matrix, HasARowPerUser) {
    const std::vector<std::uint32_t> users = {0, 0, 2};
    const std::vector<std::uint32_t> items = {1, 3, 0};
    const std::vector<float> strengths = {2.0F, 0.5F, 7.0F};
    const SparsePtr matrix = make_csr(4, 5, users, items, strengths);
    ASSERT_EQ(matrix->rows, 4U);
    ASSERT_EQ(matrix->cols, 5U);
    ASSERT_EQ(matrix->nnz, 3U);
    EXPECT_EQ(std::vector<std::uint32_t>(matrix->row_ptr, matrix->row_ptr + 5),
              (std::vector<std::uint32_t>{0, 2, 2, 3, 3}));
    EXPECT_EQ(std::vector<std::uint32_t>(matrix->col_idx, matrix->col_idx + 3), items);
    EXPECT_EQ(std::vector<float>(matrix->values, matrix->values + 3), strengths);
    const SparsePtr plain = make_csr(4, 5, users, items, {});
    EXPECT_EQ(std::vector<float>(plain->values, plain->values + 3),
              (std::vector<float>{1.0F, 1.0F, 1.0F}));
}

TEST(Matrix, IsRefusedWithoutPairs) {
    EXPECT_EQ(failure_of([] { make_csr(1, 1, {}, {}, {}); }),
              "3: there are no pairs to learn from");
}

TEST(Matrix, IsRefusedForPairsOutOfOrder) {
    EXPECT_EQ(failure_of([] {
                  make_csr(1, 5, {0, 0}, {3, 1}, {});
              }),
              "1: the pairs are not in order");
    EXPECT_EQ(failure_of([] { make_csr(1, 5, {1}, {3}, {}); }), "1: a pair's user is out of range");
}

}  // namespace
}  // namespace zxtool::test
