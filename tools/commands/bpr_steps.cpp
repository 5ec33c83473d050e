#include "bpr_steps.hpp"

#include "library.hpp"

namespace zxtool {

void BprSteps::step(const std::uint32_t* users, const std::uint32_t* positive_items,
                    const std::uint32_t* negative_items, std::uint32_t count, float learning_rate,
                    float regularization) {
    // Not left to the library's own step, which may take either side and does not tell which.
    const auto on_device = [&] {
        return zx_gpu_bpr_batch_update(model_.user_embeddings, model_.item_embeddings,
                                       model_.item_biases, users, positive_items, negative_items,
                                       count, model_.use_bias != 0, learning_rate, regularization);
    };
    if (device_ != nullptr && count >= kMinDeviceBatch && device_->run("training", on_device)) {
        device_is_newer_ = true;
        return;
    }
    // A refused launch has changed no table, so what the device has from before is still good.
    bring_to_host();
    check(zx_model_train_step_bpr(&model_, users, positive_items, negative_items, count,
                                  learning_rate, regularization),
          "training");
}

void BprSteps::bring_to_host() {
    for (zx_tensor_t* table :
         {model_.user_embeddings, model_.item_embeddings, model_.item_biases}) {
        if (table == nullptr) continue;  // a model without biases
        if (device_is_newer_)
            check(zx_tensor_to_host(table), "bringing the model back from the device");
        table->on_device = 0;
    }
    device_is_newer_ = false;
}

}  // namespace zxtool
