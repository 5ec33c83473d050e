#include "device.hpp"

#include "arguments.hpp"
#include "error.hpp"
#include "library.hpp"
#include "opencl.hpp"
#include "output.hpp"

#include <fmt/format.h>
#include <map>

namespace zxtool {
namespace {

const std::map<std::string, DeviceChoice> kChoices{
    {"auto", DeviceChoice::kAuto}, {"cpu", DeviceChoice::kCpu}, {"opencl", DeviceChoice::kOpenCl}};

bool engine_takes_a_gpu() {
    const auto device = device_for_engine(opencl_platforms());
    return device && device->is_gpu();
}

}  // namespace

void add_device(CLI::App& command, DeviceChoice& choice, std::string_view extent) {
    add_choice(
        command, "--device", choice, kChoices,
        fmt::format("Where to compute. {} auto (the default) takes a true GPU only, cpu none, "
                    "opencl whatever \"zorvex devices\" says the engine takes, and fails "
                    "with status 7 if it cannot be had",
                    extent));
}

std::unique_ptr<Device> Device::open(DeviceChoice choice, const DeviceUse& use,
                                     const Console& console) {
    const bool demanded = choice == DeviceChoice::kOpenCl;
    if (choice == DeviceChoice::kCpu) return nullptr;
    if (!demanded && !(use.possible && use.worthwhile && engine_takes_a_gpu())) return nullptr;

    auto engine = std::make_unique<Engine>();
    const std::string& why_not = engine->why_not();
    if (demanded && !why_not.empty()) throw Error(Exit::kNoDevice, "--device opencl: " + why_not);
    if (!why_not.empty()) {
        console.warn(fmt::format("{}; computing on the CPU", why_not));
        return nullptr;
    }
    if (!use.possible) {
        console.warn(fmt::format("only {} run on a device; computing on the CPU", use.work));
        return nullptr;
    }
    console.note(fmt::format("device {}", printable(zx_engine_device_name())));
    return std::unique_ptr<Device>(new Device(choice, console, std::move(engine)));
}

bool Device::run(std::string_view doing, const std::function<zx_status_t()>& work) {
    const std::lock_guard lock(turn_);
    if (!zx_gpu_is_ready()) return false;
    zx_clear_error();
    const zx_status_t status = work();
    if (status == ZX_OK) return true;
    const std::string failure = fmt::format("the device fails at {}", failure_text(status, doing));
    if (choice_ == DeviceChoice::kOpenCl)
        throw Error(Exit::kNoDevice, "--device opencl: " + failure);
    // Without its kernels the library computes everything on the host; the queue stays, so that
    // what is on the device can still be brought back.
    zx_gpu_shutdown();
    console_.warn(failure + "; computing on the CPU");
    return false;
}

}  // namespace zxtool
