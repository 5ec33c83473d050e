#include "folder_files.hpp"

#include "files.hpp"

namespace zxtool::test {
namespace {

namespace fs = std::filesystem;

void write_two(FolderFiles& files, const std::string& text) {
    for (const char* name : {"a", "b"}) {
        AtomicFile& file = files.add(name);
        file.write(text);
        file.settle();
    }
}

TEST(FolderFiles, AreInANewFolderOnceCommitted) {
    const TemporaryFolder folder;
    FolderFiles files(folder / "out");
    write_two(files, "new");
    EXPECT_FALSE(fs::exists(folder / "out/a"));
    files.commit({});
    EXPECT_EQ(read_file(folder / "out/a"), "new");
    EXPECT_EQ(read_file(folder / "out/b"), "new");
    EXPECT_EQ(folder.count(), 1);
}

TEST(FolderFiles, LeaveNothingWhenWorkEndsInAnException) {
    const TemporaryFolder folder;
    EXPECT_EQ(failure_of([&] {
                  FolderFiles files(folder / "out");
                  write_two(files, "new");
                  throw Error(Exit::kInterrupted, "interrupted");
              }),
              "130: interrupted");
    EXPECT_EQ(folder.count(), 0);
}

TEST(FolderFiles, LeaveAFolderThatWasThereAsItWas) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "out");
    write_file(folder / "out/a", "old");
    {
        FolderFiles files(folder / "out");
        write_two(files, "new");
    }
    EXPECT_EQ(read_file(folder / "out/a"), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "out"), fs::directory_iterator()), 1);
}

TEST(FolderFiles, ReplaceTheirOwnRemoveTheOthersAndLeaveTheRest) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "out");
    for (const char* name : {"out/a", "out/c", "out/rest"}) write_file(folder / name, "old");
    FolderFiles files(folder / "out");
    write_two(files, "new");
    files.commit({"c", "d"});
    EXPECT_EQ(read_file(folder / "out/a"), "new");
    EXPECT_FALSE(fs::exists(folder / "out/c"));
    EXPECT_EQ(read_file(folder / "out/rest"), "old");
}

TEST(FolderFiles, ChangeNothingWhenOneOfTheOthersIsAFolder) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "out/d");
    for (const char* name : {"out/a", "out/c"}) write_file(folder / name, "old");
    FolderFiles files(folder / "out");
    write_two(files, "new");
    EXPECT_EQ(failure_of([&] {
                  files.commit({"c", "d"});
              }),
              "6: " + folder / "out/d" + ": is a folder, expected a file or nothing");
    EXPECT_EQ(read_file(folder / "out/a"), "old");
    EXPECT_EQ(read_file(folder / "out/c"), "old");
}

TEST(FolderFiles, NeedAFolderThatCanBeMade) {
    const TemporaryFolder folder;
    write_file(folder / "x", "mine");
    EXPECT_EQ(failure_of([&] { FolderFiles files(folder / "x"); }),
              "6: " + folder / "x" + ": is no folder, expected one or nothing");
    EXPECT_EQ(failure_of([&] { FolderFiles files(folder / "x/y"); }),
              "6: " + folder / "x/y" + ": cannot be made: Not a directory");
}

}  // namespace
}  // namespace zxtool::test
