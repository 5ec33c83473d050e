#include "atomic_file.hpp"

#include "file_size_limit.hpp"
#include "files.hpp"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zxtool::test {
namespace {

namespace fs = std::filesystem;

TEST(AtomicFile, IsThereWholeOnceCommitted) {
    const TemporaryFolder folder;
    AtomicFile file(folder / "x");
    file.write("first ");
    ASSERT_GE(std::fputs("second", file.stream()), 0);
    EXPECT_FALSE(fs::exists(folder / "x"));
    file.commit();
    EXPECT_TRUE(file.is_in_place());
    EXPECT_EQ(read_file(folder / "x"), "first second");
    EXPECT_EQ(folder.count(), 1);
}

TEST(AtomicFile, LeavesTheOldFileUntilCommitted) {
    const TemporaryFolder folder;
    write_file(folder / "x", "old");
    {
        AtomicFile file(folder / "x");
        file.write("new");
        EXPECT_EQ(std::fflush(file.stream()), 0);
        EXPECT_EQ(read_file(folder / "x"), "old");
        EXPECT_EQ(folder.count(), 2);
    }
    EXPECT_EQ(read_file(folder / "x"), "old");
    EXPECT_EQ(folder.count(), 1);
}

TEST(AtomicFile, RemovesItsTemporaryFileWhenWorkEndsInAnException) {
    const TemporaryFolder folder;
    EXPECT_EQ(failure_of([&] {
                  AtomicFile file(folder / "x");
                  file.write("half");
                  throw Error(Exit::kInterrupted, "interrupted");
              }),
              "130: interrupted");
    EXPECT_EQ(folder.count(), 0);
}

TEST(AtomicFile, MayBeWrittenByName) {
    const TemporaryFolder folder;
    AtomicFile file(folder / "x");
    EXPECT_EQ(fs::path(file.temporary_path()).parent_path(), fs::path(folder / "x").parent_path());
    write_file(file.temporary_path(), "12345");
    file.commit(5);
    EXPECT_EQ(read_file(folder / "x"), "12345");
}

TEST(AtomicFile, IsRefusedAtAnotherLengthThanExpected) {
    const TemporaryFolder folder;
    write_file(folder / "x", "old");
    const std::string path = folder / "x";
    for (const std::uint64_t expected : {4U, 6U}) {
        AtomicFile file(path);
        write_file(file.temporary_path(), "12345");
        EXPECT_EQ(failure_of([&] { file.commit(expected); }),
                  "6: " + path + ": 5 bytes were written, expected " + std::to_string(expected));
        EXPECT_FALSE(file.is_in_place());
    }
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(folder.count(), 1);
}

TEST(AtomicFile, TellsWhenTheDiskIsFull) {
    const TemporaryFolder folder;
    write_file(folder / "x", "old");
    const std::string path = folder / "x";
    {
        AtomicFile file(path);
        const FileSizeLimit limit(1000);
        EXPECT_EQ(failure_of([&] {
                      for (int i = 0; i < 100; ++i) file.write(std::string(1000, 'x'));
                      file.commit();
                  }),
                  "6: " + path + ": cannot be written: File too large");
    }
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(folder.count(), 1);
}

TEST(AtomicFile, TellsOfAFullDiskAtTheLatestWhenCommitted) {
    const TemporaryFolder folder;
    const std::string path = folder / "x";
    {
        AtomicFile file(path);
        file.write(std::string(100, 'x'));  // still in memory
        const FileSizeLimit limit(50);
        EXPECT_EQ(failure_of([&] { file.commit(); }),
                  "6: " + path + ": cannot be written: File too large");
    }
    EXPECT_EQ(folder.count(), 0);
}

TEST(AtomicFile, HasThePermissionsOfAnyNewFile) {
    const TemporaryFolder folder;
    const mode_t before = umask(0027);
    AtomicFile file(folder / "x");
    file.commit();
    umask(before);
    struct stat status = {};
    ASSERT_EQ(stat((folder / "x").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST(AtomicFile, ReplacesWhatALinkPointsTo) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "far");
    write_file(folder / "far/file", "old");
    fs::create_symlink("far/file", folder / "near");
    fs::create_symlink("near", folder / "link");
    AtomicFile file(folder / "link");
    file.write("new");
    file.commit();
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_TRUE(fs::is_symlink(folder / "near"));
    EXPECT_FALSE(fs::is_symlink(folder / "far/file"));
    EXPECT_EQ(read_file(folder / "far/file"), "new");
}

TEST(AtomicFile, CreatesWhatALinkWithoutATargetPointsTo) {
    const TemporaryFolder folder;
    fs::create_symlink("later", folder / "link");
    AtomicFile file(folder / "link");
    file.write("new");
    file.commit();
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(read_file(folder / "later"), "new");
}

TEST(AtomicFile, ReplacesRegularFilesOnly) {
    const TemporaryFolder folder;
    EXPECT_EQ(failure_of([] { AtomicFile file("/dev/null"); }),
              "6: /dev/null: is no regular file, expected a file that can be replaced");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(
        failure_of([&] { AtomicFile file(folder / "pipe"); }),
        "6: " + (folder / "pipe") + ": is no regular file, expected a file that can be replaced");
    EXPECT_EQ(
        failure_of([&] { AtomicFile file(folder / "."); }),
        "6: " + (folder / ".") + ": is no regular file, expected a file that can be replaced");
}

TEST(AtomicFile, NeedsItsFolder) {
    EXPECT_EQ(failure_of([] { AtomicFile file("no-such-folder/x"); }),
              "6: no-such-folder/x: cannot be written: No such file or directory");
}

TEST(AtomicFile, DoesNotDisturbAnotherOfTheSameTarget) {
    const TemporaryFolder folder;
    AtomicFile first(folder / "x");
    AtomicFile second(folder / "x");
    EXPECT_NE(first.temporary_path(), second.temporary_path());
    first.write("first");
    second.write("second");
    second.commit();
    EXPECT_EQ(read_file(folder / "x"), "second");
    first.commit();
    EXPECT_EQ(read_file(folder / "x"), "first");
}

TEST(AtomicFile, TakesALongName) {
    const TemporaryFolder folder;
    const std::string longest(255, 'x');
    AtomicFile file(folder / longest);
    file.write("new");
    file.commit();
    EXPECT_EQ(read_file(folder / longest), "new");
}

}  // namespace
}  // namespace zxtool::test
