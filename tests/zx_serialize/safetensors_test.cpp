// safetensors export: the bytes of the file, lists with gaps, and every refusal.

#include "failing_allocator.hpp"
#include "file_fixture.hpp"
#include "float_bits.hpp"

#include <string>
#include <vector>

namespace zx::test {
namespace {

class TensorsToSafetensors : public FileTest {};
class ModelToSafetensors : public FileTest {};

constexpr const char* kPath = "t.safetensors";
constexpr std::uint32_t kMost = 0xffffffff;

zx_status_t write_list(const std::vector<zx_tensor_t*>& tensors,
                       const std::vector<const char*>& names) {
    return closing_files([&] {
        return zx_tensors_to_safetensors(tensors.data(), names.data(),
                                         static_cast<std::uint32_t>(tensors.size()), kPath);
    });
}

// Length and header as they stand in front of the data; the padding is part of the text.
std::string with_length(const std::string& header) {
    return FileBytes().u64(header.size()).bytes() + header;
}

std::string floats_of(const zx_tensor_t* tensor) {
    return FileBytes().floats(contents(tensor)).bytes();
}

TEST_F(TensorsToSafetensors, WritesTheExample) {
    const TensorPtr users = counted_tensor({2, 3}, 1.0f);
    const TensorPtr items = counted_tensor({4, 3}, -100.0f);
    ASSERT_TRUE(users && items);
    plant_record();
    EXPECT_EQ(write_list({users.get(), items.get()}, {"user_embeddings", "item_embeddings"}),
              ZX_OK);
    expect_untouched();
    // 142 characters and two spaces: 144, or 0x90.
    const std::string header =
        R"({"user_embeddings":{"dtype":"F32","shape":[2,3],"data_offsets":[0,24]},)"
        R"("item_embeddings":{"dtype":"F32","shape":[4,3],"data_offsets":[24,72]}})";
    const std::string written = file_content(kPath);
    EXPECT_EQ(header.size(), 142u);
    EXPECT_TRUE(written == std::string("\x90\0\0\0\0\0\0\0", 8) + header + "  " +
                               floats_of(users.get()) + floats_of(items.get()));
    EXPECT_EQ(written.size(), 8u + 144u + 72u);
}

TEST_F(TensorsToSafetensors, WritesLittleEndianFloats) {
    const TensorPtr tensor(zx_tensor_create_1d(3));
    ASSERT_NE(tensor, nullptr);
    fill(tensor.get(), {1.0f, -2.0f, kInfinity});
    ASSERT_EQ(write_list({tensor.get()}, {"t"}), ZX_OK);
    const std::string header = R"({"t":{"dtype":"F32","shape":[3],"data_offsets":[0,12]}})";
    ASSERT_EQ(header.size(), 55u);
    EXPECT_TRUE(file_content(kPath) ==
                std::string("\x38\0\0\0\0\0\0\0", 8) + header + " " +
                    std::string("\x00\x00\x80\x3f\x00\x00\x00\xc0\x00\x00\x80\x7f", 12));
}

// Names of eight lengths in a row: the header ends at the next multiple of 8, and no further.
TEST_F(TensorsToSafetensors, PadsTheHeaderToMultiplesOf8) {
    const TensorPtr tensor = counted_tensor({3});
    ASSERT_NE(tensor, nullptr);
    const std::size_t spaces[] = {2, 1, 0, 7, 6, 5, 4, 3, 2};
    for (std::size_t length = 0; length < 9; ++length) {
        SCOPED_TRACE(length);
        const std::string name(length, 'n');
        ASSERT_EQ(write_list({tensor.get()}, {name.c_str()}), ZX_OK);
        const std::string header =
            "{\"" + name + R"(":{"dtype":"F32","shape":[3],"data_offsets":[0,12]}})";
        EXPECT_EQ((header.size() + spaces[length]) % 8, 0u);
        EXPECT_TRUE(file_content(kPath) == with_length(header + std::string(spaces[length], ' ')) +
                                               floats_of(tensor.get()));
    }
}

TEST_F(TensorsToSafetensors, WritesEveryRank) {
    const struct {
        Extents dims;
        std::string header;
    } cases[] = {
        {{5}, R"({"t":{"dtype":"F32","shape":[5],"data_offsets":[0,20]}} )"},
        {{3, 4}, R"({"t":{"dtype":"F32","shape":[3,4],"data_offsets":[0,48]}}       )"},
        {{2, 3, 4}, R"({"t":{"dtype":"F32","shape":[2,3,4],"data_offsets":[0,96]}}     )"},
        {{2, 1, 3, 2}, R"({"t":{"dtype":"F32","shape":[2,1,3,2],"data_offsets":[0,48]}}   )"},
        {{1000, 300},
         R"({"t":{"dtype":"F32","shape":[1000,300],"data_offsets":[0,1200000]}})"
         "     "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header);
        ASSERT_EQ(c.header.size() % 8, 0u);
        const TensorPtr tensor = counted_tensor(c.dims);
        ASSERT_NE(tensor, nullptr);
        ASSERT_EQ(write_list({tensor.get()}, {"t"}), ZX_OK);
        EXPECT_TRUE(file_content(kPath) == with_length(c.header) + floats_of(tensor.get()));
    }
}

// More bytes than 32 bits count, without the memory: elements that nobody holds are not written.
TEST_F(TensorsToSafetensors, WritesOffsetsBeyond32Bits) {
    float one = 1.0f;
    const std::uint32_t dims[4] = {65535, 65537, 1, 2};
    const TensorPtr tensor(zx_tensor_wrap(&one, 4, dims));
    ASSERT_NE(tensor, nullptr);
    tensor->data = nullptr;
    ASSERT_EQ(write_list({tensor.get(), tensor.get()}, {"a", "b"}), ZX_OK);
    const std::string header =
        R"({"a":{"dtype":"F32","shape":[65535,65537,1,2],"data_offsets":[0,34359738360]},)"
        R"("b":{"dtype":"F32","shape":[65535,65537,1,2],)"
        R"("data_offsets":[34359738360,68719476720]}})";
    EXPECT_EQ(
        file_content(kPath),
        with_length(header + std::string(header.size() % 8 == 0 ? 0 : 8 - header.size() % 8, ' ')));
}

TEST_F(TensorsToSafetensors, WritesExtentsOfAnyLength) {
    const TensorPtr huge = wrapped_tensor({kMost, kMost, kMost, kMost});
    const TensorPtr without_axes = counted_tensor({1}, 2.0f);
    ASSERT_TRUE(huge && without_axes);
    without_axes->ndim = 0;
    ASSERT_EQ(write_list({huge.get(), without_axes.get()}, {"h", "s"}), ZX_OK);
    const std::string header =
        R"({"h":{"dtype":"F32","shape":[4294967295,4294967295,4294967295,4294967295],)"
        R"("data_offsets":[0,0]},"s":{"dtype":"F32","shape":[],"data_offsets":[0,4]}})";
    EXPECT_TRUE(file_content(kPath) ==
                with_length(header + std::string((8 - header.size() % 8) % 8, ' ')) +
                    FileBytes().floats({2.0f}).bytes());
}

// A gap takes no room in the data, and the comma goes by the place in the list.
TEST_F(TensorsToSafetensors, SkipsEntriesWithoutATensor) {
    const TensorPtr a = counted_tensor({2}, 1.0f);
    const TensorPtr b = counted_tensor({3}, 5.0f);
    ASSERT_TRUE(a && b);
    ASSERT_EQ(write_list({a.get(), nullptr, b.get()}, {"a", nullptr, "b"}), ZX_OK);
    EXPECT_TRUE(file_content(kPath) ==
                with_length(R"({"a":{"dtype":"F32","shape":[2],"data_offsets":[0,8]},)"
                            R"("b":{"dtype":"F32","shape":[3],"data_offsets":[8,20]}}    )") +
                    floats_of(a.get()) + floats_of(b.get()));
    ASSERT_EQ(write_list({nullptr, a.get()}, {"none", "a"}), ZX_OK);
    EXPECT_TRUE(file_content(kPath) ==
                with_length(R"({,"a":{"dtype":"F32","shape":[2],"data_offsets":[0,8]}} )") +
                    floats_of(a.get()));
    ASSERT_EQ(write_list({nullptr, nullptr}, {"a", "b"}), ZX_OK);
    EXPECT_TRUE(file_content(kPath) == with_length("{}      "));
}

// It is announced, and the data behind it shift.
TEST_F(TensorsToSafetensors, WritesNoDataWhereNobodyHoldsAny) {
    const TensorPtr without = wrapped_tensor({2});
    const TensorPtr with = counted_tensor({1}, 5.0f);
    ASSERT_TRUE(without && with);
    without->data = nullptr;
    ASSERT_EQ(write_list({without.get(), with.get()}, {"a", "b"}), ZX_OK);
    EXPECT_TRUE(file_content(kPath) ==
                with_length(R"({"a":{"dtype":"F32","shape":[2],"data_offsets":[0,8]},)"
                            R"("b":{"dtype":"F32","shape":[1],"data_offsets":[8,12]}}    )") +
                    FileBytes().floats({5.0f}).bytes());
}

// Neither a name nor a header has a longest length.
TEST_F(TensorsToSafetensors, WritesAnyNumberOfTensorsAndNamesOfAnyLength) {
    const TensorPtr tensor = counted_tensor({1}, 5.0f);
    ASSERT_NE(tensor, nullptr);
    const std::string sizes[] = {std::string(440, 'n'), std::string(512, 'n'),
                                 std::string(9000, 'n'), std::string(1000000, 'n')};
    for (const std::string& name : sizes) {
        SCOPED_TRACE(name.size());
        ASSERT_EQ(write_list({tensor.get()}, {name.c_str()}), ZX_OK);
        const std::string header =
            "{\"" + name + R"(":{"dtype":"F32","shape":[1],"data_offsets":[0,4]}})";
        EXPECT_TRUE(file_content(kPath) ==
                    with_length(header + std::string((8 - header.size() % 8) % 8, ' ')) +
                        floats_of(tensor.get()));
    }

    const std::uint32_t count = 5000;
    std::vector<std::string> names;
    for (std::uint32_t i = 0; i < count; ++i) names.push_back("tensor " + std::to_string(i));
    std::vector<const char*> name_texts;
    std::string header = "{";
    std::string data;
    for (std::uint32_t i = 0; i < count; ++i) {
        name_texts.push_back(names[i].c_str());
        header += (i == 0 ? "\"" : ",\"") + names[i] +
                  R"(":{"dtype":"F32","shape":[1],"data_offsets":[)" + std::to_string(4 * i) + "," +
                  std::to_string(4 * i + 4) + "]}";
        data += floats_of(tensor.get());
    }
    header += "}";
    header += std::string((8 - header.size() % 8) % 8, ' ');
    ASSERT_EQ(write_list(std::vector<zx_tensor_t*>(count, tensor.get()), name_texts), ZX_OK);
    EXPECT_TRUE(file_content(kPath) == with_length(header) + data);
}

TEST_F(TensorsToSafetensors, WritesNamesAsTheyStand) {
    const TensorPtr tensor = counted_tensor({1}, 5.0f);
    ASSERT_NE(tensor, nullptr);
    ASSERT_EQ(write_list({tensor.get()}, {"a\"%s\\\xc3\xa9"}), ZX_OK);
    EXPECT_TRUE(
        file_content(kPath) ==
        with_length("{\"a\"%s\\\xc3\xa9\":{\"dtype\":\"F32\",\"shape\":[1],\"data_offsets\":[0,4]}}"
                    "    ") +
            floats_of(tensor.get()));
}

TEST_F(TensorsToSafetensors, RefusesNullsAndEmptyLists) {
    const TensorPtr tensor = counted_tensor({1});
    ASSERT_NE(tensor, nullptr);
    zx_tensor_t* const tensors[] = {tensor.get(), tensor.get()};
    const char* const names[] = {"a", "b"};
    const char* const half_named[] = {"a", nullptr};
    const struct {
        const char* when;
        zx_tensor_t* const* tensors;
        const char* const* names;
        std::uint32_t count;
        const char* path;
    } cases[] = {
        {"no tensors", nullptr, names, 1, kPath},   {"no names", tensors, nullptr, 1, kPath},
        {"no path", tensors, names, 1, nullptr},    {"an empty list", tensors, names, 0, kPath},
        {"no name", tensors, half_named, 2, kPath},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        zx_clear_error();
        EXPECT_EQ(zx_tensors_to_safetensors(c.tensors, c.names, c.count, c.path),
                  ZX_ERR_NULL_POINTER);
        expect_recorded(ZX_ERR_NULL_POINTER, kModule, "Invalid arguments");
        EXPECT_FALSE(std::filesystem::exists(kPath));
    }
}

TEST_F(TensorsToSafetensors, RefusesMoreAxesThanExtents) {
    const TensorPtr good = counted_tensor({1});
    const TensorPtr bad = counted_tensor({1, 1, 1, 1});
    ASSERT_TRUE(good && bad);
    write_file(kPath, "before");
    for (const std::uint8_t ndim : {std::uint8_t{5}, std::uint8_t{255}}) {
        bad->ndim = ndim;
        zx_clear_error();
        EXPECT_EQ(write_list({good.get(), bad.get()}, {"good", "bad"}), ZX_ERR_INVALID_ARGUMENT);
        expect_recorded(ZX_ERR_INVALID_ARGUMENT, kModule, "Invalid tensor dimensions");
        EXPECT_EQ(file_content(kPath), "before");
    }
}

TEST_F(TensorsToSafetensors, ReportsShortMemory) {
    const TensorPtr tensor = counted_tensor({1});
    ASSERT_NE(tensor, nullptr);
    zx_clear_error();
    {
        const FailingAllocator allocator(1);
        EXPECT_EQ(write_list({tensor.get()}, {"t"}), ZX_ERR_OUT_OF_MEMORY);
    }
    expect_recorded(ZX_ERR_OUT_OF_MEMORY, kModule, "Failed to allocate header");
    EXPECT_EQ(file_content(kPath), "");
    const FailingAllocator allocator(2);
    EXPECT_EQ(write_list({tensor.get()}, {"t"}), ZX_OK);
    EXPECT_EQ(allocator.requests(), 1u) << "the header";
}

ModelPtr small_model(bool biased) {
    RandomNumbers random(1);
    return random_model({2, 4, 3, biased}, random);
}

TEST_F(ModelToSafetensors, WritesTheTablesOfAModelWithoutBiases) {
    const ModelPtr model = small_model(false);
    ASSERT_NE(model, nullptr);
    plant_record();
    EXPECT_EQ(zx_model_to_safetensors(model.get(), kPath), ZX_OK);
    expect_untouched();
    EXPECT_TRUE(
        file_content(kPath) ==
        with_length(
            R"({"user_embeddings":{"dtype":"F32","shape":[2,3],"data_offsets":[0,24]},)"
            R"("item_embeddings":{"dtype":"F32","shape":[4,3],"data_offsets":[24,72]}}  )") +
            floats_of(model->user_embeddings) + floats_of(model->item_embeddings));
}

TEST_F(ModelToSafetensors, WritesBiasesButNotTheGlobalOne) {
    const ModelPtr model = small_model(true);
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(zx_model_to_safetensors(model.get(), kPath), ZX_OK);
    EXPECT_TRUE(
        file_content(kPath) ==
        with_length(R"({"user_embeddings":{"dtype":"F32","shape":[2,3],"data_offsets":[0,24]},)"
                    R"("item_embeddings":{"dtype":"F32","shape":[4,3],"data_offsets":[24,72]},)"
                    R"("user_biases":{"dtype":"F32","shape":[2],"data_offsets":[72,80]},)"
                    R"("item_biases":{"dtype":"F32","shape":[4],"data_offsets":[80,96]}})") +
            floats_of(model->user_embeddings) + floats_of(model->item_embeddings) +
            floats_of(model->user_biases) + floats_of(model->item_biases));
}

// The list is made of the tensors that are there, so that it has no gaps and no stray commas.
TEST_F(ModelToSafetensors, LeavesOutTensorsThatAreNotThere) {
    const ModelPtr model = small_model(true);
    ASSERT_NE(model, nullptr);
    const TensorPtr users(model->user_embeddings);
    const TensorPtr user_biases(model->user_biases);
    model->user_embeddings = model->user_biases = nullptr;
    ASSERT_EQ(zx_model_to_safetensors(model.get(), kPath), ZX_OK);
    EXPECT_TRUE(
        file_content(kPath) ==
        with_length(R"({"item_embeddings":{"dtype":"F32","shape":[4,3],"data_offsets":[0,48]},)"
                    R"("item_biases":{"dtype":"F32","shape":[4],"data_offsets":[48,64]}})") +
            floats_of(model->item_embeddings) + floats_of(model->item_biases));
}

TEST_F(ModelToSafetensors, RefusesAModelWithoutAnyTensor) {
    const ModelPtr model = small_model(false);
    ASSERT_NE(model, nullptr);
    const TensorPtr users(model->user_embeddings);
    const TensorPtr items(model->item_embeddings);
    model->user_embeddings = model->item_embeddings = nullptr;
    zx_set_verbosity(2);
    zx_clear_error();
    const Console console = console_of(
        [&] { EXPECT_EQ(zx_model_to_safetensors(model.get(), kPath), ZX_ERR_NULL_POINTER); });
    expect_recorded(ZX_ERR_NULL_POINTER, kModule, "Invalid arguments");
    EXPECT_EQ(console.out, "");
    EXPECT_FALSE(std::filesystem::exists(kPath));
}

TEST_F(ModelToSafetensors, SaysWhereItExportedTo) {
    const ModelPtr model = small_model(true);
    ASSERT_NE(model, nullptr);
    expect_says("[ZORVEX] Model exported to a%s (safetensors format)\n",
                [&] { return zx_model_to_safetensors(model.get(), "a%s"); });
}

TEST_F(ModelToSafetensors, RefusesNullFirstAndOtherModelsBeforeItOpensAFile) {
    const ModelPtr model = small_model(true);
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    for (const bool has_model : {false, true}) {
        zx_clear_error();
        EXPECT_EQ(
            zx_model_to_safetensors(has_model ? model.get() : nullptr, has_model ? nullptr : kPath),
            ZX_ERR_NULL_POINTER);
        expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL model or path");
    }
    for (const char* path : {kPath, "no-such-folder/out"}) {
        zx_clear_error();
        EXPECT_EQ(zx_model_to_safetensors(model.get(), path), ZX_ERR_MODEL_TYPE_MISMATCH);
        expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, kModule, "Unknown model type");
    }
    EXPECT_FALSE(std::filesystem::exists(kPath));
    model->type = ZX_MODEL_MF;
}

// A failure is handed on, and nothing is said to be exported.
TEST_F(ModelToSafetensors, SaysNothingOfAFailure) {
    const ModelPtr model = small_model(true);
    ASSERT_NE(model, nullptr);
    zx_set_verbosity(2);
    const Console console = console_of([&] {
        EXPECT_EQ(zx_model_to_safetensors(model.get(), "no-such-folder/out"), ZX_ERR_FILE_OPEN);
    });
    EXPECT_EQ(console.out, "");
    expect_recorded(ZX_ERR_FILE_OPEN, kModule, "Failed to open file");
}

}  // namespace
}  // namespace zx::test
