#include <CLI/CLI.hpp>
#include <memory>

#include "common/kv_platform.h"
#include "tools/cli/command_line.h"
#include "tools/cli/fleet_commands.h"

namespace kvtool {

namespace {

constexpr int kMostJobs = 500;

void AddPort(CLI::App* app, const char* name, std::optional<uint16_t>* port, const char* help) {
    app->add_option_function<uint16_t>(
           name, [port](const uint16_t& given) { *port = given; }, help)
        ->check(CLI::Range(1, 65535));
}

void AddCommon(CLI::App* app, FleetCommand* command, LayoutOptions* layout, Chosen* chosen) {
    command->discovery.port = kv::kDiscoveryPort;
    app->add_option("file", command->package.file, "Package")->required()->type_name("FILE");
    app->add_option("--match", command->match, "Only devices whose field matches, FIELD=GLOB")
        ->allow_extra_args(false);
    app->add_option("--jobs", command->jobs, "Upgrades at a time")
        ->capture_default_str()
        ->check(CLI::Range(1, kMostJobs));
    app->add_option("--retry", command->retries,
                    "More attempts at a device that has accepted nothing")
        ->capture_default_str()
        ->check(CLI::Range(0, 1000));
    app->add_option("--journal", command->journal,
                    "Journal (default: the package's name with .journal, in this folder)")
        ->type_name("FILE");
    app->add_flag("--force", command->package.force,
                  "Send in spite of errors found in the package");
    app->add_flag("--json", chosen->json, "Print events and the result as lines of JSON");
    AddLayout(app, layout);
    AddTrust(app, &command->package.trust);
    app->add_option("--interface", command->discovery.interfaces, "Search on this interface only")
        ->allow_extra_args(false);
    AddPort(app, "--port", &command->port, "TCP port (default: as discovered)");
    AddPort(app, "--expect-port", &command->alivePort,
            "TCP port that the running application opens (default: RTSP, as discovered)");
    app->add_option("--expect-version", command->expectVersion,
                    "Firmware version that the running application must name in a search reply");
    AddAnswerTimes(app, &command->times);
    AddUpgradeTimes(app, &command->times);
}

void AddFleetUpgrade(CLI::App* fleet, Chosen* chosen) {
    const auto options = std::make_shared<WithLayout<FleetUpgradeCommand>>();
    FleetUpgradeCommand& command = options->command;
    CLI::App* app = fleet->add_subcommand("upgrade", "Upgrade many devices with one package");
    AddCommon(app, &command, &options->layout, chosen);
    app->add_option("hosts", command.hosts, "Addresses, names or MAC addresses")->type_name("HOST");
    app->add_flag("--all", command.all, "Every device that answers a search");
    app->add_option("--from", command.from, "File with one HOST per line")->type_name("FILE");
    app->add_option("--canary", command.canaries,
                    "Start the others only after this many were seen alive")
        ->capture_default_str()
        ->check(CLI::Range(0, kMostJobs));
    app->add_option("--max-failures", command.maxFailures,
                    "Start no more once this many have failed (0: no limit)")
        ->capture_default_str()
        ->check(CLI::Range(0, 100000));
    app->add_flag("--resume", command.resume, "Continue the run in the journal");
    app->add_flag("--dry-run", command.dryRun, "Show the plan and end");
    app->add_flag("--yes", command.yes, "Do not ask whether to begin");
    app->callback([options, chosen] {
        chosen->run = [options, chosen](Json* json) {
            options->command.json = options->command.package.json = chosen->json;
            return RunFleetUpgrade(options->command, options->layout.Make(), json);
        };
    });
}

void AddFleetWatch(CLI::App* fleet, Chosen* chosen) {
    const auto options = std::make_shared<WithLayout<FleetCommand>>();
    CLI::App* app =
        fleet->add_subcommand("watch", "Upgrade each device that appears and is not done yet");
    AddCommon(app, &options->command, &options->layout, chosen);
    app->get_option("--journal")->required()->description("Journal, continued or created");
    app->callback([options, chosen] {
        chosen->run = [options, chosen](Json* json) {
            options->command.json = options->command.package.json = chosen->json;
            return RunFleetWatch(options->command, options->layout.Make(), json);
        };
    });
}

void AddFleetReport(CLI::App* fleet, Chosen* chosen) {
    const auto command = std::make_shared<FleetReportCommand>();
    CLI::App* app = fleet->add_subcommand("report", "Report on each device in a journal");
    app->add_option("journal", command->journal, "Journal")->required()->type_name("FILE");
    CLI::Option* const csv = app->add_flag("--csv", command->csv, "Print CSV");
    CLI::Option* const html =
        app->add_flag("--html", command->html, "Print an HTML page")->excludes(csv);
    app->add_flag("--json", chosen->json, "Print JSON")->excludes(csv)->excludes(html);
    app->callback([command, chosen] {
        chosen->run = [command, chosen](Json* json) {
            command->json = chosen->json;
            return RunFleetReport(*command, json);
        };
    });
}

}  // namespace

void AddFleetCommands(CLI::App* root, Chosen* chosen) {
    CLI::App* const fleet = root->add_subcommand("fleet", "Upgrade many devices");
    fleet->require_subcommand(1);
    AddFleetUpgrade(fleet, chosen);
    AddFleetWatch(fleet, chosen);
    AddFleetReport(fleet, chosen);
}

}  // namespace kvtool
