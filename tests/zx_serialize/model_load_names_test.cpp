// The names in a model file: parts of them give the model its shape, whole ones its data.

#include "error_record.hpp"
#include "float_bits.hpp"
#include "load_fixture.hpp"
#include "model_records.hpp"

#include <string>
#include <vector>

namespace zx::test {
namespace {

using ModelLoadNames = ModelLoad;

struct Described {
    std::string name;
    std::uint32_t rows, cols;
    std::vector<float> data;
};

// A file with these tensors, in this order.
std::string file_of(const std::vector<Described>& tensors) {
    const std::size_t data_at = (kHeaderBytes + tensors.size() * kDescriptorBytes + 63) / 64 * 64;
    FileBytes file;
    add_header(file, static_cast<std::uint32_t>(tensors.size()), data_at, 0);
    std::uint64_t offset = data_at;
    for (const Described& tensor : tensors) {
        add_descriptor(file, tensor.name, 2, tensor.rows, tensor.cols, offset,
                       4 * tensor.data.size());
        offset += (4 * tensor.data.size() + 63) / 64 * 64;
    }
    file.zeros_up_to(data_at);
    for (const Described& tensor : tensors) {
        file.floats(tensor.data);
        file.zeros((64 - file.bytes().size() % 64) % 64);
    }
    return file.bytes();
}

const Described kUsers = {"mf.user_embeddings", 2, 2, {1, 2, 3, 4}};
const Described kItems = {"mf.item_embeddings", 1, 2, {5, 6}};

TEST_F(ModelLoadNames, TakeTheirTensorsInAnyOrder) {
    const Described user_biases = {"mf.user_biases", 2, 1, {7, 8}};
    const Described item_biases = {"mf.item_biases", 1, 1, {9}};
    const ModelPtr model = load(file_of({item_biases, kItems, user_biases, kUsers}));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->use_bias, 1);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {1, 2, 3, 4}));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {5, 6}));
    EXPECT_TRUE(same_numbers(contents(model->user_biases), {7, 8}));
    EXPECT_TRUE(same_numbers(contents(model->item_biases), {9}));
}

TEST_F(ModelLoadNames, GiveShapeByTheirPartsAndDataAsAWhole) {
    zx_rng_seed(1);
    const ModelPtr drawn(zx_model_mf_create(2, 1, 2, false));
    ASSERT_NE(drawn, nullptr);
    const struct {
        const char* when;
        std::string users, items;
    } cases[] = {
        {"without the prefix", "user_embeddings", "item_embeddings"},
        {"with another prefix", "als.user_embeddings", "als.item_embeddings"},
        {"with an ending", "mf.user_embeddings.weight", "mf.item_embeddings2"},
        {"with a space", "mf.user_embeddings ", " mf.item_embeddings"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        zx_rng_seed(1);
        plant_record();
        const ModelPtr model =
            load(file_of({{c.users, 2, 2, {1, 2, 3, 4}}, {c.items, 1, 2, {5, 6}}}));
        ASSERT_NE(model, nullptr);
        expect_untouched();
        EXPECT_TRUE(
            same_numbers(contents(model->user_embeddings), contents(drawn->user_embeddings)));
        EXPECT_TRUE(
            same_numbers(contents(model->item_embeddings), contents(drawn->item_embeddings)));
    }
}

TEST_F(ModelLoadNames, AreCaseSensitive) {
    EXPECT_EQ(load(file_of({{"mf.User_Embeddings", 2, 2, {1, 2, 3, 4}}, kItems})), nullptr);
    expect_recorded(ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
}

TEST_F(ModelLoadNames, AreOverriddenByLaterOnes) {
    const ModelPtr model = load(file_of({{"old user_embeddings", 9, 7, {}},
                                         {"old item_embeddings", 8, 5, {}},
                                         kUsers,
                                         kItems,
                                         {"user_embeddings", 2, 2, {}}}));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->num_users, 2u);
    EXPECT_EQ(model->num_items, 1u);
    EXPECT_EQ(model->embedding_dim, 2u);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {1, 2, 3, 4}));
    const ModelPtr later = load(file_of({kUsers, kItems, {"user_embeddings", 3, 2, {}}}));
    ASSERT_NE(later, nullptr);
    EXPECT_EQ(later->num_users, 3u);
    EXPECT_TRUE(same_numbers(later->user_embeddings->data, kUsers.data.data(), 4));
}

TEST_F(ModelLoadNames, ReadEachOfTwoTensorsWithOneName) {
    const ModelPtr model = load(file_of({kUsers, kItems, {"mf.user_embeddings", 2, 2, {10, 20}}}));
    ASSERT_NE(model, nullptr);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {10, 20, 3, 4}));
}

TEST_F(ModelLoadNames, CanHoldBothParts) {
    const ModelPtr model =
        load(file_of({{"user_embeddings and item_embeddings with biases", 4, 3, {}}}));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->num_users, 4u);
    EXPECT_EQ(model->num_items, 4u);
    EXPECT_EQ(model->embedding_dim, 3u);
    EXPECT_EQ(model->use_bias, 1);
    EXPECT_TRUE(same_numbers(contents(model->user_biases), {0, 0, 0, 0}));
}

TEST_F(ModelLoadNames, TurnBiasesOn) {
    for (const char* const name : {"mf.user_biases", "mf.item_biases", "biases", "no biases!"}) {
        SCOPED_TRACE(name);
        const ModelPtr model = load(file_of({kUsers, kItems, {name, 1, 1, {}}}));
        ASSERT_NE(model, nullptr);
        EXPECT_EQ(model->use_bias, 1);
        EXPECT_TRUE(same_numbers(contents(model->user_biases), {0, 0}));
        EXPECT_TRUE(same_numbers(contents(model->item_biases), {0}));
    }
}

TEST_F(ModelLoadNames, ThatAreUnknownAreSkippedWhateverTheyDescribe) {
    FileBytes file;
    add_header(file, 3, 1088, 0);
    add_descriptor(file, "attention", 9, 0xffffffffu, 0xffffffffu, ~std::uint64_t{0},
                   ~std::uint64_t{0});
    add_descriptor(file, "mf.user_embeddings", 2, 2, 2, 1088, 16);
    add_descriptor(file, "mf.item_embeddings", 2, 1, 2, 1152, 8);
    file.zeros_up_to(1088).floats(kUsers.data).zeros_up_to(1152).floats(kItems.data);
    const ModelPtr model = load(file.bytes());
    ASSERT_NE(model, nullptr);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), kUsers.data));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), kItems.data));
}

TEST_F(ModelLoadNames, EndAtTheirTerminator) {
    std::string users = "mf.user_embeddings";
    users.push_back('\0');
    users += "item_embeddings biases";
    // What follows the terminator neither spoils the whole name nor counts as a part.
    const ModelPtr model = load(file_of({kItems, {users, 2, 2, {1, 2, 3, 4}}}));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->num_items, 1u);
    EXPECT_EQ(model->use_bias, 0);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {1, 2, 3, 4}));
}

TEST_F(ModelLoadNames, EndWithTheirFieldWithoutATerminator) {
    // All 256 bytes of the name, the part at their very end.
    std::string users(256, 'x');
    const std::string part = "user_embeddings";
    users.replace(256 - part.size(), part.size(), part);
    const ModelPtr model = load(file_of({{users, 2, 2, {}}, kItems}));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->num_users, 2u);

    // The part is only whole together with the bytes of the fields that follow.
    std::string begun(256, 'x');
    begun.replace(246, 10, "user_embed");
    FileBytes file;
    add_header(file, 2, 768, 0);
    add_descriptor(file, begun, 0x676e6964, 0x73, 2, 768, 0);  // "ding", "s\0\0\0"
    add_descriptor(file, "mf.item_embeddings", 2, 1, 2, 768, 8);
    ASSERT_EQ(file.bytes().substr(152 + 246, 16), std::string("user_embeddings\0", 16));
    file.zeros_up_to(768).floats(kItems.data);
    zx_clear_error();
    EXPECT_EQ(load(file.bytes()), nullptr);
    expect_recorded(ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
}

TEST_F(ModelLoadNames, FromAnUnterminatedLastDescriptorDoNotReachPastTheTable) {
    // Every byte that follows the name in the table is part of it for a reader that runs on.
    FileBytes file;
    add_header(file, 1, 512, 0);
    file.text(std::string(kDescriptorBytes, 'x'), kDescriptorBytes);
    zx_clear_error();
    EXPECT_EQ(load(file.bytes()), nullptr);
    expect_recorded(ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
}

}  // namespace
}  // namespace zx::test
