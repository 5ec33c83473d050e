// Files whose ids are a model's.
#include "files.hpp"

namespace zxtool::test {
namespace {

class KnownIds : public testing::Test {
  protected:
    KnownIds() {
        for (const char* user : {"1", "anna"}) users_.add(user);
        for (const char* item : {"10", "pears"}) items_.add(item);
    }

    Interactions read(const std::string& text, const std::string& name = "x.csv") {
        const TemporaryFolder folder;
        write_file(folder / name, text);
        return read_known_interactions(folder / name, {}, users_, items_, unknown_);
    }

    IdMap users_;
    IdMap items_;
    UnknownIds unknown_;
};

TEST_F(KnownIds, AreReadAsTheModelNumbersThem) {
    const Interactions rows = read("anna,10,4,7\n1,pears,5,8\nanna,pears,3,9\n");
    EXPECT_EQ(rows.users, (std::vector<std::uint32_t>{1, 0, 1}));
    EXPECT_EQ(rows.items, (std::vector<std::uint32_t>{0, 1, 1}));
    EXPECT_EQ(rows.ratings, (std::vector<float>{4.0F, 5.0F, 3.0F}));
    EXPECT_EQ(rows.timestamps, (std::vector<std::int64_t>{7, 8, 9}));
    EXPECT_EQ(unknown_.rows, 0U);
    EXPECT_EQ(unknown_.first_user, "");
    EXPECT_EQ(unknown_.first_item, "");
}

TEST_F(KnownIds, LeaveOutAndCountTheOthers) {
    const Interactions rows =
        read("anna,10\n2,10\nanna,apples\n2,plums\nberta,10\n01,pears\n1,pears\n");
    EXPECT_EQ(rows_of(rows, users_, items_), (Rows{{"anna", "10"}, {"1", "pears"}}));
    EXPECT_EQ(unknown_.rows, 5U);
    EXPECT_EQ(unknown_.users, 3U);  // 2, berta, 01
    EXPECT_EQ(unknown_.items, 2U);
    EXPECT_EQ(unknown_.first_user, "2");
    EXPECT_EQ(unknown_.first_item, "apples");
}

TEST_F(KnownIds, MayBeNone) {
    EXPECT_EQ(read("").size(), 0U);
    EXPECT_EQ(read("user,item\n").size(), 0U);
    EXPECT_EQ(read("7,8,9,978300760\n").size(), 0U);
    EXPECT_EQ(unknown_.rows, 1U);
}

TEST_F(KnownIds, AreStillWrittenInOrder) {
    EXPECT_NE(failure_of([&] { read("1,10\n,10\n"); }).find(":2: user is empty, expected an id"),
              std::string::npos);
    EXPECT_NE(failure_of([&] { read("1,10\n1\n"); }).find(":2: expected 2 fields"),
              std::string::npos);
}

}  // namespace
}  // namespace zxtool::test
