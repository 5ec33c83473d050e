// Saving a model: the file's bytes, the line that is printed, and every failure.

#include "capture.hpp"
#include "error_record.hpp"
#include "model_file_bytes.hpp"
#include "model_records.hpp"
#include "temp_folder.hpp"

#include <cstring>
#include <string>
#include <vector>

namespace zx::test {
namespace {

class ModelSave : public testing::Test {
  protected:
    void SetUp() override { zx_set_verbosity(0); }
    void TearDown() override { zx_set_verbosity(-1); }

    TempFolder folder_;
};

std::vector<float> counted(std::size_t count, float first) {
    std::vector<float> values(count);
    for (std::size_t i = 0; i < count; ++i) values[i] = first + static_cast<float>(i) / 8.0f;
    return values;
}

ModelPtr counted_model(const Shape& shape) {
    ModelPtr model(zx_model_mf_create(shape.users, shape.items, shape.dim, shape.biased));
    if (!model) return model;
    fill(model->user_embeddings, counted(model->user_embeddings->size, 1.0f));
    fill(model->item_embeddings, counted(model->item_embeddings->size, -100.0f));
    if (shape.biased) {
        fill(model->user_biases, counted(shape.users, 1000.0f));
        fill(model->item_biases, counted(shape.items, -1000.0f));
        model->global_bias = 7.0f;
    }
    return model;
}

// 3 users, 5 items, dimension 4: user data 48 bytes at 768, item data 80 bytes at 832.
std::string example_without_biases() {
    FileBytes file;
    add_header(file, 2, 768, 960);
    add_descriptor(file, "mf.user_embeddings", 2, 3, 4, 768, 48);
    add_descriptor(file, "mf.item_embeddings", 2, 5, 4, 832, 80);
    file.zeros_up_to(768).floats(counted(12, 1.0f));
    file.zeros_up_to(832).floats(counted(20, -100.0f));
    return file.zeros_up_to(960).bytes();
}

TEST_F(ModelSave, WritesTheExampleWithoutBiases) {
    const ModelPtr model = counted_model({3, 5, 4, false});
    ASSERT_NE(model, nullptr);
    plant_record();
    EXPECT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    expect_untouched();
    const std::string written = file_content("model.zxm");
    EXPECT_EQ(written.size(), 960u);
    EXPECT_TRUE(written == example_without_biases());
}

// A few of the bytes, one by one, as they stand in the file.
TEST_F(ModelSave, WritesLittleEndianIntegersAndFloats) {
    const ModelPtr model = counted_model({3, 5, 4, false});
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    const std::string written = file_content("model.zxm");
    const struct {
        const char* what;
        std::size_t offset;
        std::string bytes;
    } cases[] = {
        {"magic", 0, {0x5a, 0x58, 0x51, 0x4d}},
        {"version", 4, {1, 0, 0, 0}},
        {"model type", 8, {0, 0, 0, 0}},
        {"number of tensors", 12, {2, 0, 0, 0}},
        {"data offset, 0x300", 16, {0, 3, 0, 0, 0, 0, 0, 0}},
        {"file size, 0x3c0", 24, {static_cast<char>(0xc0), 3, 0, 0, 0, 0, 0, 0}},
        {"model name", 32, std::string("MatrixFactorization\0", 20)},
        {"first name", 152, std::string("mf.user_embeddings\0", 19)},
        {"first number of axes", 408, {2, 0, 0, 0}},
        {"first extents", 412, {3, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}},
        {"first padding", 428, {0, 0, 0, 0}},
        {"first offset", 432, {0, 3, 0, 0, 0, 0, 0, 0}},
        {"first size", 440, {48, 0, 0, 0, 0, 0, 0, 0}},
        {"second name", 456, std::string("mf.item_embeddings\0", 19)},
        {"second offset, 0x340", 736, {0x40, 3, 0, 0, 0, 0, 0, 0}},
        {"second size", 744, {80, 0, 0, 0, 0, 0, 0, 0}},
        {"first number, 1", 768, {0, 0, static_cast<char>(0x80), 0x3f}},
        {"second number, 1.125", 772, {0, 0, static_cast<char>(0x90), 0x3f}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_GE(written.size(), c.offset + c.bytes.size());
        EXPECT_TRUE(written.substr(c.offset, c.bytes.size()) == c.bytes);
    }
}

TEST_F(ModelSave, WritesBiasesButNotTheGlobalOne) {
    const ModelPtr model = counted_model({3, 5, 4, true});
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    FileBytes file;
    add_header(file, 4, 1408, 1728);
    add_descriptor(file, "mf.user_embeddings", 2, 3, 4, 1408, 48);
    add_descriptor(file, "mf.item_embeddings", 2, 5, 4, 1472, 80);
    add_descriptor(file, "mf.user_biases", 1, 3, 1, 1600, 12);
    add_descriptor(file, "mf.item_biases", 1, 5, 1, 1664, 20);
    file.zeros_up_to(1408).floats(counted(12, 1.0f));
    file.zeros_up_to(1472).floats(counted(20, -100.0f));
    file.zeros_up_to(1600).floats(counted(3, 1000.0f));
    file.zeros_up_to(1664).floats(counted(5, -1000.0f));
    file.zeros_up_to(1728);
    const std::string written = file_content("model.zxm");
    EXPECT_EQ(written.size(), 1728u);
    EXPECT_TRUE(written == file.bytes());
}

// 16 floats are 64 bytes and need no padding, 17 need 60 bytes of it.
TEST_F(ModelSave, PadsDataToMultiplesOf64) {
    const struct {
        Shape shape;
        std::size_t items_at, file_size;
    } cases[] = {
        {{4, 4, 4, false}, 832, 896},
        {{17, 1, 1, false}, 896, 960},
        {{1, 1, 1, false}, 832, 896},
        {{1, 33, 1, false}, 832, 1024},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.shape.users << " users, " << c.shape.items);
        const ModelPtr model = counted_model(c.shape);
        ASSERT_NE(model, nullptr);
        ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
        const std::uint64_t user_bytes = 4ull * c.shape.users * c.shape.dim;
        const std::uint64_t item_bytes = 4ull * c.shape.items * c.shape.dim;
        FileBytes file;
        add_header(file, 2, 768, c.file_size);
        add_descriptor(file, "mf.user_embeddings", 2, c.shape.users, c.shape.dim, 768, user_bytes);
        add_descriptor(file, "mf.item_embeddings", 2, c.shape.items, c.shape.dim, c.items_at,
                       item_bytes);
        file.zeros_up_to(768).floats(contents(model->user_embeddings));
        file.zeros_up_to(c.items_at).floats(contents(model->item_embeddings));
        file.zeros_up_to(c.file_size);
        EXPECT_TRUE(file_content("model.zxm") == file.bytes());
    }
}

TEST_F(ModelSave, WritesTheModelsName) {
    const std::string sixty_three(63, 'n');
    const std::string seventy(70, 'n');
    const struct {
        const char* when;
        const char* name;
        std::string written;
    } cases[] = {
        {"no name", nullptr, ""},
        {"an empty name", "", ""},
        {"the longest name that fits", sixty_three.c_str(), sixty_three},
        {"a longer name", seventy.c_str(), sixty_three},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = counted_model({3, 5, 4, false});
        ASSERT_NE(model, nullptr);
        model->name = c.name;
        ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
        const std::string expected = FileBytes().text(c.written, 64).bytes();
        EXPECT_TRUE(file_content("model.zxm").substr(32, 64) == expected);
    }
}

TEST_F(ModelSave, WritesNumbersAsTheyStand) {
    const ModelPtr model(zx_model_mf_create(1, 1, 4, false));
    ASSERT_NE(model, nullptr);
    const std::vector<std::uint32_t> bits = {0x7fc01234, 0xff800000, 0x80000000, 0x00000001};
    for (std::size_t i = 0; i < 4; ++i)
        std::memcpy(&model->user_embeddings->data[i], &bits[i], sizeof(float));
    ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    FileBytes expected;
    for (const std::uint32_t word : bits) expected.u32(word);
    EXPECT_TRUE(file_content("model.zxm").substr(768, 16) == expected.bytes());
}

TEST_F(ModelSave, ReplacesALongerFile) {
    write_file("model.zxm", std::string(5000, 'x'));
    const ModelPtr model = counted_model({3, 5, 4, false});
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    EXPECT_TRUE(file_content("model.zxm") == example_without_biases());
}

TEST_F(ModelSave, SaysWhatItSaved) {
    const ModelPtr plain = counted_model({3, 5, 4, false});
    const ModelPtr biased = counted_model({3, 5, 4, true});
    ASSERT_TRUE(plain && biased);
    const std::string plain_line = "[ZORVEX] Model saved to a%s.zxm (0.94 KB, 2 tensors)\n";
    const struct {
        int verbosity;
        const zx_model_t* model;
        std::string out;
    } cases[] = {
        {-1, plain.get(), plain_line},
        {0, plain.get(), ""},
        {1, plain.get(), ""},
        {2, plain.get(), plain_line},
        {3, plain.get(), plain_line},
        {-7, plain.get(), plain_line},
        {2, biased.get(), "[ZORVEX] Model saved to a%s.zxm (1.69 KB, 4 tensors)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verbosity);
        zx_set_verbosity(c.verbosity);
        const Console console =
            console_of([&] { EXPECT_EQ(zx_model_save(c.model, "a%s.zxm"), ZX_OK); });
        EXPECT_EQ(console.out, c.out);
        EXPECT_EQ(console.err, "");
    }
}

TEST_F(ModelSave, RefusesNullFirst) {
    const ModelPtr model = counted_model({3, 5, 4, false});
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    for (const bool has_model : {false, true}) {
        zx_clear_error();
        EXPECT_EQ(
            zx_model_save(has_model ? model.get() : nullptr, has_model ? nullptr : "model.zxm"),
            ZX_ERR_NULL_POINTER);
        expect_recorded(ZX_ERR_NULL_POINTER, "src/zx_serialize", "NULL model or path");
    }
    EXPECT_FALSE(std::filesystem::exists("model.zxm"));
    model->type = ZX_MODEL_MF;
}

// The file is opened before the kind of model is looked at.
TEST_F(ModelSave, RefusesAFileItCannotOpen) {
    const ModelPtr model = counted_model({3, 5, 4, false});
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    for (const char* path : {"no-such-folder/model.zxm", ".", ""}) {
        SCOPED_TRACE(path);
        zx_clear_error();
        EXPECT_EQ(zx_model_save(model.get(), path), ZX_ERR_FILE_OPEN);
        expect_recorded(ZX_ERR_FILE_OPEN, "src/zx_serialize", "Failed to open file for writing");
    }
    model->type = ZX_MODEL_MF;
}

TEST_F(ModelSave, LeavesAnEmptyFileOfAnotherKindOfModel) {
    write_file("model.zxm", "what was there before");
    const ModelPtr model = counted_model({3, 5, 4, false});
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    zx_set_verbosity(2);
    const std::ptrdiff_t open_before = open_files();
    const Console console = console_of(
        [&] { EXPECT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_ERR_MODEL_TYPE_MISMATCH); });
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_serialize",
                    "Unsupported model type for serialization");
    EXPECT_EQ(console.out, "");
    ASSERT_TRUE(std::filesystem::exists("model.zxm"));
    EXPECT_EQ(std::filesystem::file_size("model.zxm"), 0u);
    EXPECT_EQ(open_files(), open_before);
    model->type = ZX_MODEL_MF;
}

// A device that is full takes no byte. Which of the writes meets it depends on buffering; none may
// be taken for a success, and nothing is said to be saved.
TEST_F(ModelSave, ReportsADiskThatIsFull) {
    for (const std::uint32_t users : {1u, 3u, 100000u}) {
        SCOPED_TRACE(users);
        const ModelPtr model = counted_model({users, 5, 4, true});
        ASSERT_NE(model, nullptr);
        zx_set_verbosity(2);
        zx_clear_error();
        const std::ptrdiff_t open_before = open_files();
        const Console console = console_of(
            [&] { EXPECT_EQ(zx_model_save(model.get(), "/dev/full"), ZX_ERR_FILE_WRITE); });
        EXPECT_EQ(console.out, "");
        EXPECT_EQ(open_files(), open_before);
        const zx_error_context_t* const record = zx_get_error_context();
        EXPECT_EQ(record->code, ZX_ERR_FILE_WRITE);
        EXPECT_STREQ(record->file, "src/zx_serialize");
        const std::string message = record->message;
        EXPECT_TRUE(message == "Failed to write header" ||
                    message == "Failed to write descriptors" ||
                    message == "Failed to write tensor data")
            << message;
    }
}

TEST_F(ModelSave, ClosesItsFile) {
    const ModelPtr model = counted_model({3, 5, 4, true});
    ASSERT_NE(model, nullptr);
    const std::ptrdiff_t open_before = open_files();
    ASSERT_EQ(zx_model_save(model.get(), "model.zxm"), ZX_OK);
    EXPECT_EQ(open_files(), open_before);
}

}  // namespace
}  // namespace zx::test
