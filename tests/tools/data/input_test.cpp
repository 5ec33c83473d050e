// Where the bytes come from: plain and compressed files, standard input, blocks of them.
#include "files.hpp"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sstream>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <zlib.h>

namespace zxtool::test {
namespace {

std::string compress(const std::string& text) {
    const TemporaryFolder folder;
    const gzFile file = gzopen((folder / "x").c_str(), "wb");
    gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
    gzclose(file);
    return read_file(folder / "x");
}

// While it lives, standard input is the given descriptor.
class StandardInput {
  public:
    explicit StandardInput(int descriptor) : saved_(dup(STDIN_FILENO)) {
        dup2(descriptor, STDIN_FILENO);
    }
    ~StandardInput() {
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

  private:
    int saved_;
};

// A pipe whose ends are closed at the end.
struct Pipe {
    Pipe() {
        if (pipe(ends) != 0) std::abort();
    }
    ~Pipe() {
        close(ends[0]);
        close_writing();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void close_writing() {
        if (ends[1] >= 0) close(ends[1]);
        ends[1] = -1;
    }
    int ends[2] = {-1, -1};
};

// Rows of all lengths, more than a block of the reader.
std::string many_rows(Rows& rows) {
    std::ostringstream text;
    for (int i = 0; i < 60'000; ++i) {
        const std::string user = std::to_string(i % 1000 * i % 77'777);
        const std::string item = i % 3 == 0 ? "item-" + std::to_string(i % 501) : "5";
        text << user << ',' << item << ",4.5," << 978'300'000 + i << '\n';
        rows.push_back({user, item, 4.5F, 978'300'000 + i});
    }
    return text.str();
}

TEST(Input, IsReadAcrossBlocks) {
    Rows rows;
    const InteractionFile file = read_text(many_rows(rows));
    EXPECT_EQ(rows_of(file), rows);
    EXPECT_EQ(file.lines, 60'000U);
}

TEST(Input, IsDecompressedWhenTheNameEndsInGz) {
    Rows rows;
    const std::string text = many_rows(rows);
    const InteractionFile file = read_text(compress(text), "ratings.csv.gz");
    EXPECT_EQ(rows_of(file), rows);
    EXPECT_EQ(file.bytes, text.size());
    EXPECT_EQ(rows_of(read_text(compress("1::2\n"), "ratings.dat.gz")), (Rows{{"1", "2"}}));
    EXPECT_EQ(rows_of(read_text(compress("1\t2\n"), "ratings.tsv.gz")), (Rows{{"1", "2"}}));
}

TEST(Input, MayBeSeveralCompressedPartsInOne) {
    EXPECT_EQ(rows_of(read_text(compress("1,2\n") + compress("3,4\n"), "x.csv.gz")),
              (Rows{{"1", "2"}, {"3", "4"}}));
}

TEST(Input, IsRefusedWhenItsCompressedDataIsCutOff) {
    const std::string whole = compress("1,2\n3,4\n5,6\n");
    for (std::size_t length = 2; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        EXPECT_EQ(refusal_of(whole.substr(0, length), "x.csv.gz"),
                  "3: x.csv.gz: gzip data is cut off, expected its end");
    }
}

TEST(Input, IsRefusedWhenItsCompressedDataIsDamaged) {
    std::string text;
    for (int i = 0; i < 1000; ++i) text += std::to_string(i * i) + ",7\n";
    std::string data = compress(text);
    data[data.size() - 6] = static_cast<char>(data[data.size() - 6] ^ 1);  // of the check sum
    EXPECT_EQ(refusal_of(data, "x.csv.gz"),
              "3: x.csv.gz: gzip data is damaged: incorrect data check");
}

TEST(Input, IsRefusedWhenItIsNotCompressedAsItsNameSays) {
    EXPECT_EQ(refusal_of("1,2\n", "x.csv.gz"),
              "3: x.csv.gz: is not gzip data, expected it because the name ends in .gz");
    EXPECT_EQ(refusal_of("\x1F", "x.csv.gz"),
              "3: x.csv.gz: is not gzip data, expected it because the name ends in .gz");
}

TEST(Input, MayBeStandardInput) {
    const TemporaryFolder folder;
    write_file(folder / "x", "1::2::3\n4::5::6\n");
    const int descriptor = open((folder / "x").c_str(), O_RDONLY);
    const StandardInput input(descriptor);
    close(descriptor);
    EXPECT_EQ(rows_of(read_interactions("-", {})), (Rows{{"1", "2", 3.0F}, {"4", "5", 6.0F}}));
}

TEST(Input, MayComeInSmallPieces) {
    Pipe pipe;
    const StandardInput input(pipe.ends[0]);
    std::thread writer([&pipe] {
        const std::string text = "\xEF\xBB\xBFuser,item\n1,22\n333,4\n";
        for (const char& c : text)
            if (write(pipe.ends[1], &c, 1) != 1) std::abort();
        pipe.close_writing();
    });
    const InteractionFile file = read_interactions("-", {});
    writer.join();
    EXPECT_EQ(rows_of(file), (Rows{{"1", "22"}, {"333", "4"}}));
}

TEST(Input, IsCalledStandardInputInMessages) {
    Pipe pipe;
    const StandardInput input(pipe.ends[0]);
    ASSERT_EQ(write(pipe.ends[1], "1,2,x\n", 6), 6);
    pipe.close_writing();
    EXPECT_EQ(failure_of([] { read_interactions("-", {}); }),
              "3: standard input:1: rating \"x\" is not a finite number, expected one such as 3.5");
}

TEST(Input, ThatIsNotThereIsNamed) {
    EXPECT_EQ(failure_of([] { read_interactions("no-such-file.csv", {}); }),
              "6: no-such-file.csv: cannot be opened: No such file or directory");
    EXPECT_EQ(failure_of([] { read_interactions("no-such-file.csv.gz", {}); }),
              "6: no-such-file.csv.gz: cannot be opened: No such file or directory");
    EXPECT_EQ(failure_of([] { read_interactions(".", {}); }),
              "6: .: cannot be read: Is a directory");
}

TEST(Input, IsRefusedWhenALineHasNoEnd) {
    const TemporaryFolder folder;
    write_file(folder / "x.csv", "1,2\n");
    std::filesystem::resize_file(folder / "x.csv", 65U << 20U);
    EXPECT_EQ(failure_of([&] { read_interactions(folder / "x.csv", {}); }),
              "3: " + (folder / "x.csv") +
                  ": line 2 is longer than 67108864 bytes, expected a text file");
}

TEST(Input, IsNoTrustedMeasureOfTheMemoryItNeeds) {
    const TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 2000; ++i) text += "1,2\n";
    write_file(folder / "x.csv", text);
    std::error_code error;
    std::filesystem::resize_file(folder / "x.csv", std::uintmax_t{1} << 40U, error);
    if (error) GTEST_SKIP() << "no file of a terabyte can be made here: " << error.message();
    EXPECT_EQ(failure_of([&] { read_interactions(folder / "x.csv", {}); }),
              "3: " + (folder / "x.csv") +
                  ": line 2001 is longer than 67108864 bytes, expected a text file");
}

TEST(Input, ReportsItsProgressBlockByBlock) {
    Rows rows;
    const std::string text = many_rows(rows);
    std::vector<std::uint64_t> reported;
    ReadOptions options;
    options.on_block = [&reported](std::uint64_t bytes) { reported.push_back(bytes); };
    read_text(text, "x.csv", options);
    ASSERT_GE(reported.size(), 3U);
    EXPECT_TRUE(std::is_sorted(reported.begin(), reported.end()));
    EXPECT_EQ(reported.back(), text.size());
}

TEST(Input, EndsWithWhatItsReportThrows) {
    ReadOptions options;
    options.on_block = [](std::uint64_t) { throw Error(Exit::kInterrupted, "interrupted"); };
    EXPECT_EQ(failure_of([&] { read_text("1,2\n", "x.csv", options); }), "130: interrupted");
}

TEST(Input, ReportsWhenASignalInterruptsAWait) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before = {};
    sigaction(SIGUSR1, &action, &before);
    Pipe pipe;  // nothing ever comes through
    const StandardInput input(pipe.ends[0]);
    std::atomic<bool> done = false;
    std::thread sender([&done, reader = pthread_self()] {
        while (!done) {
            pthread_kill(reader, SIGUSR1);
            std::this_thread::yield();
        }
    });
    ReadOptions options;
    options.on_block = [](std::uint64_t) { throw Error(Exit::kInterrupted, "interrupted"); };
    const std::string failure = failure_of([&] { read_interactions("-", options); });
    done = true;
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(failure, "130: interrupted");
}

}  // namespace
}  // namespace zxtool::test
