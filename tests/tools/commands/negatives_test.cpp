// Lists of negatives: both forms of line, what is refused, what is left out, and their ranking.
#include "negatives.hpp"

#include "error.hpp"
#include "small_models.hpp"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace zxtool {
namespace {

using Ids = std::vector<std::uint32_t>;

IdMap ids(const std::vector<std::string>& names) {
    IdMap map;
    for (const std::string& name : names) map.add(name);
    return map;
}

class Negatives : public testing::Test {
  protected:
    ListedPairs read(const std::string& text) {
        std::ofstream(path_, std::ios::binary) << text;
        unknown_ = {};
        return read_negatives(path_, users_, items_, {}, unknown_);
    }
    ~Negatives() override { static_cast<void>(std::remove(path_.c_str())); }

    static Ids list(const ListedPairs& pairs, std::size_t pair) {
        const auto negatives = pairs.negatives_of(pair);
        return {negatives.begin(), negatives.end()};
    }

    const std::string path_ = testing::TempDir() + "negatives_test.txt";
    const IdMap users_ = ids({"ann", "bob"});
    const IdMap items_ = ids({"a", "b", "c", "d", "e"});
    UnknownIds unknown_;
};

TEST_F(Negatives, ReadsBothFormsOfALine) {
    const ListedPairs pairs = read("ann a e c\r\n\n  \t\n(bob,d)\tb\ta  b\n");
    EXPECT_EQ(pairs.users, (Ids{0, 1}));
    EXPECT_EQ(pairs.items, (Ids{0, 3}));
    EXPECT_EQ(list(pairs, 0), (Ids{2, 4}));
    EXPECT_EQ(list(pairs, 1), (Ids{0, 1}));  // ascending, the repeat dropped
    EXPECT_EQ(unknown_.rows, 0u);
}

TEST_F(Negatives, LeavesTheHeldOutItemOutOfItsOwnList) {
    const ListedPairs pairs = read("ann c a c b");
    EXPECT_EQ(list(pairs, 0), (Ids{0, 1}));
}

TEST_F(Negatives, CountsUnknownIds) {
    const ListedPairs pairs = read("ann a b x\nzoe a b\nbob y x c\nbob d e\n");
    EXPECT_EQ(pairs.users, (Ids{0, 1}));
    EXPECT_EQ(list(pairs, 0), Ids{1});
    EXPECT_EQ(list(pairs, 1), Ids{4});
    EXPECT_EQ(unknown_.rows, 2u);
    EXPECT_EQ(unknown_.users, 1u);
    EXPECT_EQ(unknown_.first_user, "zoe");
    EXPECT_EQ(unknown_.items, 2u);
    EXPECT_EQ(unknown_.first_item, "x");
}

TEST_F(Negatives, RefusesLinesWithoutAPairOrNegatives) {
    const struct {
        const char* when;
        const char* text;
        const char* message;
    } cases[] = {
        {"one word", "ann a b\nann\n",
         ":2: expected \"user item negative ...\" or \"(user,item) negative ...\", found \"ann\""},
        {"no negatives", "ann a\n",
         ":1: expected at least one negative behind the pair, found none"},
        {"no negatives behind the other form", "(ann,a)\n",
         ":1: expected at least one negative behind the pair, found none"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        try {
            read(c.text);
            ADD_FAILURE() << "was accepted";
        } catch (const Error& error) {
            EXPECT_EQ(error.status(), Exit::kBadInput);
            EXPECT_EQ(error.what(), path_ + c.message);
        }
    }
}

TEST_F(Negatives, RanksEachPairAmongItsList) {
    const ModelPtr model = test::model_with_scores({1.0f, -1.0f}, {5, 4, 3, 2, 4});
    // ann's c is behind a and b; bob likes least what ann likes most: his b is behind c and d, and
    // before e, which scores the same and has the higher number.
    const ListedPairs pairs = read("ann c a b d\nbob b c d e\nann a d e\n");
    const Ids ks{1, 2, 3};
    const Figures figures =
        rank_listed([&] { return model_scorer(*model); }, pairs, ks, /*num_threads=*/2);
    EXPECT_EQ(figures.users(), 3u);
    const std::vector<FiguresAtK> at = figures.averages();
    EXPECT_NEAR(at[0].hit_rate, 1.0 / 3, 1e-12);
    EXPECT_NEAR(at[1].hit_rate, 1.0 / 3, 1e-12);
    EXPECT_NEAR(at[2].hit_rate, 1.0, 1e-12);
    EXPECT_NEAR(at[2].ndcg, (1.0 + 0.5 + 0.5) / 3, 1e-12);
}

}  // namespace
}  // namespace zxtool
