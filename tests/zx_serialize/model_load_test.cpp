// Loading a model: what comes back of what was saved, and what is made of every other file.

#include "capture.hpp"
#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "generator_state.hpp"
#include "load_fixture.hpp"
#include "model_records.hpp"

#include <string>
#include <vector>

namespace zx::test {
namespace {

TEST_F(ModelLoad, ReadsAFileBuiltByHand) {
    plant_record();
    const ModelPtr model = load(small_file().bytes());
    ASSERT_NE(model, nullptr);
    expect_untouched();
    EXPECT_EQ(model->type, 0u);
    EXPECT_STREQ(model->name, "MatrixFactorization");
    EXPECT_EQ(model->refcount, 1);
    EXPECT_EQ(model->num_users, 3u);
    EXPECT_EQ(model->num_items, 2u);
    EXPECT_EQ(model->embedding_dim, 2u);
    EXPECT_EQ(model->use_bias, 0);
    EXPECT_EQ(model->user_biases, nullptr);
    EXPECT_EQ(model->training, 1);
    EXPECT_TRUE(same_number(model->global_bias, 0.0f));
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), kUserData));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), kItemData));
}

TEST_F(ModelLoad, BringsBackWhatWasSavedButTheGlobalBias) {
    RandomNumbers random(1);
    for (const bool biased : {false, true}) {
        for (const std::uint32_t dim : {1u, 4u, 33u}) {
            SCOPED_TRACE(dim);
            const ModelPtr saved = random_model({13, 29, dim, biased}, random);
            ASSERT_NE(saved, nullptr);
            saved->user_embeddings->data[0] = kNaN;
            saved->item_embeddings->data[0] = -kInfinity;
            zx_model_eval(saved.get());
            ASSERT_EQ(zx_model_save(saved.get(), "model.zxm"), ZX_OK);
            const ModelPtr loaded(zx_model_load("model.zxm"));
            ASSERT_NE(loaded, nullptr);
            const ModelContents expected = contents(saved.get());
            const ModelContents actual = contents(loaded.get());
            EXPECT_TRUE(same_numbers(actual.users, expected.users));
            EXPECT_TRUE(same_numbers(actual.items, expected.items));
            EXPECT_TRUE(same_numbers(actual.user_biases, expected.user_biases));
            EXPECT_TRUE(same_numbers(actual.item_biases, expected.item_biases));
            EXPECT_TRUE(same_number(loaded->global_bias, 0.0f));
            EXPECT_EQ(loaded->use_bias, biased ? 1 : 0);
            EXPECT_EQ(loaded->training, 1);
            ASSERT_EQ(zx_model_save(loaded.get(), "again.zxm"), ZX_OK);
            EXPECT_TRUE(file_content("again.zxm") == file_content("model.zxm"));
        }
    }
}

TEST_F(ModelLoad, DrawsAndThenReplacesTheEmbeddings) {
    zx_rng_seed(2);
    ReferenceRng reference(2);
    ASSERT_NE(load(small_file().bytes()), nullptr);
    for (int draw = 0; draw < (3 + 2) * 2; ++draw) reference.next();
    EXPECT_EQ(generator_state(), reference.state());
}

TEST_F(ModelLoad, SaysWhatItLoaded) {
    write_file("a%s.zxm", small_file().bytes());
    const std::string line = "[ZORVEX] Model loaded from a%s.zxm\n";
    const struct {
        int verbosity;
        std::string out;
    } cases[] = {{-1, line}, {0, ""}, {1, ""}, {2, line}, {3, line}, {-7, line}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verbosity);
        zx_set_verbosity(c.verbosity);
        const Console console =
            console_of([] { EXPECT_NE(ModelPtr(zx_model_load("a%s.zxm")), nullptr); });
        EXPECT_EQ(console.out, c.out);
        EXPECT_EQ(console.err, "");
    }
    zx_set_verbosity(2);
    const Console failing = console_of([] { EXPECT_EQ(zx_model_load("absent"), nullptr); });
    EXPECT_EQ(failing.out, "");
    EXPECT_EQ(failing.err, "");
}

TEST_F(ModelLoad, RefusesNull) {
    EXPECT_EQ(zx_model_load(nullptr), nullptr);
    expect_recorded(ZX_ERR_NULL_POINTER, "src/zx_serialize", "NULL path");
}

TEST_F(ModelLoad, RefusesAFileItCannotOpen) {
    for (const char* path : {"absent.zxm", "no-such-folder/model.zxm", ""}) {
        SCOPED_TRACE(path);
        zx_clear_error();
        EXPECT_EQ(zx_model_load(path), nullptr);
        expect_recorded(ZX_ERR_FILE_OPEN, "src/zx_serialize", "Failed to open file for reading");
    }
}

TEST_F(ModelLoad, CannotReadAFolder) {
    EXPECT_EQ(zx_model_load("."), nullptr);
    expect_recorded(ZX_ERR_FILE_READ, "src/zx_serialize", "Failed to read header");
}

// Every length: the data ends at 848, and the zeros behind it are never read.
TEST_F(ModelLoad, RefusesAFileCutShortAnywhere) {
    write_file("model.zxm", small_file().bytes());
    for (std::size_t size = 896; size-- > 0;) {
        SCOPED_TRACE(size);
        std::filesystem::resize_file("model.zxm", size);
        zx_clear_error();
        const std::ptrdiff_t open_before = open_files();
        const ModelPtr model(zx_model_load("model.zxm"));
        EXPECT_EQ(open_files(), open_before);
        EXPECT_EQ(model != nullptr, size >= 848);
        if (size < 848) {
            expect_recorded(ZX_ERR_FILE_READ, "src/zx_serialize",
                            size < 152   ? "Failed to read header"
                            : size < 760 ? "Failed to read descriptors"
                                         : kTensorData);
        }
        if (HasFailure()) return;
    }
}

TEST_F(ModelLoad, RefusesOtherMagics) {
    using std::string_literals::operator""s;
    for (const std::string& magic : {"ZXQN"s, "zxqm"s, "MQXZ"s, "\0\0\0\0"s}) {
        expect_refused(small_file().replace(0, magic).bytes(), ZX_ERR_DATA_CORRUPTED,
                       "src/zx_serialize", "Invalid file magic");
    }
    for (std::size_t byte = 0; byte < 4; ++byte) {
        expect_refused(small_file().replace(byte, "?").bytes(), ZX_ERR_DATA_CORRUPTED,
                       "src/zx_serialize", "Invalid file magic");
    }
}

TEST_F(ModelLoad, RefusesNewerVersionsOnly) {
    for (const std::uint32_t version : {0u, 1u})
        EXPECT_NE(load(small_file().replace_u32(kVersionAt, version).bytes()), nullptr);
    for (const std::uint32_t version : {2u, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(version);
        expect_refused(small_file().replace_u32(kVersionAt, version).bytes(),
                       ZX_ERR_VERSION_MISMATCH, "src/zx_serialize",
                       "File version newer than library");
    }
}

TEST_F(ModelLoad, LooksAtTheMagicThenTheVersionThenTheTable) {
    FileBytes file = small_file().replace_u32(kVersionAt, 2).replace_u32(kModelTypeAt, 1).cut(152);
    expect_refused(file.bytes(), ZX_ERR_VERSION_MISMATCH, "src/zx_serialize",
                   "File version newer than library");
    expect_refused(file.replace(0, "????").bytes(), ZX_ERR_DATA_CORRUPTED, "src/zx_serialize",
                   "Invalid file magic");
}

TEST_F(ModelLoad, RefusesAnotherKindOfModelAfterTheDescriptors) {
    for (const std::uint32_t type : {1u, 0xffffffffu}) {
        const FileBytes file = small_file().replace_u32(kModelTypeAt, type);
        zx_rng_seed(3);
        const ReferenceRng::State before = generator_state();
        expect_refused(file.bytes(), ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_serialize",
                       "Unknown model type");
        EXPECT_EQ(generator_state(), before) << "no model was made";
        expect_unreadable(file.bytes().substr(0, 759), "Failed to read descriptors");
        expect_refused(file.bytes().substr(0, 760), ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_serialize",
                       "Unknown model type");
        FileBytes without_tensors = file;
        expect_refused(without_tensors.replace_u32(kNumTensorsAt, 0).bytes(), ZX_ERR_OUT_OF_MEMORY,
                       "src/zx_serialize", "Failed to allocate descriptors");
    }
}

TEST_F(ModelLoad, RefusesAFileWithoutTensors) {
    expect_refused(small_file().replace_u32(kNumTensorsAt, 0).bytes(), ZX_ERR_OUT_OF_MEMORY,
                   "src/zx_serialize", "Failed to allocate descriptors");
}

// A table of more than a terabyte is refused, or found not to be there; it is not waited for.
TEST_F(ModelLoad, RefusesMoreDescriptorsThanThereAre) {
    for (const std::uint32_t count : {3u, 1000u})
        expect_unreadable(small_file().replace_u32(kNumTensorsAt, count).bytes(),
                          "Failed to read descriptors");
    zx_clear_error();
    EXPECT_EQ(load(small_file().replace_u32(kNumTensorsAt, 0xffffffffu).bytes()), nullptr);
    if (zx_get_last_error() == ZX_ERR_OUT_OF_MEMORY) {
        expect_recorded(ZX_ERR_OUT_OF_MEMORY, "src/zx_serialize", "Failed to allocate descriptors");
    } else {
        expect_recorded(ZX_ERR_FILE_READ, "src/zx_serialize", "Failed to read descriptors");
    }
}

TEST_F(ModelLoad, ReportsShortMemory) {
    write_file("model.zxm", small_file().bytes());
    for (std::uint64_t failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        plant_record();
        const FailingAllocator allocator(failing);
        const ModelPtr model(zx_model_load("model.zxm"));
        if (!allocator.failed()) {
            EXPECT_NE(model, nullptr);
            EXPECT_EQ(allocator.requests(), 6u) << "the table, the record, and two for each tensor";
            break;
        }
        EXPECT_EQ(model, nullptr);
        if (failing == 1) {
            expect_recorded(ZX_ERR_OUT_OF_MEMORY, "src/zx_serialize",
                            "Failed to allocate descriptors");
        } else if (failing == 2) {
            expect_untouched();  // the model's record leaves none
        } else {
            expect_recorded(
                ZX_ERR_OUT_OF_MEMORY, "src/zx_memory",
                failing % 2 == 1 ? "Failed to allocate tensor" : "Failed to allocate tensor data");
        }
    }
}

TEST_F(ModelLoad, IgnoresWhatDoesNotMatter) {
    FileBytes file = small_file();
    file.replace_u64(16, 0xffffffffffffffff);  // data offset
    file.replace_u64(24, 1);                   // file size
    file.replace(32, std::string(64 + 56, '\xff'));
    for (std::size_t i = 0; i < 2; ++i) {
        file.replace_u32(descriptor_at(i) + kNdimInDescriptor, 77);
        file.replace(descriptor_at(i) + 268, std::string(12, '\xff'));  // two extents, padding
        file.replace_u64(descriptor_at(i) + 296, 0xffffffffffffffff);   // reserved
    }
    // The items' second extent: the users' alone is the dimension.
    file.replace_u32(descriptor_at(1) + kDimsInDescriptor + 4, 99);
    const ModelPtr model = load(file.bytes());
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->embedding_dim, 2u);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), kUserData));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), kItemData));
}

TEST_F(ModelLoad, RefusesShapesThatTensorsRefuse) {
    const struct {
        const char* when;
        std::size_t descriptor;
        std::uint32_t rows, cols;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {"no users", 0, 0, 2, ZX_ERR_OVERFLOW, "Tensor size overflow"},
        {"no dimension", 0, 3, 0, ZX_ERR_OVERFLOW, "Tensor size overflow"},
        {"no items", 1, 0, 2, ZX_ERR_OVERFLOW, "Tensor size overflow"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        FileBytes file = small_file();
        file.replace_u32(descriptor_at(c.descriptor) + kDimsInDescriptor, c.rows);
        file.replace_u32(descriptor_at(c.descriptor) + kDimsInDescriptor + 4, c.cols);
        expect_refused(file.bytes(), c.code, "src/zx_memory", c.message);
    }
    FileBytes huge = small_file();
    for (const std::size_t tensor : {0u, 1u}) {
        huge.replace_u32(descriptor_at(tensor) + kDimsInDescriptor, 0x80000000u);
        huge.replace_u32(descriptor_at(tensor) + kDimsInDescriptor + 4, 0x80000000u);
    }
    expect_refused(huge.bytes(), ZX_ERR_OUT_OF_MEMORY, "src/zx_memory",
                   "Failed to allocate tensor data");
    for (const std::size_t tensor : {0u, 1u}) {
        huge.replace_u32(descriptor_at(tensor) + kDimsInDescriptor, 0xffffffffu);
        huge.replace_u32(descriptor_at(tensor) + kDimsInDescriptor + 4, 0xffffffffu);
    }
    expect_refused(huge.bytes(), ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
}

TEST_F(ModelLoad, NeedsBothTables) {
    for (const std::size_t missing : {0u, 1u}) {
        FileBytes file = small_file();
        file.replace(descriptor_at(missing), FileBytes().text("something else", 256).bytes());
        expect_refused(file.bytes(), ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
    }
}

TEST_F(ModelLoad, TakesOneDescriptorTable) {
    // The descriptors stand behind the header, wherever the data offset points.
    FileBytes file = small_file();
    file.replace_u64(16, 152);
    EXPECT_NE(load(file.bytes()), nullptr);
}

}  // namespace
}  // namespace zx::test
