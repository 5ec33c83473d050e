// What the recommender's device operations refuse, in which order, and that nothing reaches the
// device then.

#include "batch_device.hpp"

namespace zx::test {
namespace {

constexpr const char* kNotReady = "GPU not initialized";
constexpr const char* kNullTensor = "NULL tensor";
constexpr const char* kNullArrays = "NULL batch arrays";
constexpr const char* kTooMany = "Element count exceeds 32 bits";
constexpr const char* kNoFit = "Tensor shapes do not fit";

// The arguments of all three operations, sound until a test spoils some. The tensors are copies of
// the model's records, which own nothing.
struct Arguments {
    zx_tensor_t users;
    zx_tensor_t items;
    zx_tensor_t bias;
    zx_tensor_t scores;
    zx_tensor_t* user_arg = &users;
    zx_tensor_t* item_arg = &items;
    zx_tensor_t* bias_arg = &bias;
    zx_tensor_t* third_arg = &scores;  // the scores; the negative vector of a single update
    Ids ids = {0, 1, 2};
    const std::uint32_t* user_ids = ids.data();
    const std::uint32_t* pos_ids = ids.data();
    const std::uint32_t* neg_ids = ids.data();
    std::uint32_t batch = 3;
    bool use_bias = true;

    // Three users, four items, two dimensions.
    explicit Arguments(const zx_model_t& model, const zx_tensor_t& room)
        : users(*model.user_embeddings),
          items(*model.item_embeddings),
          bias(*model.item_biases),
          scores(room) {}
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    ~Arguments() {
        for (const zx_tensor_t* tensor : {&users, &items, &bias, &scores})
            zx_buffer_release(tensor->device_buffer);
    }

    zx_status_t update_one() { return zx_gpu_bpr_update(user_arg, item_arg, third_arg, 0.5f, 0); }
    zx_status_t update_batch() {
        return zx_gpu_bpr_batch_update(user_arg, item_arg, bias_arg, user_ids, pos_ids, neg_ids,
                                       batch, use_bias, 0.5f, 0);
    }
    zx_status_t score() {
        return zx_gpu_batched_score(user_arg, item_arg, bias_arg, user_ids, pos_ids, third_arg,
                                    batch, use_bias);
    }
};

using Operation = zx_status_t (Arguments::*)();
using Spoil = void (*)(Arguments&);
constexpr Operation kOne = &Arguments::update_one;
constexpr Operation kBatch = &Arguments::update_batch;
constexpr Operation kScore = &Arguments::score;

struct Case {
    const char* what;
    Operation operation;
    Spoil spoil;
    zx_status_t status;
    const char* message;  // null: nothing is recorded
};

class BatchChecks : public BatchDeviceTest {
  protected:
    void SetUp() override {
        BatchDeviceTest::SetUp();
        RandomNumbers random(9);
        model_ = random_model({3, 4, 2, true}, random);
        room_.reset(zx_tensor_create_1d(6));
        ASSERT_TRUE(model_ && room_);
    }
    void TearDown() override {
        model_.reset();
        room_.reset();
        BatchDeviceTest::TearDown();
    }

    void expect(const Case& c) {
        SCOPED_TRACE(c.what);
        Arguments arguments(*model_, *room_);
        c.spoil(arguments);
        forget();
        EXPECT_EQ((arguments.*c.operation)(), c.status);
        if (c.message) {
            expect_recorded(c.status, "src/zx_gpu", c.message);
        } else {
            expect_untouched();
        }
        EXPECT_EQ(opencl().calls.empty(), c.status != ZX_OK);
    }

    ModelPtr model_;
    TensorPtr room_;
};

TEST_F(BatchChecks, AskForKernelsFirst) {
    zx_set_verbosity(0);
    zx_gpu_shutdown();
    const Spoil spoil = [](Arguments& a) {
        a.user_arg = a.item_arg = a.third_arg = nullptr;
        a.user_ids = a.pos_ids = a.neg_ids = nullptr;
    };
    for (const Operation operation : {kOne, kBatch, kScore})
        expect({"no kernels", operation, spoil, ZX_ERR_ENGINE_NOT_INITIALIZED, kNotReady});
}

TEST_F(BatchChecks, AskForTensorsThenForArrays) {
    const Spoil null_user = [](Arguments& a) { a.user_arg = nullptr, a.user_ids = nullptr; };
    const Spoil null_item = [](Arguments& a) { a.item_arg = nullptr, a.pos_ids = nullptr; };
    const Spoil null_third = [](Arguments& a) { a.third_arg = nullptr, a.user_ids = nullptr; };
    const Spoil empty_user = [](Arguments& a) { a.users.data = nullptr; };
    const Spoil empty_item = [](Arguments& a) { a.items.data = nullptr; };
    const Spoil empty_third = [](Arguments& a) { a.scores.data = nullptr; };
    for (const Operation operation : {kOne, kBatch, kScore}) {
        expect({"null user", operation, null_user, 3, kNullTensor});
        expect({"null item", operation, null_item, 3, kNullTensor});
        expect({"user without data", operation, empty_user, 3, kNullTensor});
        expect({"item without data", operation, empty_item, 3, kNullTensor});
    }
    for (const Operation operation : {kOne, kScore}) {
        expect({"null third", operation, null_third, 3, kNullTensor});
        expect({"third without data", operation, empty_third, 3, kNullTensor});
    }
    // The later checks would refuse these too.
    const Spoil null_users = [](Arguments& a) { a.user_ids = nullptr, a.batch = 1u << 31; };
    const Spoil null_pos = [](Arguments& a) { a.pos_ids = nullptr, a.batch = 1u << 31; };
    const Spoil null_neg = [](Arguments& a) { a.neg_ids = nullptr, a.batch = 1u << 31; };
    for (const Operation operation : {kBatch, kScore}) {
        expect({"null users", operation, null_users, 3, kNullArrays});
        expect({"null positives", operation, null_pos, 3, kNullArrays});
    }
    expect({"null negatives", kBatch, null_neg, 3, kNullArrays});
}

TEST_F(BatchChecks, AskForCountsOf31BitsThenForShapesThatFit) {
    const Spoil d_fits = [](Arguments& a) { a.users.dims[1] = 0x7fffffff; };
    const Spoil d_large = [](Arguments& a) { a.users.dims[1] = 0x80000000; };
    const Spoil batch_large = [](Arguments& a) { a.batch = 0x80000000, a.users.size = 5; };
    const Spoil users_short = [](Arguments& a) { a.users.size = 5, a.user_ids = &a.batch; };
    const Spoil items_short = [](Arguments& a) { a.items.size = 7, a.pos_ids = &a.batch; };
    const Spoil bias_short = [](Arguments& a) { a.bias.size = 3; };
    const Spoil bias_unwanted = [](Arguments& a) { a.bias.size = 3, a.use_bias = false; };
    for (const Operation operation : {kBatch, kScore}) {
        expect({"largest dimension", operation, d_fits, 304, kNoFit});
        expect({"too large dimension", operation, d_large, 5, kTooMany});
        expect({"too large batch", operation, batch_large, 5, kTooMany});
        expect({"short users", operation, users_short, 304, kNoFit});
        expect({"short items", operation, items_short, 304, kNoFit});
        expect({"short bias", operation, bias_short, 304, kNoFit});
        expect({"short bias, unwanted", operation, bias_unwanted, 0, nullptr});
    }
    // For a wanted bias that is null the item table stands in, and must have an element per item.
    const Spoil stand_in_short = [](Arguments& a) {
        a.users.dims[1] = a.items.dims[1] = 0, a.items.size = 3, a.bias_arg = nullptr;
    };
    const Spoil stand_in_enough = [](Arguments& a) {
        a.users.dims[1] = a.items.dims[1] = 0, a.items.size = 4, a.bias_arg = nullptr;
    };
    const Spoil stand_in_unwanted = [](Arguments& a) {
        a.users.dims[1] = a.items.dims[1] = 0, a.items.size = 3, a.bias_arg = nullptr,
        a.use_bias = false;
    };
    for (const Operation operation : {kBatch, kScore}) {
        expect({"short stand-in for the bias", operation, stand_in_short, 304, kNoFit});
        expect({"stand-in enough", operation, stand_in_enough, 0, nullptr});
        expect({"short stand-in, unwanted", operation, stand_in_unwanted, 0, nullptr});
    }
    const Spoil scores_short = [](Arguments& a) { a.scores.size = 2; };
    const Spoil scores_enough = [](Arguments& a) { a.scores.size = 3; };
    expect({"short scores", kScore, scores_short, 304, kNoFit});
    expect({"scores enough", kScore, scores_enough, 0, nullptr});
}

TEST_F(BatchChecks, AskForVectorsOfTheUserLength) {
    const Spoil fits = [](Arguments& a) { a.users.size = a.items.size = a.scores.size = 6; };
    const Spoil positive_short = [](Arguments& a) { a.items.size = 5; };
    const Spoil negative_short = [](Arguments& a) { a.scores.size = 5; };
    const Spoil largest = [](Arguments& a) { a.users.size = 0x7fffffff; };
    const Spoil too_large = [](Arguments& a) { a.users.size = 0x80000000; };
    expect({"fits", kOne, fits, 0, nullptr});
    expect({"short positive", kOne, positive_short, 304, kNoFit});
    expect({"short negative", kOne, negative_short, 304, kNoFit});
    expect({"largest", kOne, largest, 304, kNoFit});
    expect({"too large", kOne, too_large, 5, kTooMany});
}

TEST_F(BatchChecks, RefuseIdsOutsideTheTablesWithoutARecordOrAnUpload) {
    static const Ids last_user = {0, 2, 2};
    static const Ids no_user = {0, 2, 3};
    static const Ids last_item = {3, 0, 0};
    static const Ids no_item = {4, 0, 0};
    static const Ids largest = {0, 0xffffffff, 0};
    const Spoil all_last = [](Arguments& a) {
        a.user_ids = last_user.data(), a.pos_ids = a.neg_ids = last_item.data();
    };
    const Spoil user_out = [](Arguments& a) { a.user_ids = no_user.data(); };
    const Spoil user_far = [](Arguments& a) { a.user_ids = largest.data(); };
    const Spoil pos_out = [](Arguments& a) { a.pos_ids = no_item.data(); };
    const Spoil pos_far = [](Arguments& a) { a.pos_ids = largest.data(); };
    const Spoil neg_out = [](Arguments& a) { a.neg_ids = no_item.data(); };
    for (const Operation operation : {kBatch, kScore}) {
        expect({"last ids", operation, all_last, 0, nullptr});
        expect({"user behind the last", operation, user_out, 4, nullptr});
        expect({"largest user", operation, user_far, 4, nullptr});
        expect({"item behind the last", operation, pos_out, 4, nullptr});
        expect({"largest item", operation, pos_far, 4, nullptr});
    }
    expect({"negative behind the last", kBatch, neg_out, 4, nullptr});
}

}  // namespace
}  // namespace zx::test
