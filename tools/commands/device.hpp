// The device that a command computes on, if it does: --device, and what happens when it fails.
#pragma once

#include "console.hpp"
#include "engine.hpp"
#include "zorvex.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

namespace CLI {  // NOLINT(readability-identifier-naming): the library's own name
class App;
}

namespace zxtool {

enum class DeviceChoice { kAuto, kCpu, kOpenCl };

// --device. `extent` says what of the command's work can run on a device, and when auto lets it.
void add_device(CLI::App& command, DeviceChoice& choice, std::string_view extent);

// Smaller batches are computed by the library on the host, whatever is ready.
inline constexpr std::uint32_t kMinDeviceBatch = 512;

// What a device would do for a command.
struct DeviceUse {
    std::string_view work;    // the kind of work that runs on a device
    bool possible = false;    // there is some
    bool worthwhile = false;  // and enough of it to choose a device unasked
};

class Device {
  public:
    // The device of that choice, or null to compute on the CPU. kAuto: a true GPU if its use is
    // worthwhile; failing to get it is a warning, and no engine is started for any other device.
    // kOpenCl: whatever the engine takes; having no use for it is a warning. Throws
    // Error(kNoDevice) if it cannot be had.
    static std::unique_ptr<Device> open(DeviceChoice choice, const DeviceUse& use,
                                        const Console& console);

    // Does a piece of device work. False if the device is no longer used: when work fails, one that
    // was demanded is an Error(kNoDevice), and one that was chosen by itself is given up with a
    // warning, for good. Threads may call this at the same time; the library's device functions
    // bear only one, so they take turns.
    bool run(std::string_view doing, const std::function<zx_status_t()>& work);

  private:
    Device(DeviceChoice choice, const Console& console, std::unique_ptr<Engine> engine)
        : choice_(choice), console_(console), engine_(std::move(engine)) {}

    const DeviceChoice choice_;
    const Console console_;
    const std::unique_ptr<Engine> engine_;
    std::mutex turn_;
};

}  // namespace zxtool
