#include "model_store.hpp"

#include "file_size_limit.hpp"
#include "files.hpp"

namespace zxtool::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kUsers = 3;
constexpr std::uint32_t kItems = 5;

// A model whose first number tells it from others.
ModelPtr model_of(float first, bool use_bias = false) {
    ModelPtr model(zx_model_mf_create(kUsers, kItems, 4, use_bias));
    model->user_embeddings->data[0] = first;
    return model;
}

IdMap numbered(const std::string& prefix, std::uint32_t count) {
    IdMap ids;
    for (std::uint32_t i = 0; i < count; ++i) ids.add(prefix + std::to_string(i));
    return ids;
}

std::vector<float> elements(const zx_tensor_t* tensor) {
    return {tensor->data, tensor->data + tensor->size};
}

void save(float first, const std::string& prefix, const std::string& path) {
    save_model(*model_of(first), numbered(prefix + "u", kUsers), numbered(prefix + "i", kItems),
               path);
}

// Which model a path holds and whose ids it has: "2 of new", "2 without ids".
std::string stored_at(const std::string& path) {
    std::string found;
    const std::string failure = failure_of([&] {
        const StoredModel stored = load_model(path);
        found = std::to_string(static_cast<int>(stored.model->user_embeddings->data[0]));
        if (!stored.has_ids) {
            found += " without ids";
            return;
        }
        const std::string user(stored.users.name(2));
        const std::string item(stored.items.name(4));
        if (!user.ends_with("u2") || !item.ends_with("i4")) std::abort();
        found += " of " + user.substr(0, user.size() - 2);
    });
    return failure == "nothing" ? found : failure;
}

class ModelStore : public testing::Test {
  protected:
    ModelStore() { zx_set_verbosity(0); }
    ~ModelStore() override { zx_set_verbosity(-1); }

    const TemporaryFolder folder_;
    const std::string path_ = folder_ / "m.zxm";
    const std::string ids_ = path_ + ".ids";
    const std::string pending_ = ids_ + ".new";
};

TEST_F(ModelStore, GivesBackWhatWasSaved) {
    for (const bool use_bias : {false, true}) {
        const ModelPtr model = model_of(7.0F, use_bias);
        save_model(*model, numbered("u", kUsers), numbered("i", kItems), path_);
        const StoredModel stored = load_model(path_);
        EXPECT_TRUE(stored.has_ids);
        EXPECT_EQ(stored.users.size(), kUsers);
        EXPECT_EQ(stored.items.size(), kItems);
        EXPECT_EQ(stored.users.name(1), "u1");
        EXPECT_EQ(stored.items.find("i4"), 4U);
        EXPECT_EQ(stored.file_bytes, fs::file_size(path_));
        EXPECT_EQ(stored.model->embedding_dim, 4U);
        EXPECT_EQ(stored.model->use_bias, use_bias ? 1 : 0);
        EXPECT_EQ(elements(stored.model->user_embeddings), elements(model->user_embeddings));
        EXPECT_EQ(elements(stored.model->item_embeddings), elements(model->item_embeddings));
    }
    EXPECT_EQ(folder_.count(), 2);
}

TEST_F(ModelStore, HasTheLibrarysFormat) {
    const ModelPtr model = model_of(7.0F);
    save_model(*model, numbered("u", kUsers), numbered("i", kItems), path_);
    ASSERT_EQ(zx_model_save(model.get(), (folder_ / "plain.zxm").c_str()), ZX_OK);
    EXPECT_EQ(read_file(path_), read_file(folder_ / "plain.zxm"));
    EXPECT_EQ(fs::file_size(path_), 960U);
}

TEST_F(ModelStore, NumbersTheUsersOfAModelWithoutIds) {
    ASSERT_EQ(zx_model_save(model_of(7.0F).get(), path_.c_str()), ZX_OK);
    const StoredModel stored = load_model(path_);
    EXPECT_FALSE(stored.has_ids);
    EXPECT_EQ(stored.users.size(), kUsers);
    EXPECT_EQ(stored.items.size(), kItems);
    EXPECT_EQ(stored.users.name(2), "2");
    EXPECT_EQ(stored.items.find("4"), 4U);
}

TEST_F(ModelStore, ReplacesAPairByANewOne) {
    save(1.0F, "old", path_);
    save(2.0F, "new", path_);
    EXPECT_EQ(stored_at(path_), "2 of new");
    EXPECT_EQ(folder_.count(), 2);
}

TEST_F(ModelStore, FindsAPairAtEveryMomentOfItsReplacement) {
    save(1.0F, "old", path_);
    const std::string old_model = read_file(path_);
    const std::string old_ids = read_file(ids_);
    save(2.0F, "new", path_);
    const std::string new_model = read_file(path_);
    const std::string new_ids = read_file(ids_);

    write_file(path_, old_model);
    write_file(ids_, old_ids);
    EXPECT_EQ(stored_at(path_), "1 of old");
    write_file(pending_, new_ids);
    EXPECT_EQ(stored_at(path_), "1 of old");
    write_file(path_, new_model);
    EXPECT_EQ(stored_at(path_), "2 of new");
    fs::rename(pending_, ids_);
    EXPECT_EQ(stored_at(path_), "2 of new");
}

TEST_F(ModelStore, FindsAModelWithoutIdsAtEveryMomentOfItsReplacement) {
    save(2.0F, "new", path_);
    const std::string new_model = read_file(path_);
    fs::rename(ids_, pending_);
    ASSERT_EQ(zx_model_save(model_of(1.0F).get(), path_.c_str()), ZX_OK);
    EXPECT_EQ(stored_at(path_), "1 without ids");
    write_file(path_, new_model);
    EXPECT_EQ(stored_at(path_), "2 of new");
    fs::rename(pending_, ids_);
    EXPECT_EQ(stored_at(path_), "2 of new");
}

TEST_F(ModelStore, IsNotHeldUpByWhatACutOffSavingLeft) {
    save(1.0F, "old", path_);
    write_file(pending_, "not complete");
    EXPECT_EQ(stored_at(path_), "1 of old");
    save(2.0F, "new", path_);
    EXPECT_EQ(stored_at(path_), "2 of new");
    EXPECT_EQ(folder_.count(), 2);
}

TEST_F(ModelStore, PutsPendingIdsInForceBeforeOthersTakeTheirPlace) {
    save(1.0F, "old", path_);
    const std::string old_ids = read_file(ids_);
    save(2.0F, "new", path_);
    fs::rename(ids_, pending_);
    write_file(ids_, old_ids);
    {
        // The ids of the third model are longer than any file may be, the model is not.
        const FileSizeLimit limit(20'000);
        EXPECT_EQ(failure_of([&] { save(3.0F, std::string(10'000, 'x'), path_); }).substr(0, 3),
                  "6: ");
    }
    EXPECT_EQ(stored_at(path_), "2 of new");
    EXPECT_EQ(folder_.count(), 2);
}

TEST_F(ModelStore, KeepsTheOldPairWhenTheNewModelCannotBeWritten) {
    save(1.0F, "old", path_);
    const struct {
        rlim_t limit;
        const char* message;
    } cases[] = {
        {500, "cannot be written: Failed to write descriptors"},
        // The library does not see that its last block was not written.
        {959, "959 bytes were written, expected 960"},
    };
    for (const auto& c : cases) {
        const FileSizeLimit limit(c.limit);
        EXPECT_EQ(failure_of([&] { save(2.0F, "new", path_); }), "6: " + path_ + ": " + c.message);
        EXPECT_EQ(stored_at(path_), "1 of old");
        EXPECT_EQ(folder_.count(), 2);
    }
}

TEST_F(ModelStore, IsNotSavedWhereNoFileCanBe) {
    EXPECT_EQ(failure_of([] { save(1.0F, "new", "no-such-folder/m.zxm"); }),
              "6: no-such-folder/m.zxm: cannot be written: No such file or directory");
    EXPECT_EQ(failure_of([] { save(1.0F, "new", "/dev/null"); }),
              "6: /dev/null: is no regular file, expected a file that can be replaced");
    EXPECT_FALSE(fs::exists("/dev/null.ids"));
}

TEST_F(ModelStore, IsFoundThroughALinkAndWithoutIt) {
    fs::create_directory(folder_ / "far");
    fs::create_symlink("far/m1", path_);
    save(1.0F, "old", path_);
    EXPECT_EQ(stored_at(path_), "1 of old");
    EXPECT_EQ(stored_at(folder_ / "far/m1"), "1 of old");
    EXPECT_TRUE(fs::is_symlink(path_));
    save(2.0F, "new", path_);
    EXPECT_EQ(stored_at(path_), "2 of new");
}

TEST_F(ModelStore, TakesIdsThatAreLinkedToOtherNames) {
    save(1.0F, "old", path_);
    fs::rename(path_, folder_ / "blob1");
    fs::rename(ids_, folder_ / "blob2");
    fs::create_symlink("blob1", path_);
    fs::create_symlink("blob2", ids_);
    EXPECT_EQ(stored_at(path_), "1 of old");
}

TEST_F(ModelStore, IsRefusedWithTheIdsOfAnotherModel) {
    save(1.0F, "old", path_);
    save(2.0F, "new", folder_ / "other.zxm");
    fs::rename(folder_ / "other.zxm.ids", ids_);
    EXPECT_EQ(stored_at(path_),
              "4: " + ids_ + ": does not belong to " + path_ + ", expected the ids saved with it");
}

// A file of a tebibyte, which takes no room on the disk, has to be refused by its first bytes.
TEST_F(ModelStore, IsRefusedWithOthersIdsOfAnyLength) {
    constexpr std::uintmax_t kTebibyte = std::uintmax_t{1} << 40U;
    save(1.0F, "old", path_);
    save(2.0F, "new", folder_ / "other.zxm");
    const std::string others = read_file(folder_ / "other.zxm.ids");
    const struct {
        std::string start;
        std::string refusal;
    } cases[] = {
        {"", "is no ids file"},
        {"ZXMODIDS\2", "ids file is of a version that this program does not know"},
        {others, "does not belong to " + path_ + ", expected the ids saved with it"},
    };
    for (const auto& c : cases) {
        write_file(ids_, c.start);
        fs::resize_file(ids_, kTebibyte);
        EXPECT_EQ(stored_at(path_), "4: " + ids_ + ": " + c.refusal);
    }
}

TEST_F(ModelStore, IsRefusedWithDamagedIds) {
    save(1.0F, "old", path_);
    const std::string contents = read_file(ids_);
    for (std::size_t i = 0; i < contents.size(); ++i) {
        SCOPED_TRACE(i);
        std::string damaged = contents;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
        write_file(ids_, damaged);
        EXPECT_EQ(stored_at(path_).substr(0, 3 + ids_.size()), "4: " + ids_);
    }
}

TEST_F(ModelStore, IsRefusedWithAnyByteOfItsFileChanged) {
    save(1.0F, "old", path_);
    const std::string contents = read_file(path_);
    for (std::size_t i = 0; i < contents.size(); ++i) {
        SCOPED_TRACE(i);
        std::string damaged = contents;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
        write_file(path_, damaged);
        EXPECT_EQ(stored_at(path_).substr(0, 3), "4: ");
    }
}

TEST_F(ModelStore, IsRefusedWithOtherNumbersOfIds) {
    save_model(*model_of(1.0F), numbered("u", 2), numbered("i", kItems), path_);
    EXPECT_EQ(stored_at(path_),
              "4: " + path_ + ": its ids file has 2 users and 5 items, expected 3 and 5");
    save_model(*model_of(1.0F), numbered("u", kUsers), numbered("i", 6), path_);
    EXPECT_EQ(stored_at(path_),
              "4: " + path_ + ": its ids file has 3 users and 6 items, expected 3 and 5");
}

// Sets a 32-bit number of a file, little-endian.
std::string with_number(std::string contents, std::size_t offset, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i)
        contents[offset + i] = static_cast<char>(value >> (8 * i) & 0xFFU);
    return contents;
}

TEST_F(ModelStore, RefusesFilesThatAreNoModels) {
    ASSERT_EQ(zx_model_save(model_of(7.0F).get(), path_.c_str()), ZX_OK);
    const std::string contents = read_file(path_);
    const struct {
        const char* what;
        std::string contents;
        const char* message;
    } cases[] = {
        {"empty", "", "is no model file"},
        {"text", std::string(1000, 'x'), "is no model file"},
        {"cut off in its head", contents.substr(0, 151), "is no model file"},
        {"cut off in its data", contents.substr(0, 959),
         "model file is 959 bytes long, expected the 960 that its head says"},
        {"continued", contents + "x",
         "model file is 961 bytes long, expected the 960 that its head says"},
        {"no tensors", with_number(contents, 12, 0),
         "model file is damaged: it says that it has 0 tensors"},
        {"more tensors than fit", with_number(contents, 12, 3),
         "model file is damaged: it says that it has 3 tensors"},
        {"very many tensors", with_number(contents, 12, 0xFFFFFFFFU),
         "model file is damaged: it says that it has 4294967295 tensors"},
        {"a table that does not fit", with_number(contents, 152 + 260, 0x40000000U),
         "model file is damaged: a table of 1073741824 x 4 is not in it"},
        {"a row that does not fit", with_number(contents, 152 + 264, 0xFFFFFFFFU),
         "model file is damaged: a table of 5 x 4294967295 is not in it"},
        {"a newer version", with_number(contents, 4, 2),
         "is no model that can be used: File version newer than library"},
        {"another kind of model", with_number(contents, 8, 1),
         "is no model that can be used: Unknown model type"},
        {"no users", with_number(contents, 152 + 260, 0),
         "is no model that can be used: Tensor size overflow"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        write_file(path_, c.contents);
        EXPECT_EQ(stored_at(path_), "4: " + path_ + ": " + c.message);
        EXPECT_EQ(zx_get_last_error(), ZX_OK);
    }
}

TEST_F(ModelStore, NamesAFileThatIsNotThere) {
    EXPECT_EQ(stored_at(path_), "6: " + path_ + ": cannot be opened: No such file or directory");
    EXPECT_EQ(stored_at(folder_ / "."),
              "4: " + (folder_ / ".") + ": is no regular file, expected a model file");
}

TEST_F(ModelStore, TakesAModelOfNoTypeItKnowsForNoModel) {
    const ModelPtr model = model_of(1.0F);
    model->type = 1;
    EXPECT_EQ(failure_of(
                  [&] { save_model(*model, numbered("u", kUsers), numbered("i", kItems), path_); }),
              "6: " + path_ + ": cannot be written: Unsupported model type for serialization");
    model->type = ZX_MODEL_MF;
    EXPECT_EQ(folder_.count(), 0);
}

TEST(LightCopy, SharesTheTensorsAndNoScratch) {
    ModelPtr model = model_of(7.0F, true);
    model->global_bias = 0.5F;
    std::vector<std::uint32_t> items(kItems);
    std::vector<float> scores(kItems);
    ASSERT_EQ(zx_recommend(model.get(), 1, kItems, items.data(), scores.data()), ZX_OK);

    const ModelPtr copy = light_copy(*model);
    EXPECT_EQ(copy->user_embeddings, model->user_embeddings);
    EXPECT_EQ(copy->item_biases, model->item_biases);
    EXPECT_EQ(copy->score_buf, nullptr);
    EXPECT_EQ(copy->heap_buf, nullptr);
    std::vector<std::uint32_t> copy_items(kItems);
    std::vector<float> copy_scores(kItems);
    model.reset();
    ASSERT_EQ(zx_recommend(copy.get(), 1, kItems, copy_items.data(), copy_scores.data()), ZX_OK);
    EXPECT_EQ(copy_items, items);
    EXPECT_EQ(copy_scores, scores);
}

}  // namespace
}  // namespace zxtool::test
