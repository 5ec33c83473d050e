#include "ids_file.hpp"

#include "files.hpp"

namespace zxtool::test {
namespace {

constexpr ModelPrint kPrint = {960, 0x0123456789ABCDEFU};

IdMap ids_of(const std::vector<std::string>& names) {
    IdMap ids;
    for (const std::string& name : names) ids.add(name);
    return ids;
}

std::string parse_failure(const std::string& contents) {
    return failure_of([&] { parse_ids(contents, "m.ids"); });
}

// A 32-bit number, little-endian.
std::string numbers(std::uint32_t value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFFU);
    return bytes;
}

TEST(IdsFile, KeepsAnyIds) {
    const std::vector<std::string> users = {"0", "anna", "", std::string(1000, 'x'),
                                            std::string("a\nb\r,\"\0c", 8)};
    const std::vector<std::string> items = {"caf\xC3\xA9", "\xFF\xFE", "0", " "};
    const IdsFile ids = parse_ids(format_ids(kPrint, ids_of(users), ids_of(items)), "m.ids");
    EXPECT_EQ(ids.model, kPrint);
    ASSERT_EQ(ids.users.size(), users.size());
    for (std::uint32_t i = 0; i < users.size(); ++i) EXPECT_EQ(ids.users.name(i), users[i]);
    ASSERT_EQ(ids.items.size(), items.size());
    for (std::uint32_t i = 0; i < items.size(); ++i) EXPECT_EQ(ids.items.name(i), items[i]);
}

TEST(IdsFile, HasTheStatedLayout) {
    const std::string contents = format_ids(kPrint, ids_of({"u"}), ids_of({"x", "yz"}));
    const std::string expected = std::string("ZXMODIDS") + numbers(1) + numbers(1) + numbers(2) +
                                 numbers(0) + numbers(960) + numbers(0) + numbers(0x89ABCDEFU) +
                                 numbers(0x01234567U) + numbers(1) + "u" + numbers(1) + "x" +
                                 numbers(2) + "yz";
    EXPECT_EQ(contents.substr(0, contents.size() - 8), expected);
}

TEST(IdsFile, IsRefusedWithAnyByteChanged) {
    const std::string contents =
        format_ids(kPrint, ids_of({"anna", "2"}), ids_of({"x", "yz", "7"}));
    for (std::size_t i = 0; i < contents.size(); ++i) {
        for (const unsigned mask : {0x01U, 0x80U, 0xFFU}) {
            SCOPED_TRACE(i);
            std::string damaged = contents;
            damaged[i] = static_cast<char>(static_cast<unsigned char>(damaged[i]) ^ mask);
            const std::string failure = parse_failure(damaged);
            if (i < 8)
                EXPECT_EQ(failure, "4: m.ids: is no ids file");
            else if (i < 12)
                EXPECT_EQ(failure,
                          "4: m.ids: ids file is of a version that this program does not know");
            else
                EXPECT_EQ(failure, "4: m.ids: ids file is damaged");
        }
    }
}

TEST(IdsFile, IsRefusedCutOffOrContinued) {
    const std::string contents = format_ids(kPrint, ids_of({"anna", "2"}), ids_of({"x"}));
    for (std::size_t length = 0; length < contents.size(); ++length) {
        SCOPED_TRACE(length);
        EXPECT_EQ(parse_failure(contents.substr(0, length)).substr(0, 10), "4: m.ids: ");
    }
    EXPECT_EQ(parse_failure(contents + '\0'), "4: m.ids: ids file is damaged");
    EXPECT_EQ(parse_failure(""), "4: m.ids: is no ids file");
    EXPECT_EQ(parse_failure("ZXMODIDS\1"), "4: m.ids: ids file ends too early");
}

}  // namespace
}  // namespace zxtool::test
