#include <CLI/CLI.hpp>
#include <memory>

#include "tools/cli/command_line.h"
#include "tools/cli/ladder_command.h"

namespace kvtool {

void AddLadderCommand(CLI::App* root, Chosen* chosen) {
    const auto command = std::make_shared<LadderCommand>();
    CLI::App* app = root->add_subcommand(
        "ladder", "Show what the supervisor does when the application falls silent");
    CLI::Option* script = app->add_option(
        "--script", command->script, "What the application does: 'beat 60s, silent 200s, beat'");
    script->type_name("TEXT");
    app->add_option("--log", command->logs, "Heartbeat log or trace log, instead of a script")
        ->type_name("FILE")
        ->excludes(script);
    app->add_option("--svg", command->svg, "Also write a picture")->type_name("FILE");
    app->add_option("--for", command->limit, "Longest time to replay (default: 24h)")
        ->type_name("TIME");
    app->add_flag("--what-if", command->whatIf, "Show how late each heartbeat could have come");
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([command, chosen] {
        chosen->run = [command, chosen](Json* json) {
            command->json = chosen->json;
            return RunLadder(*command, json);
        };
    });
}

}  // namespace kvtool
