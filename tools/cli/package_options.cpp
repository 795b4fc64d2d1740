#include <CLI/CLI.hpp>
#include <memory>

#include "common/kv_platform.h"
#include "tools/cli/command_line.h"
#include "tools/cli/package_commands.h"

namespace kvtool {

namespace {

void AddPack(CLI::App* root, Chosen* chosen) {
    const auto pack = std::make_shared<WithLayout<PackCommand>>();
    PackCommand& command = pack->command;
    CLI::App* app = root->add_subcommand("pack", "Build an upgrade package");
    app->add_option("-o,--output", command.output, "Package to write, - for standard output")
        ->required()
        ->type_name("FILE");
    app->add_option("--ic", command.ic, "Chip type")->default_str(kv::kIcType);
    app->add_option("--sensor", command.sensor, "Sensor type")->default_str(kv::kSensorType);
    app->add_flag("--force", command.force, "Build in spite of problems");
    app->add_flag("--json", chosen->json, "Print JSON");
    AddLayout(app, &pack->layout);
    app->add_option("--recipe", command.recipe, "File that lists identity, layout and images")
        ->type_name("FILE");
    app->add_option("--manifest", command.manifest,
                    "Write sizes and SHA-256 of all inputs and the package as JSON")
        ->type_name("FILE");
    CLI::Option* const sign =
        app->add_option("--sign", command.sign,
                        "Sign with this secret key of minisign, for devices that accept only "
                        "signed packages")
            ->type_name("FILE");
    app->add_option("--comment", command.comment,
                    "Text that is signed with the package (default: chip and sensor type)")
        ->needs(sign);
    app->add_option("images", command.images,
                    "NAME=IMAGE: entry name and image file, after those of a recipe")
        ->type_name("NAME=FILE");
    app->callback([pack, chosen] {
        chosen->run = [pack, chosen](Json* json) {
            pack->command.json = chosen->json;
            return RunPack(pack->command, pack->layout, json);
        };
    });
}

void AddInspect(CLI::App* root, Chosen* chosen) {
    const auto inspect = std::make_shared<WithLayout<InspectCommand>>();
    InspectCommand& command = inspect->command;
    CLI::App* app = root->add_subcommand("inspect", "Show what a device would do with a package");
    app->add_option("file", command.file, "Package")->required()->type_name("FILE");
    app->add_option("--ic", command.device.ic, "Chip type of the device");
    app->add_option("--sensor", command.device.sensor, "Sensor type of the device");
    app->add_flag("--json", chosen->json, "Print JSON");
    AddLayout(app, &inspect->layout);
    AddTrust(app, &command.trust);
    app->callback([inspect, chosen] {
        chosen->run = [inspect, chosen](Json* json) {
            inspect->command.json = chosen->json;
            return RunInspect(inspect->command, inspect->layout.Make(), json);
        };
    });
}

}  // namespace

void AddLayout(CLI::App* command, LayoutOptions* options) {
    command
        ->add_option("--layout", options->file, "File of partition sizes, one NAME=BYTES per line")
        ->type_name("FILE");
    command
        ->add_option("--size", options->sizes,
                     "Size of one partition, NAME=BYTES (K, M, G allowed)")
        ->allow_extra_args(false);
}

void AddTrust(CLI::App* command, Trust* trust) {
    CLI::Option* const key =
        command
            ->add_option("--trusted-key", trust->key,
                         "minisign public keys; refuse a package that none of them has signed")
            ->type_name("FILE");
    command
        ->add_option("--signature", trust->signature,
                     "Signature file (default: the signature in the package, or FILE.minisig)")
        ->type_name("FILE")
        ->needs(key);
}

void AddPackageCommands(CLI::App* root, Chosen* chosen) {
    AddPack(root, chosen);
    AddInspect(root, chosen);
}

}  // namespace kvtool
