#include "generate.hpp"

#include "files.hpp"

#include <algorithm>
#include <map>
#include <set>

namespace zxtool::test {
namespace {

std::string generated(const GenerateOptions& options) {
    const TemporaryFolder folder;
    std::FILE* const file = std::fopen((folder / "x").c_str(), "wb");
    if (file == nullptr) std::abort();
    try {
        generate(options, file);
    } catch (...) {
        (void)std::fclose(file);
        throw;
    }
    (void)std::fclose(file);
    return read_file(folder / "x");
}

GenerateOptions small_options() {
    GenerateOptions options;
    options.num_users = 200;
    options.num_items = 100;
    options.num_interactions = 3000;
    options.rank = 5;
    return options;
}

TEST(Generate, WritesAsManyRowsAsWantedWithoutRepeats) {
    const std::string text = generated({});
    EXPECT_EQ(text.substr(0, 27), "user,item,rating,timestamp\n");
    const Rows rows = rows_of(read_text(text));
    ASSERT_EQ(rows.size(), 60'000U);
    std::set<std::pair<std::string, std::string>> pairs;
    std::map<std::string, int> users;
    for (const Row& row : rows) {
        pairs.emplace(row.user, row.item);
        ++users[row.user];
    }
    EXPECT_EQ(pairs.size(), rows.size());
    EXPECT_EQ(users.size(), 2000U);
    for (const auto& [user, count] : users) {
        EXPECT_GE(count, 5) << user;
        EXPECT_LE(std::stoi(user), 2000);
        EXPECT_GE(std::stoi(user), 1);
    }
}

TEST(Generate, WritesRatingsInHalvesAndIncreasingTimes) {
    const Rows rows = rows_of(read_text(generated(small_options())));
    std::set<float> ratings;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        ratings.insert(rows[i].rating);
        if (i > 0) {
            ASSERT_GT(rows[i].timestamp, rows[i - 1].timestamp);
            ASSERT_GE(std::stoi(rows[i].user), std::stoi(rows[i - 1].user));
        }
    }
    EXPECT_EQ(ratings, (std::set<float>{1.5F, 2.0F, 2.5F, 3.0F, 3.5F, 4.0F, 4.5F, 5.0F}));
}

TEST(Generate, WritesTheSameBytesForTheSameOptions) {
    GenerateOptions options = small_options();
    const std::string text = generated(options);
    EXPECT_EQ(generated(options), text);
    options.seed = 2;
    EXPECT_NE(generated(options), text);
    options = small_options();
    options.noise = 0.2;
    EXPECT_NE(generated(options), text);
}

TEST(Generate, GivesEveryUserHalfOfTheItemsAtMost) {
    GenerateOptions options;
    options.num_users = 10;
    options.num_items = 21;
    options.num_interactions = 100;
    options.rank = 3;
    options.noise = 0.0;
    const Rows rows = rows_of(read_text(generated(options)));
    EXPECT_EQ(rows.size(), 100U);
    std::map<std::string, int> users;
    for (const Row& row : rows) ++users[row.user];
    for (const auto& [user, count] : users) EXPECT_EQ(count, 10) << user;
}

TEST(Generate, GoesBeyondALikedGroupOnceItIsUsedUp) {
    GenerateOptions options;  // groups of two items each, and five items for every user
    options.num_users = 4;
    options.num_items = 10;
    options.num_interactions = 20;
    options.rank = 5;
    options.noise = 0.0;
    EXPECT_EQ(rows_of(read_text(generated(options))).size(), 20U);
}

TEST(Generate, LeavesUsersOutWhenThereAreFewerRows) {
    GenerateOptions options = small_options();
    options.num_interactions = 7;
    EXPECT_EQ(rows_of(read_text(generated(options))).size(), 7U);
}

// Without noise, a user has items of two groups, so the items fall into groups that users share:
// of the pairs of items that a random user has, far more than by chance are in one group.
TEST(Generate, HidesGroupsOfItems) {
    GenerateOptions options = small_options();
    options.num_items = 1000;
    options.noise = 0.0;
    const Rows rows = rows_of(read_text(generated(options)));
    // Users of one favourite and one second group have at most 2 of the 5 groups' items.
    std::map<std::string, std::set<std::string>> items_of;
    for (const Row& row : rows) items_of[row.user].insert(row.item);
    std::size_t disjoint = 0;
    for (auto a = items_of.begin(); a != items_of.end(); ++a)
        for (auto b = std::next(a); b != items_of.end(); ++b)
            disjoint +=
                std::none_of(a->second.begin(), a->second.end(),
                             [&b](const std::string& item) { return b->second.count(item) > 0; })
                    ? 1
                    : 0;
    // Two users share no group with a probability of about (4/5 * 3/4)^2 = 0.36 or more.
    EXPECT_GT(disjoint, 200U * 199U / 2U * 3U / 10U);
}

TEST(Generate, RefusesOptionsThatNoDataSetHas) {
    const struct {
        const char* what;
        std::uint32_t users, items;
        std::uint64_t interactions;
        std::uint32_t rank;
        double noise;
        const char* message;
    } cases[] = {
        {"no users", 0, 10, 10, 2, 0.1,
         "2: a data set needs a user, two items and an interaction at least"},
        {"one item", 10, 1, 1, 1, 0.1,
         "2: a data set needs a user, two items and an interaction at least"},
        {"no rows", 10, 10, 0, 2, 0.1,
         "2: a data set needs a user, two items and an interaction at least"},
        {"rank 0", 10, 10, 10, 0, 0.1,
         "2: rank 0 is out of range, expected 1 to the number of items, 10"},
        {"rank above the items", 10, 10, 10, 11, 0.1,
         "2: rank 11 is out of range, expected 1 to the number of items, 10"},
        {"negative noise", 10, 10, 10, 2, -0.1, "2: noise -0.1 is out of range, expected 0 to 1"},
        {"too much noise", 10, 10, 10, 2, 1.5, "2: noise 1.5 is out of range, expected 0 to 1"},
        {"too many rows", 10, 11, 51, 2, 0.1,
         "2: 51 interactions are too many, expected 50 at most: half of all pairs"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        GenerateOptions options;
        options.num_users = c.users;
        options.num_items = c.items;
        options.num_interactions = c.interactions;
        options.rank = c.rank;
        options.noise = c.noise;
        EXPECT_EQ(failure_of([&] { generated(options); }), c.message);
    }
}

TEST(Generate, TellsWhenTheOutputCannotBeWritten) {
    std::FILE* const file = std::fopen("/dev/full", "wb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(failure_of([file] { generate({}, file); }),
              "6: output cannot be written: No space left on device");
    (void)std::fclose(file);
}

TEST(Generate, ReportsItsProgressAndEndsWithWhatTheReportThrows) {
    GenerateOptions options;
    std::vector<std::uint64_t> reported;
    options.on_block = [&reported](std::uint64_t rows) { reported.push_back(rows); };
    generated(options);
    ASSERT_GE(reported.size(), 3U);
    EXPECT_TRUE(std::is_sorted(reported.begin(), reported.end()));
    EXPECT_EQ(reported.back(), 60'000U);
    options.on_block = [](std::uint64_t) { throw Error(Exit::kInterrupted, "interrupted"); };
    EXPECT_EQ(failure_of([&] { generated(options); }), "130: interrupted");
}

}  // namespace
}  // namespace zxtool::test
