// zorvex devices: what OpenCL finds, and what the engine makes of it.
#include "commands.hpp"
#include "engine.hpp"
#include "opencl.hpp"
#include "output.hpp"

#include <fmt/format.h>

namespace zxtool {
namespace {

// Whether the engine gets as far as having its kernels on the device that it takes.
const char* kernels_text(const OpenClDevice& device, const Engine& engine) {
    if (!device.engine_takes) return "";
    return engine.why_not().empty() ? "load" : "do not load";
}

Table table_of(const std::vector<OpenClPlatform>& platforms, const Engine& engine) {
    Table table({{"platform"},
                 {"device"},
                 {"type"},
                 {"memory", true},
                 {"units", true},
                 {"engine"},
                 {"kernels"}});
    for (const OpenClPlatform& platform : platforms) {
        const std::string name = printable(platform.name);
        if (platform.devices.empty()) table.add({name, "", "", "", "", "", ""});
        for (const OpenClDevice& device : platform.devices)
            table.add({name, printable(device.name), device.type_name(),
                       std::to_string(device.global_memory), std::to_string(device.compute_units),
                       device.engine_takes ? "takes" : "", kernels_text(device, engine)});
    }
    return table;
}

Json json_of(const std::vector<OpenClPlatform>& platforms, const Engine& engine) {
    Json list = Json::array();
    for (const OpenClPlatform& platform : platforms) {
        Json devices = Json::array();
        for (const OpenClDevice& device : platform.devices)
            devices.push_back({{"name", device.name},
                               {"type", device.type_name()},
                               {"memory", device.global_memory},
                               {"compute_units", device.compute_units},
                               {"engine_takes", device.engine_takes}});
        list.push_back({{"name", platform.name},
                        {"version", platform.version},
                        {"devices", std::move(devices)}});
    }
    const bool load = engine.why_not().empty();
    return {{"platforms", std::move(list)},
            {"kernels_load", load},
            {"why_not", load ? Json(nullptr) : Json(engine.why_not())}};
}

void devices(const GlobalOptions& global) {
    const Console console(global);
    const std::vector<OpenClPlatform> platforms = opencl_platforms();
    const Engine engine;

    Output output;
    if (global.json)
        output.write(json_text(json_of(platforms, engine)) + "\n");
    else
        table_of(platforms, engine).write_to(output);
    output.close();
    if (!engine.why_not().empty())
        console.note(fmt::format("the engine computes on the CPU: {}", engine.why_not()));
}

}  // namespace

void add_devices(CLI::App& app, const GlobalOptions& global) {
    CLI::App* command = app.add_subcommand(
        "devices",
        "Lists the OpenCL platforms and their devices. It says which one the engine would take, "
        "of the first platform the first GPU or else the first device, and tries whether the "
        "kernels load there. Memory is in bytes. A table on a terminal, CSV elsewhere, one object "
        "with --json.");
    command->callback([&global] { devices(global); });
}

}  // namespace zxtool
