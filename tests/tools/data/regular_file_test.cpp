#include "regular_file.hpp"

#include "files.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace zxtool::test {
namespace {

TEST(RegularFile, IsReadAtAnyPlace) {
    const TemporaryFolder folder;
    write_file(folder / "x", "0123456789");
    const RegularFile file(folder / "x");
    EXPECT_EQ(file.size(), 10U);
    std::string text(4, ' ');
    file.read(6, text.data(), text.size());
    EXPECT_EQ(text, "6789");
    EXPECT_EQ(file.start(3), "012");
    EXPECT_EQ(file.start(11), "0123456789");
}

TEST(RegularFile, ComesInBlocksThatBeginAtMultiplesOf64BehindTheFirst) {
    const TemporaryFolder folder;
    std::string contents;
    for (int i = 0; i < 500'000; ++i) contents += std::to_string(i % 1000);
    write_file(folder / "x", contents);
    const RegularFile file(folder / "x");
    for (const std::uint64_t end : {std::uint64_t{7}, std::uint64_t{8}, file.size()}) {
        std::string seen;
        file.for_each_block(7, end, [&](std::uint64_t offset, std::string_view bytes) {
            EXPECT_EQ(offset, 7 + seen.size());
            EXPECT_EQ(seen.size() % 64, 0U);
            seen += bytes;
        });
        EXPECT_EQ(seen, contents.substr(7, end - 7));
    }
}

TEST(RegularFile, IsNothingElseAndIsNotWaitedFor) {
    const TemporaryFolder folder;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& path : {pipe, folder / "", std::string("/dev/zero")})
        EXPECT_EQ(
            failure_of([&] { RegularFile file(path); }),
            "6: " + path + ": is no regular file, expected one that can be read at any place");
    EXPECT_EQ(failure_of([&] { RegularFile file(folder / "none"); }),
              "6: " + folder / "none" + ": cannot be opened: No such file or directory");
}

TEST(RegularFile, IsFoundOnlyWhereThereIsOne) {
    const TemporaryFolder folder;
    EXPECT_FALSE(RegularFile::find(folder / "none").has_value());
    write_file(folder / "x", "1");
    const auto file = RegularFile::find(folder / "x");
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(file->start(1), "1");
    EXPECT_EQ(failure_of([&] { (void)RegularFile::find(folder / "x/y"); }),
              "6: " + folder / "x/y" + ": cannot be opened: Not a directory");
}

TEST(RegularFile, ThatBecomesShorterIsNoticed) {
    const TemporaryFolder folder;
    write_file(folder / "x", "0123456789");
    const RegularFile file(folder / "x");
    ASSERT_EQ(truncate((folder / "x").c_str(), 5), 0);
    EXPECT_EQ(failure_of([&] { (void)file.start(10); }),
              "6: " + folder / "x" + ": became shorter while it was read");
}

}  // namespace
}  // namespace zxtool::test
