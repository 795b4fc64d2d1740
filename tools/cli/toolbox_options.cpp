#include <CLI/CLI.hpp>
#include <memory>

#include "tools/cli/command_line.h"
#include "tools/cli/toolbox_commands.h"

namespace kvtool {

namespace {

void AddExtract(CLI::App* root, Chosen* chosen) {
    const auto command = std::make_shared<ExtractCommand>();
    CLI::App* app = root->add_subcommand("extract", "Write the images of a package to files");
    app->add_option("file", command->file, "Package")->required()->type_name("FILE");
    app->add_option("names", command->names, "Entries or partitions (default: all)")
        ->type_name("NAME");
    app->add_option("-d,--directory", command->folder, "Folder to write to")
        ->required()
        ->type_name("DIR");
    app->add_flag("--force", command->force,
                  "Replace files; write the part of a cut image that is there");
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([command, chosen] {
        chosen->run = [command, chosen](Json* json) {
            command->json = chosen->json;
            return RunExtract(*command, json);
        };
    });
}

void AddDiff(CLI::App* root, Chosen* chosen) {
    const auto command = std::make_shared<DiffCommand>();
    CLI::App* app = root->add_subcommand("diff", "Compare two packages image by image");
    app->add_option("a", command->a, "Package")->required()->type_name("FILE");
    app->add_option("b", command->b, "Package to compare it with")->required()->type_name("FILE");
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([command, chosen] {
        chosen->compares = true;
        chosen->run = [command, chosen](Json* json) {
            command->json = chosen->json;
            return RunDiff(*command, json);
        };
    });
}

void AddVerify(CLI::App* root, Chosen* chosen) {
    const auto command = std::make_shared<VerifyCommand>();
    CLI::App* app = root->add_subcommand(
        "verify", "Compare dumps of the flash with what a package leaves there");
    app->add_option("file", command->file, "Package")->required()->type_name("FILE");
    app->add_option("dumps", command->dumps, "NAME=DUMP: partition and dump of its device")
        ->required()
        ->type_name("NAME=FILE");
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([command, chosen] {
        chosen->compares = true;
        chosen->run = [command, chosen](Json* json) {
            command->json = chosen->json;
            return RunVerify(*command, json);
        };
    });
}

}  // namespace

void AddToolboxCommands(CLI::App* root, Chosen* chosen) {
    AddExtract(root, chosen);
    AddDiff(root, chosen);
    AddVerify(root, chosen);
}

}  // namespace kvtool
