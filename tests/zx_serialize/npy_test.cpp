// NumPy export: the bytes of array files, and the directory that a model's tables go into.

#include "file_fixture.hpp"
#include "float_bits.hpp"

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace zx::test {
namespace {

class TensorToNpy : public FileTest {};
class ModelToNpyDir : public FileTest {};

constexpr const char* kUsers = "out/user_embeddings.npy";
constexpr const char* kItems = "out/item_embeddings.npy";
constexpr std::uint32_t kMost = 0xffffffff;

// Magic, version 1.0 and the length of the text: 118, for every shape there is.
const std::string kPreamble("\x93NUMPY\x01\x00\x76\x00", 10);

// A whole file in front of the data.
std::string head(const std::string& shape) {
    std::string text = "{'descr': '<f4', 'fortran_order': False, 'shape': " + shape + ", }";
    text.resize(117, ' ');
    return kPreamble + text + "\n";
}

TEST_F(TensorToNpy, WritesAVector) {
    const TensorPtr tensor(zx_tensor_create_1d(5));
    ASSERT_NE(tensor, nullptr);
    fill(tensor.get(), {1.0f, -2.0f, 0.15625f, kInfinity, -0.0f});
    EXPECT_EQ(zx_tensor_to_npy(tensor.get(), "v.npy"), ZX_OK);
    std::string expected("\x93NUMPY\x01\x00\x76\x00", 10);
    expected += "{'descr': '<f4', 'fortran_order': False, 'shape': (5,), }";
    expected +=
        "          "
        "          "
        "          "
        "          "
        "          "
        "          ";
    expected += "\n";
    expected += std::string(
        "\x00\x00\x80\x3f\x00\x00\x00\xc0\x00\x00\x20\x3e\x00\x00\x80\x7f"
        "\x00\x00\x00\x80",
        20);
    const std::string written = file_content("v.npy");
    EXPECT_EQ(written.size(), 148u);
    EXPECT_TRUE(written == expected);
}

TEST_F(TensorToNpy, WritesEveryRank) {
    const struct {
        Extents dims;
        std::string shape;
    } cases[] = {
        {{1}, "(1,)"},
        {{3, 4}, "(3,4,)"},
        {{2, 3, 4}, "(2,3,4,)"},
        {{2, 1, 3, 2}, "(2,1,3,2,)"},
        {{1000, 300}, "(1000,300,)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shape);
        const TensorPtr tensor = counted_tensor(c.dims);
        ASSERT_NE(tensor, nullptr);
        ASSERT_EQ(zx_tensor_to_npy(tensor.get(), "t.npy"), ZX_OK);
        EXPECT_TRUE(file_content("t.npy") ==
                    head(c.shape) + FileBytes().floats(contents(tensor.get())).bytes());
    }
}

// Wrapped shapes may have no elements, and extents of ten digits. The data begins at 128 always.
TEST_F(TensorToNpy, WritesShapesOfAnyLength) {
    const struct {
        Extents dims;
        std::string shape;
    } cases[] = {
        {{0}, "(0,)"},
        {{3, 0}, "(3,0,)"},
        {{kMost, 0, kMost, kMost}, "(4294967295,0,4294967295,4294967295,)"},
        {{kMost, kMost, kMost, kMost}, "(4294967295,4294967295,4294967295,4294967295,)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shape);
        const TensorPtr tensor = wrapped_tensor(c.dims);
        ASSERT_NE(tensor, nullptr);
        ASSERT_EQ(tensor->size, 0u);
        ASSERT_EQ(zx_tensor_to_npy(tensor.get(), "t.npy"), ZX_OK);
        const std::string written = file_content("t.npy");
        EXPECT_EQ(written.size(), 128u);
        EXPECT_TRUE(written == head(c.shape));
    }
}

TEST_F(TensorToNpy, WritesAnEmptyTupleWithoutAxes) {
    const TensorPtr tensor = counted_tensor({1}, 2.0f);
    ASSERT_NE(tensor, nullptr);
    tensor->ndim = 0;
    ASSERT_EQ(zx_tensor_to_npy(tensor.get(), "t.npy"), ZX_OK);
    EXPECT_TRUE(file_content("t.npy") == head("()") + FileBytes().floats({2.0f}).bytes());
}

// The record has four extents: what a fifth would be is not looked at.
TEST_F(TensorToNpy, RefusesMoreAxesThanExtents) {
    const TensorPtr tensor = counted_tensor({1, 1, 1, 1});
    ASSERT_NE(tensor, nullptr);
    write_file("t.npy", "before");
    for (const std::uint8_t ndim : {std::uint8_t{5}, std::uint8_t{255}}) {
        tensor->ndim = ndim;
        zx_clear_error();
        EXPECT_EQ(zx_tensor_to_npy(tensor.get(), "t.npy"), ZX_ERR_INVALID_ARGUMENT);
        expect_recorded(ZX_ERR_INVALID_ARGUMENT, kModule, "Invalid tensor dimensions");
        EXPECT_EQ(file_content("t.npy"), "before");
    }
}

std::string file_of(const zx_tensor_t* tensor, const std::string& shape) {
    return head(shape) + FileBytes().floats(contents(tensor)).bytes();
}

ModelPtr small_model(bool biased = false) {
    RandomNumbers random(1);
    return random_model({3, 5, 4, biased}, random);
}

std::size_t files_in(const char* dir) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

TEST_F(ModelToNpyDir, WritesBothTablesAndNothingElse) {
    for (const bool biased : {false, true}) {
        const ModelPtr model = small_model(biased);
        ASSERT_NE(model, nullptr);
        plant_record();
        EXPECT_EQ(closing_files([&] { return zx_model_to_npy_dir(model.get(), "out"); }), ZX_OK);
        expect_untouched();
        EXPECT_EQ(files_in("out"), 2u);
        EXPECT_TRUE(file_content(kUsers) == file_of(model->user_embeddings, "(3,4,)"));
        EXPECT_TRUE(file_content(kItems) == file_of(model->item_embeddings, "(5,4,)"));
    }
}

TEST_F(ModelToNpyDir, MakesADirectoryThatOthersMayRead) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    const mode_t mask = umask(0);
    EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_OK);
    umask(mask);
    struct stat made {};
    ASSERT_EQ(stat("out", &made), 0);
    EXPECT_EQ(made.st_mode, S_IFDIR | 0755u);
}

TEST_F(ModelToNpyDir, ReplacesFilesInADirectoryThatExists) {
    write_file(kUsers, std::string(5000, 'x'));
    write_file(kItems, std::string(5000, 'x'));
    write_file("out/other", "stays");
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_OK);
    EXPECT_TRUE(file_content(kUsers) == file_of(model->user_embeddings, "(3,4,)"));
    EXPECT_TRUE(file_content(kItems) == file_of(model->item_embeddings, "(5,4,)"));
    EXPECT_EQ(file_content("out/other"), "stays");
}

TEST_F(ModelToNpyDir, LeavesOutATableThatIsNotThere) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    const TensorPtr items(model->item_embeddings);
    model->item_embeddings = nullptr;
    EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_OK);
    EXPECT_EQ(files_in("out"), 1u);
    EXPECT_TRUE(std::filesystem::exists(kUsers));
    const TensorPtr users(model->user_embeddings);
    model->user_embeddings = nullptr;
    EXPECT_EQ(zx_model_to_npy_dir(model.get(), "none"), ZX_OK);
    EXPECT_EQ(files_in("none"), 0u);
}

TEST_F(ModelToNpyDir, SaysWhereItExportedTo) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    expect_says("[ZORVEX] Model exported to a%s (NumPy format)\n",
                [&] { return zx_model_to_npy_dir(model.get(), "a%s"); });
}

TEST_F(ModelToNpyDir, RefusesNullFirst) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    for (const bool has_model : {false, true}) {
        zx_clear_error();
        EXPECT_EQ(
            zx_model_to_npy_dir(has_model ? model.get() : nullptr, has_model ? nullptr : "out"),
            ZX_ERR_NULL_POINTER);
        expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL model or path");
    }
    EXPECT_FALSE(std::filesystem::exists("out"));
    model->type = ZX_MODEL_MF;
}

TEST_F(ModelToNpyDir, RefusesADirectoryItCannotMake) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;  // looked at later
    write_file("file", "");
    for (const std::string& dir : {std::string("no-such-folder/out"), std::string("file/out"),
                                   std::string(), std::string(5000, 'd')}) {
        SCOPED_TRACE(dir);
        zx_clear_error();
        EXPECT_EQ(zx_model_to_npy_dir(model.get(), dir.c_str()), ZX_ERR_FILE_OPEN);
        expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to create directory");
    }
    model->type = ZX_MODEL_MF;
}

TEST_F(ModelToNpyDir, LeavesAnEmptyDirectoryOfAnotherKindOfModel) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    zx_set_verbosity(2);
    const Console console = console_of(
        [&] { EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_ERR_MODEL_TYPE_MISMATCH); });
    EXPECT_EQ(console.out, "");
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, kModule, "Unknown model type");
    EXPECT_EQ(files_in("out"), 0u);
    model->type = ZX_MODEL_MF;
}

// Whatever exists is taken for a directory, and then proves to be none.
TEST_F(ModelToNpyDir, FindsOutThatAFileIsNoDirectory) {
    write_file("out", "a file");
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_ERR_FILE_OPEN);
    expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
    EXPECT_EQ(file_content("out"), "a file");
}

TEST_F(ModelToNpyDir, StopsAtTheFirstFileThatFails) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    zx_set_verbosity(2);
    std::filesystem::create_directories(kUsers);  // a folder of that name
    Console console =
        console_of([&] { EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_ERR_FILE_OPEN); });
    EXPECT_EQ(console.out, "");
    expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
    EXPECT_FALSE(std::filesystem::exists(kItems));

    std::filesystem::remove_all("out");
    std::filesystem::create_directories(kItems);
    console =
        console_of([&] { EXPECT_EQ(zx_model_to_npy_dir(model.get(), "out"), ZX_ERR_FILE_OPEN); });
    EXPECT_EQ(console.out, "");
    EXPECT_TRUE(file_content(kUsers) == file_of(model->user_embeddings, "(3,4,)"));
}

// A path of 511 characters fits, and a longer one loses its end.
TEST_F(ModelToNpyDir, CutsPathsTo511Characters) {
    const ModelPtr model = small_model();
    ASSERT_NE(model, nullptr);
    const std::string tail = "/user_embeddings.npy";
    for (const std::size_t missing : {0u, 1u, 4u}) {
        SCOPED_TRACE(missing);
        std::string dir = std::string(200, 'a') + "/" + std::string(200, 'b') + "/";
        dir += std::string(511 + missing - tail.size() - dir.size(), 'c');
        std::filesystem::create_directories(dir);
        ASSERT_EQ(zx_model_to_npy_dir(model.get(), dir.c_str()), ZX_OK);
        EXPECT_EQ(files_in(dir.c_str()), 2u);
        const auto cut = [&](const std::string& name) { return (dir + name).substr(0, 511); };
        EXPECT_TRUE(file_content(cut(tail)) == file_of(model->user_embeddings, "(3,4,)"));
        EXPECT_TRUE(file_content(cut("/item_embeddings.npy")) ==
                    file_of(model->item_embeddings, "(5,4,)"));
    }
    // Both names cut to nothing but the slash: a folder cannot be written to.
    std::string dir = std::string(200, 'a') + "/" + std::string(200, 'b') + "/";
    dir += std::string(510 - dir.size(), 'c');
    std::filesystem::create_directories(dir);
    EXPECT_EQ(zx_model_to_npy_dir(model.get(), dir.c_str()), ZX_ERR_FILE_OPEN);
    expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
}

}  // namespace
}  // namespace zx::test
