// Optimiser configurations, and the optimiser object, which counts and refuses.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "owned.hpp"
#include "zorvex.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>

namespace zx::test {
namespace {

// The records pass through the interface by value and lie open, so their layout is part of it.
static_assert(offsetof(zx_optimizer_config_t, learning_rate) == 4);
static_assert(offsetof(zx_optimizer_config_t, momentum) == 8);
static_assert(offsetof(zx_optimizer_config_t, reserved_flag_1) == 12);
static_assert(offsetof(zx_optimizer_config_t, beta1) == 16);
static_assert(offsetof(zx_optimizer_config_t, beta2) == 20);
static_assert(offsetof(zx_optimizer_config_t, epsilon) == 24);
static_assert(offsetof(zx_optimizer_config_t, weight_decay) == 28);
static_assert(offsetof(zx_optimizer_config_t, regularization) == 32);
static_assert(offsetof(zx_optimizer_config_t, reserved_word) == 36);
static_assert(offsetof(zx_optimizer_config_t, reserved_flag_2) == 40);
static_assert(sizeof(zx_optimizer_config_t) == 44);
static_assert(offsetof(zx_optimizer_t, step_count) == 48);
static_assert(offsetof(zx_optimizer_t, first_moment) == 56);
static_assert(offsetof(zx_optimizer_t, second_moment) == 64);
static_assert(offsetof(zx_optimizer_t, num_state) == 72);
static_assert(offsetof(zx_optimizer_t, reserved_count) == 76);
static_assert(sizeof(zx_optimizer_t) == 80);

constexpr zx_optimizer_type_t kSgd = 0;
constexpr zx_optimizer_type_t kMomentum = 1;
constexpr zx_optimizer_type_t kAdam = 2;
constexpr zx_optimizer_type_t kAdamW = 3;
constexpr zx_optimizer_type_t kAls = 5;

void expect_config(const zx_optimizer_config_t& actual, const zx_optimizer_config_t& expected) {
    EXPECT_EQ(actual.type, expected.type);
    EXPECT_TRUE(same_number(actual.learning_rate, expected.learning_rate));
    EXPECT_TRUE(same_number(actual.momentum, expected.momentum));
    EXPECT_EQ(actual.reserved_flag_1, expected.reserved_flag_1);
    EXPECT_TRUE(same_number(actual.beta1, expected.beta1));
    EXPECT_TRUE(same_number(actual.beta2, expected.beta2));
    EXPECT_TRUE(same_number(actual.epsilon, expected.epsilon));
    EXPECT_TRUE(same_number(actual.weight_decay, expected.weight_decay));
    EXPECT_TRUE(same_number(actual.regularization, expected.regularization));
    EXPECT_EQ(actual.reserved_word, expected.reserved_word);
    EXPECT_EQ(actual.reserved_flag_2, expected.reserved_flag_2);
}

TEST(OptimizerConfig, NamesTheRuleAndSetsItsNumbers) {
    EXPECT_EQ(ZX_OPT_SGD, 0);
    EXPECT_EQ(ZX_OPT_SGD_MOMENTUM, 1);
    EXPECT_EQ(ZX_OPT_ADAM, 2);
    EXPECT_EQ(ZX_OPT_ADAMW, 3);
    EXPECT_EQ(ZX_OPT_ALS, 5);
    // clang-format off
    const struct {
        const char* rule;
        zx_optimizer_config_t actual, expected;
    } cases[] = {
        {"SGD", zx_optimizer_sgd(0.25f), {kSgd, 0.25f, 0, 0, 0, 0, 1e-8f, 0, 0, 0, 0}},
        {"momentum", zx_optimizer_sgd_momentum(0.25f, 0.9f),
         {kMomentum, 0.25f, 0.9f, 0, 0, 0, 1e-8f, 0, 0, 0, 0}},
        {"Adam", zx_optimizer_adam(0.001f),
         {kAdam, 0.001f, 0, 0, 0.9f, 0.999f, 1e-8f, 0, 0, 0, 0}},
        {"AdamW", zx_optimizer_adamw(0.01f, 0.05f),
         {kAdamW, 0.01f, 0, 0, 0.9f, 0.999f, 1e-8f, 0.05f, 0, 0, 0}},
        {"ALS", zx_optimizer_als(0.1f), {kAls, 0, 0, 0, 0, 0, 1e-8f, 0, 0.1f, 0, 0}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        expect_config(c.actual, c.expected);
    }
}

TEST(OptimizerConfig, TakesAnyNumbersAndNeitherAllocatesNorRecords) {
    const std::uint64_t before = allocation_requests();
    plant_record();
    EXPECT_TRUE(same_number(zx_optimizer_sgd(-1.0f).learning_rate, -1.0f));
    EXPECT_TRUE(same_number(zx_optimizer_sgd_momentum(0.0f, kNaN).momentum, kNaN));
    EXPECT_TRUE(same_number(zx_optimizer_adam(kInfinity).learning_rate, kInfinity));
    EXPECT_TRUE(same_number(zx_optimizer_adamw(0.0f, -2.0f).weight_decay, -2.0f));
    EXPECT_TRUE(same_number(zx_optimizer_als(-0.0f).regularization, -0.0f));
    expect_untouched();
    EXPECT_EQ(allocation_requests(), before);
}

zx_optimizer_config_t config_of(zx_optimizer_type_t type) {
    return {type, 0.5f, 0.25f, 1, 0.125f, 2.0f, 3.0f, 4.0f, 5.0f, 6, 1};
}

void expect_state(zx_tensor_t** state, std::uint32_t count) {
    EXPECT_EQ(state != nullptr, count != 0);
    for (std::uint32_t i = 0; state && i < count; ++i) EXPECT_EQ(state[i], nullptr);
}

TEST(Optimizer, HasAStateSlotForEachTensorOfTheModel) {
    const ModelPtr plain(zx_model_mf_create(3, 4, 2, false));
    const ModelPtr biased(zx_model_mf_create(3, 4, 2, true));
    const ModelPtr other(zx_model_mf_create(3, 4, 2, true));
    other->type = kNotMf;
    const struct {
        const char* when;
        const zx_model_t* model;
        zx_optimizer_type_t type;
        std::uint32_t first, second;
    } cases[] = {
        {"SGD", biased.get(), kSgd, 0, 0},
        {"momentum with biases", biased.get(), kMomentum, 4, 0},
        {"momentum without biases", plain.get(), kMomentum, 2, 0},
        {"Adam with biases", biased.get(), kAdam, 4, 4},
        {"Adam without biases", plain.get(), kAdam, 2, 2},
        {"AdamW with biases", biased.get(), kAdamW, 4, 4},
        {"AdamW without biases", plain.get(), kAdamW, 2, 2},
        {"the value without meaning", biased.get(), 4, 0, 0},
        {"ALS", biased.get(), kAls, 0, 0},
        {"a value beyond the last", biased.get(), 6, 0, 0},
        {"the largest value", biased.get(), UINT32_MAX, 0, 0},
        {"Adam without a model", nullptr, kAdam, 0, 0},
        {"momentum without a model", nullptr, kMomentum, 0, 0},
        {"Adam for another kind of model", other.get(), kAdam, 0, 0},
    };
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const OptimizerPtr optimizer(zx_optimizer_create(c.model, config_of(c.type)));
        ASSERT_NE(optimizer, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(optimizer.get()) % 128, 0u);
        expect_config(optimizer->config, config_of(c.type));
        EXPECT_EQ(optimizer->step_count, 0u);
        EXPECT_EQ(optimizer->num_state, c.first);
        EXPECT_EQ(optimizer->reserved_count, 0u);
        expect_state(optimizer->first_moment, c.first);
        expect_state(optimizer->second_moment, c.second);
    }
    expect_untouched();
    other->type = ZX_MODEL_MF;  // so that its tensors are released
}

TEST(Optimizer, IsNotMadeWhenMemoryForItIsShort) {
    const ModelPtr model(zx_model_mf_create(3, 4, 2, true));
    plant_record();
    const FailingAllocator allocator(1);
    EXPECT_EQ(zx_optimizer_create(model.get(), zx_optimizer_adam(0.1f)), nullptr);
    EXPECT_EQ(allocator.requests(), 1u);
    expect_untouched();
}

TEST(Optimizer, DoesWithoutAStateArrayThatCannotBeHad) {
    const ModelPtr model(zx_model_mf_create(3, 4, 2, true));
    const struct {
        const char* when;
        std::uint64_t failing;
        bool and_later, first, second;
    } cases[] = {
        {"the first array", 2, false, false, true},
        {"the second array", 3, false, true, false},
        {"both", 2, true, false, false},
        {"none", 4, false, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        plant_record();
        const FailingAllocator allocator(c.failing, c.and_later);
        const OptimizerPtr optimizer(zx_optimizer_create(model.get(), zx_optimizer_adam(0.1f)));
        ASSERT_NE(optimizer, nullptr);
        EXPECT_EQ(allocator.requests(), 3u);
        EXPECT_EQ(optimizer->num_state, 4u);
        expect_state(optimizer->first_moment, c.first ? 4 : 0);
        expect_state(optimizer->second_moment, c.second ? 4 : 0);
        expect_untouched();
    }
}

TEST(Optimizer, OutlivesTheModelItWasMadeFor) {
    ModelPtr model(zx_model_mf_create(3, 4, 2, true));
    const OptimizerPtr optimizer(zx_optimizer_create(model.get(), zx_optimizer_adam(0.1f)));
    EXPECT_EQ(model->refcount, 1);
    model.reset();
    expect_state(optimizer->first_moment, 4);
}

TEST(Optimizer, ReleasesTheStateThatAHostAttached) {
    const ModelPtr model(zx_model_mf_create(3, 4, 2, true));
    const TensorPtr first(zx_tensor_create_1d(2));
    const TensorPtr second(zx_tensor_create_1d(2));
    OptimizerPtr optimizer(zx_optimizer_create(model.get(), zx_optimizer_adamw(0.1f, 0.0f)));
    optimizer->first_moment[0] = zx_tensor_retain(first.get());
    optimizer->first_moment[3] = zx_tensor_retain(first.get());
    optimizer->second_moment[2] = zx_tensor_retain(second.get());
    EXPECT_EQ(first->refcount, 3u);
    EXPECT_EQ(second->refcount, 2u);
    optimizer.reset();
    EXPECT_EQ(first->refcount, 1u);
    EXPECT_EQ(second->refcount, 1u);
}

TEST(OptimizerStep, CountsAndRefuses) {
    RandomNumbers random(1);
    const ModelPtr model = random_model({3, 4, 2, true}, random);
    const ModelContents before = contents(model.get());
    for (const zx_optimizer_type_t type : {kSgd, kMomentum, kAdam, kAdamW, kAls}) {
        SCOPED_TRACE(type);
        const OptimizerPtr optimizer(zx_optimizer_create(model.get(), config_of(type)));
        for (std::uint64_t step = 1; step <= 3; ++step) {
            plant_record();
            EXPECT_EQ(zx_optimizer_step(optimizer.get(), model.get()), 301);
            expect_recorded(301, "src/zx_train", "Use zx_model_train_step_bpr for BPR training");
            EXPECT_EQ(optimizer->step_count, step);
        }
    }
    const ModelContents after = contents(model.get());
    EXPECT_TRUE(same_numbers(after.users, before.users));
    EXPECT_TRUE(same_numbers(after.items, before.items));
    EXPECT_TRUE(same_numbers(after.user_biases, before.user_biases));
    EXPECT_TRUE(same_numbers(after.item_biases, before.item_biases));
    EXPECT_TRUE(same_number(after.global_bias, before.global_bias));
}

TEST(OptimizerStep, CountsForEveryKindOfModel) {
    const ModelPtr model(zx_model_mf_create(3, 4, 2, false));
    const OptimizerPtr optimizer(zx_optimizer_create(nullptr, zx_optimizer_sgd(0.1f)));
    model->type = kNotMf;
    EXPECT_EQ(zx_optimizer_step(optimizer.get(), model.get()), 301);
    EXPECT_EQ(optimizer->step_count, 1u);
    model->type = ZX_MODEL_MF;
}

TEST(OptimizerStep, DoesNotCountWithoutBothArguments) {
    const ModelPtr model(zx_model_mf_create(3, 4, 2, false));
    const OptimizerPtr optimizer(zx_optimizer_create(model.get(), zx_optimizer_sgd(0.1f)));
    plant_record();
    EXPECT_EQ(zx_optimizer_step(optimizer.get(), nullptr), 3);
    EXPECT_EQ(zx_optimizer_step(nullptr, model.get()), 3);
    EXPECT_EQ(zx_optimizer_step(nullptr, nullptr), 3);
    expect_untouched();
    EXPECT_EQ(optimizer->step_count, 0u);
}

TEST(Optimizer, HasNoGradientsToClear) {
    const ModelPtr model(zx_model_mf_create(3, 4, 2, true));
    const TensorPtr tensor(zx_tensor_create_1d(2));
    tensor->data[1] = 7.0f;
    const OptimizerPtr optimizer(zx_optimizer_create(model.get(), config_of(kMomentum)));
    optimizer->first_moment[1] = zx_tensor_retain(tensor.get());
    optimizer->step_count = 5;
    plant_record();
    zx_optimizer_zero_grad(optimizer.get());
    zx_optimizer_zero_grad(nullptr);
    expect_untouched();
    expect_config(optimizer->config, config_of(kMomentum));
    EXPECT_EQ(optimizer->step_count, 5u);
    EXPECT_EQ(optimizer->num_state, 4u);
    EXPECT_EQ(optimizer->first_moment[1], tensor.get());
    EXPECT_EQ(tensor->data[1], 7.0f);
}

TEST(Optimizer, IsFreedOnlyWhereThereIsOne) {
    plant_record();
    zx_optimizer_free(nullptr);
    expect_untouched();
}

}  // namespace
}  // namespace zx::test
