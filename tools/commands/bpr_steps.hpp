// BPR steps on the device or on the host, and which of the two has the model's current numbers.
//
// After a device step only the device has them, and the library leaves it to its caller to bring
// them back. Its own marks on the tensors are no guide: a launch that is refused leaves tables
// marked as current on the device while the host goes on to change them. So the sides change only
// here: every host step and every host read comes after bring_to_host(), which also takes the marks
// away, so that the next device step uploads what the host has.
#pragma once

#include "device.hpp"
#include "zorvex.h"

#include <cstdint>

namespace zxtool {

class BprSteps {
  public:
    // The model's current numbers are the host's. Without a device no engine runs, and all steps
    // run on the host.
    BprSteps(zx_model_t& model, Device* device) : model_(model), device_(device) {}

    // One pass over `count` triples: on the device if there are kMinDeviceBatch or more and it is
    // still used, else on the host. Throws Error.
    void step(const std::uint32_t* users, const std::uint32_t* positive_items,
              const std::uint32_t* negative_items, std::uint32_t count, float learning_rate,
              float regularization);

    // Before anything on the host reads or writes the model: makes the host's numbers the current
    // ones. Throws Error(kFailure) if the device does not give them back.
    void bring_to_host();

  private:
    zx_model_t& model_;
    Device* const device_;
    bool device_is_newer_ = false;
};

}  // namespace zxtool
