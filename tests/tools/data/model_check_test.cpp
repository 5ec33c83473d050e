#include "model_check.hpp"

#include "container.hpp"
#include "files.hpp"
#include "model_store.hpp"

#include <filesystem>
#include <stdexcept>

namespace zxtool::test {
namespace {

// A model of two users, three items and two dimensions, as the library writes it.
std::string model_file(bool use_bias) {
    const TemporaryFolder folder;
    const ModelPtr model(zx_model_mf_create(2, 3, 2, use_bias ? 1 : 0));
    zx_set_verbosity(0);
    EXPECT_EQ(zx_model_save(model.get(), (folder / "m").c_str()), ZX_OK);
    return read_file(folder / "m");
}

// What the check says of a file, without its name; "nothing" if it is in order.
std::string fault_of(const TemporaryFolder& folder, const std::string& contents) {
    // A new file each time: some file systems bring to disk at once what replaces a file's
    // contents.
    std::filesystem::remove(folder / "m");
    write_file(folder / "m", contents);
    const std::string fault =
        failure_of([&] { check_every_byte(RegularFile(folder / "m"), nullptr); });
    const std::string prefix = "4: " + folder / "m" + ": ";
    return fault.starts_with(prefix) ? fault.substr(prefix.size()) : fault;
}

TEST(ModelCheck, FindsNothingInWhatTheLibraryWrites) {
    const TemporaryFolder folder;
    EXPECT_EQ(fault_of(folder, model_file(false)), "nothing");
    EXPECT_EQ(fault_of(folder, model_file(true)), "nothing");
}

// But for numbers, no bit is free.
TEST(ModelCheck, FindsEveryChangedBitOutsideOfNumbers) {
    const TemporaryFolder folder;
    const std::string whole = model_file(true);
    const std::size_t data_at = 1408;
    const std::size_t data_bytes[] = {16, 24, 8, 12};
    for (std::size_t at = 0; at < whole.size(); ++at) {
        const bool in_data = at >= data_at && (at - data_at) % 64 < data_bytes[(at - data_at) / 64];
        for (int bit = 0; bit < 8 && !in_data; ++bit) {
            std::string changed = whole;
            changed[at] = static_cast<char>(changed[at] ^ (1 << bit));
            const std::string fault = fault_of(folder, changed);
            ASSERT_TRUE(fault.starts_with("offset ")) << at << ": " << fault;
            // A field is named by its first byte, and a size may disagree with an extent behind
            // which it stands: up to 36 bytes lie between the two.
            const std::size_t named = std::stoul(fault.substr(7));
            EXPECT_LE(named, at + 36) << fault;
        }
    }
}

TEST(ModelCheck, FindsEveryCut) {
    const TemporaryFolder folder;
    const std::string whole = model_file(true);
    for (std::size_t length = 0; length < whole.size(); ++length)
        ASSERT_TRUE(fault_of(folder, whole.substr(0, length)).starts_with("offset ")) << length;
}

TEST(ModelCheck, TakesExtentsOfBorrowedNumbers) {
    const TemporaryFolder folder;
    std::string contents = model_file(true);
    // Behind the one axis of the user biases, a tensor that borrows its numbers has zeros.
    const std::size_t dims_at = descriptor_at(2) + offsetof(ContainerDescriptor, dims);
    for (std::size_t i = 4; i < 16; ++i) contents[dims_at + i] = '\0';
    EXPECT_EQ(fault_of(folder, contents), "nothing");
}

TEST(ModelCheck, FindsAFileThatIsReplacedOnceItIsChecked) {
    const TemporaryFolder folder;
    const std::string path = folder / "m";
    write_file(path, model_file(false));
    const std::string other = model_file(true);
    EXPECT_EQ(failure_of([&] {
                  load_checked_model(path, [&] {
                      write_file(path + ".new", other);
                      std::filesystem::rename(path + ".new", path);
                  });
              }),
              "6: " + path + ": changed while it was checked");
}

TEST(ModelCheck, CanBeStoppedBetweenBlocks) {
    const TemporaryFolder folder;
    write_file(folder / "m", model_file(false));
    EXPECT_EQ(failure_of([&] {
                  check_every_byte(RegularFile(folder / "m"),
                                   [] { throw Error(Exit::kInterrupted, "interrupted"); });
              }),
              "130: interrupted");
}

}  // namespace
}  // namespace zxtool::test
