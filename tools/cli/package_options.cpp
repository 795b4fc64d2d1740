#include <CLI/CLI.hpp>
#include <memory>

#include "common/kv_platform.h"
#include "tools/cli/command_line.h"
#include "tools/cli/package_commands.h"

namespace kvtool {

namespace {

template <typename Command>
struct WithLayout {
    Command command;
    LayoutOptions layout;
};

void AddPack(CLI::App* root, Chosen* chosen) {
    const auto pack = std::make_shared<WithLayout<PackCommand>>();
    PackCommand& command = pack->command;
    command.ic = kv::kIcType;
    command.sensor = kv::kSensorType;
    CLI::App* app = root->add_subcommand("pack", "Build an upgrade package");
    app->add_option("-o,--output", command.output, "Package to write; -: standard output")
        ->required()
        ->type_name("FILE");
    app->add_option("--ic", command.ic, "Chip type")->capture_default_str();
    app->add_option("--sensor", command.sensor, "Sensor type")->capture_default_str();
    app->add_flag("--force", command.force, "Build in spite of objections");
    app->add_flag("--json", chosen->json, "Print JSON");
    AddLayout(app, &pack->layout);
    app->add_option("images", command.images, "NAME=IMAGE: entry name and image file")
        ->required()
        ->type_name("NAME=FILE");
    app->callback([pack, chosen] {
        chosen->run = [pack, chosen](Json* json) {
            pack->command.json = chosen->json;
            return RunPack(pack->command, pack->layout.Make(), json);
        };
    });
}

void AddInspect(CLI::App* root, Chosen* chosen) {
    const auto inspect = std::make_shared<WithLayout<InspectCommand>>();
    InspectCommand& command = inspect->command;
    CLI::App* app = root->add_subcommand("inspect", "Show what a device would make of a package");
    app->add_option("file", command.file, "Package")->required()->type_name("FILE");
    app->add_option("--ic", command.device.ic, "Chip type of the device to check for");
    app->add_option("--sensor", command.device.sensor, "Sensor type of the device to check for");
    app->add_flag("--json", chosen->json, "Print JSON");
    AddLayout(app, &inspect->layout);
    app->callback([inspect, chosen] {
        chosen->run = [inspect, chosen](Json* json) {
            inspect->command.json = chosen->json;
            return RunInspect(inspect->command, inspect->layout.Make(), json);
        };
    });
}

}  // namespace

Layout LayoutOptions::Make() const {
    Layout layout = Layout::Default();
    if (!file.empty()) {
        layout.ReadFile(file);
    }
    for (const std::string& size : sizes) {
        layout.SetSize(size);
    }
    return layout;
}

void AddLayout(CLI::App* command, LayoutOptions* options) {
    command->add_option("--layout", options->file, "File of partition sizes, NAME=BYTES a line")
        ->type_name("FILE");
    command
        ->add_option("--size", options->sizes,
                     "Size of one partition, NAME=BYTES (K, M, G allowed)")
        ->allow_extra_args(false)
        ->type_name("NAME=BYTES");
}

void AddPackageCommands(CLI::App* root, Chosen* chosen) {
    AddPack(root, chosen);
    AddInspect(root, chosen);
}

}  // namespace kvtool
