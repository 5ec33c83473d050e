#include "model_check.hpp"

#include "container.hpp"
#include "files.hpp"
#include "model_store.hpp"

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

// But for the name of the model, which may be any, and numbers, no bit is free.
TEST(ModelCheck, FindsEveryChangedByteOutsideOfNamesAndNumbers) {
    const TemporaryFolder folder;
    const std::string whole = model_file(true);
    const std::string name = "MatrixFactorization";
    const std::size_t name_at = offsetof(ContainerHeader, model_name);
    ASSERT_EQ(whole.substr(name_at, name.size()), name);
    const std::size_t data_at = 1408;
    const std::size_t data_bytes[] = {16, 24, 8, 12};
    for (std::size_t at = 0; at < whole.size(); ++at) {
        // Another byte for the 0 that ends the name makes it longer.
        const bool in_name = at >= name_at && at <= name_at + name.size();
        const bool in_data = at >= data_at && (at - data_at) % 64 < data_bytes[(at - data_at) / 64];
        if (in_name || in_data) continue;
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ 0x40);
        const std::string fault = fault_of(folder, changed);
        ASSERT_TRUE(fault.starts_with("offset ")) << at << ": " << fault;
        // A field is named by its first byte, and a size may disagree with an extent behind which
        // it stands: up to 36 bytes lie between the two.
        const std::size_t named = std::stoul(fault.substr(7));
        EXPECT_LE(named, at + 36) << fault;
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
