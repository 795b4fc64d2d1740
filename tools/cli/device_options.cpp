#include <CLI/CLI.hpp>
#include <memory>

#include "common/kv_platform.h"
#include "tools/cli/command_line.h"
#include "tools/cli/commands.h"
#include "tools/cli/conform_command.h"
#include "tools/device/match.h"

namespace kvtool {

namespace {

constexpr double kLongestSeconds = 86400;

// The values of --port and of the time-outs.
struct DeviceOptions {
    uint16_t port = 0;
    UpgradeTimes times;

    void Fill(DeviceCommand* device) const {
        if (port != 0) {
            device->port = port;
        }
        device->discoveryPort = kv::kDiscoveryPort;
    }
};

Millis FromSeconds(double seconds) {
    return std::chrono::duration_cast<Millis>(std::chrono::duration<double>(seconds));
}

void AddConnection(CLI::App* app, DeviceCommand* device, DeviceOptions* options) {
    app->add_option("host", device->host, "Address, name or MAC address")
        ->required()
        ->type_name("HOST");
    app->add_option("--port", options->port, "TCP port (default: 80, or as discovered)")
        ->check(CLI::Range(1, 65535));
    AddAnswerTimes(app, &options->times);
}

void AddInfo(CLI::App* root, Chosen* chosen) {
    struct Info {
        DeviceCommand command;
        DeviceOptions options;
    };
    const auto info = std::make_shared<Info>();
    CLI::App* app = root->add_subcommand("info", "Ask a device in recovery mode for its identity");
    AddConnection(app, &info->command, &info->options);
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([info, chosen] {
        chosen->run = [info, chosen](Json* json) {
            info->options.Fill(&info->command);
            info->command.json = chosen->json;
            return RunInfo(info->command, info->options.times, json);
        };
    });
}

void AddUpgrade(CLI::App* root, Chosen* chosen) {
    struct Upgrade {
        UpgradeCommand command;
        DeviceOptions options;
        LayoutOptions layout;
        bool noFollow = false;
        uint16_t alivePort = 0;
        double waitSeconds = 0;
    };
    const auto upgrade = std::make_shared<Upgrade>();
    UpgradeCommand& command = upgrade->command;
    CLI::App* app = root->add_subcommand("upgrade", "Send a package to a device in recovery mode");
    AddConnection(app, &command.device, &upgrade->options);
    app->add_option("file", command.file, "Package")->required()->type_name("FILE");
    app->add_flag("--force", command.force, "Send in spite of errors found in the package");
    app->add_flag("--force-identity", command.forceIdentity,
                  "Send even if the chip or sensor type differs");
    app->add_flag("--no-follow", upgrade->noFollow, "End once the device has accepted the package");
    app->add_flag("--json", chosen->json, "Print JSON at the end, progress on standard error");
    AddLayout(app, &upgrade->layout);
    AddTrust(app, &command.trust);
    // A flag with a value. A number in the next word has already been joined to it.
    app->add_flag("--wait{300}", upgrade->waitSeconds,
                  "Wait until the device appears; --wait SECONDS sets the time")
        ->check(CLI::Range(0.1, kLongestSeconds));
    app->add_option("--expect-port", upgrade->alivePort,
                    "TCP port that the running application opens (default: RTSP, as discovered)")
        ->check(CLI::Range(1, 65535));
    app->add_option("--expect-version", command.expectVersion,
                    "Firmware version that the running application must name in a search reply");
    AddUpgradeTimes(app, &upgrade->options.times);
    app->callback([upgrade, chosen] {
        chosen->run = [upgrade, chosen](Json* json) {
            UpgradeCommand& chosenCommand = upgrade->command;
            upgrade->options.Fill(&chosenCommand.device);
            chosenCommand.device.json = chosen->json;
            chosenCommand.follow = !upgrade->noFollow;
            chosenCommand.times = upgrade->options.times;
            if (upgrade->waitSeconds > 0) {
                chosenCommand.wait = FromSeconds(upgrade->waitSeconds);
            }
            if (upgrade->alivePort != 0) {
                chosenCommand.alivePort = upgrade->alivePort;
            }
            return RunUpgrade(chosenCommand, upgrade->layout.Make(), json);
        };
    });
}

void AddDiscover(CLI::App* root, Chosen* chosen) {
    const auto discover = std::make_shared<DiscoverCommand>();
    DiscoveryRequest& request = discover->request;
    CLI::App* app = root->add_subcommand("discover", "Find devices in recovery mode");
    request.port = kv::kDiscoveryPort;
    app->add_option("host", request.host, "Search one address instead of broadcasting")
        ->type_name("HOST");
    app->add_option("--interface", request.interfaces, "Broadcast here only")
        ->allow_extra_args(false);
    app->add_option(
           "--match", discover->match,
           "List only devices that match FIELD=GLOB, a shell pattern for one of " + MatchFields())
        ->allow_extra_args(false);
    app->add_option("--port", request.port, "UDP port")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    AddSeconds(app, "--timeout", &request.timeout, "Seconds to listen; 1 per round with --watch");
    app->add_option("--repeat", request.repeat, "Searches to send; 1 per round with --watch")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    CLI::Option* watch =
        app->add_flag("--watch", discover->watch, "Search until Ctrl-C and show changes");
    AddSeconds(app, "--gone-after", &discover->goneAfter,
               "Seconds of silence after which a device is gone");
    app->get_option("--gone-after")->needs(watch);
    app->add_flag("-v,--verbose", discover->verbose, "Print everything that each device says")
        ->excludes(watch);
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([app, discover, chosen] {
        if (discover->watch && app->count("--timeout") == 0) {
            discover->request.timeout = Millis(1000);
        }
        if (discover->watch && app->count("--repeat") == 0) {
            discover->request.repeat = 1;
        }
        chosen->run = [discover, chosen](Json* json) {
            discover->json = chosen->json;
            return RunDiscover(*discover, json);
        };
    });
}

void AddConform(CLI::App* root, Chosen* chosen) {
    const auto conform = std::make_shared<WithLayout<ConformCommand>>();
    ConformCommand& command = conform->command;
    conform::ConformRequest& request = command.request;
    request.commandPort = kv::kProtocolPort;
    request.discoveryPort = kv::kDiscoveryPort;
    CLI::App* app = root->add_subcommand(
        "conform", "Try the protocol's rules on a device in recovery mode, or on an imitation");
    app->add_option("host", request.host, "Address or name")->required()->type_name("HOST");
    app->add_option("--port", request.commandPort, "TCP port of the commands")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    app->add_option("--discovery-port", request.discoveryPort, "UDP port of discovery")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    AddSeconds(app, "--connect-timeout", &request.times.connect, "Seconds to connect");
    AddSeconds(app, "--reply-timeout", &request.times.reply, "Seconds for each answer");
    CLI::Option* destructive =
        app->add_flag("--destructive", request.destructive, "Try uploads too; the device restarts");
    app->add_option(
           "--package", command.package,
           "Package to upload, which the device flashes (default: one that writes nothing)")
        ->type_name("FILE")
        ->needs(destructive);
    AddLayout(app, &conform->layout);
    AddSeconds(app, "--back-timeout", &request.restart,
               "Seconds for the device to restart after a refused upload");
    app->add_option("--transcript", command.transcript, "Write all bytes exchanged to a file")
        ->type_name("FILE");
    app->add_flag("--json", chosen->json, "Print JSON");
    app->callback([conform, chosen] {
        chosen->run = [conform, chosen](Json* json) {
            conform->command.json = chosen->json;
            return RunConform(conform->command, conform->layout.Make(), json);
        };
    });
}

}  // namespace

void AddSeconds(CLI::App* app, const char* name, Millis* value, const char* help) {
    const double seconds = Seconds(*value);
    app->add_option_function<double>(
           name, [value](const double& given) { *value = FromSeconds(given); }, help)
        ->default_str(CLI::detail::to_string(seconds))
        ->check(CLI::Range(0.1, kLongestSeconds));
}

void AddAnswerTimes(CLI::App* app, UpgradeTimes* times) {
    AddSeconds(app, "--connect-timeout", &times->connect, "Seconds to connect");
    AddSeconds(app, "--reply-timeout", &times->reply, "Seconds for each answer");
}

void AddUpgradeTimes(CLI::App* app, UpgradeTimes* times) {
    AddSeconds(app, "--stall-timeout", &times->stall, "Seconds without an acknowledged byte");
    AddSeconds(app, "--verify-timeout", &times->verify,
               "Seconds for the device to accept or reject the package");
    AddSeconds(app, "--leave-timeout", &times->leave,
               "Seconds to see the device leave recovery mode");
    AddSeconds(app, "--back-timeout", &times->back, "Seconds after that to see it alive");
}

void AddDeviceCommands(CLI::App* root, Chosen* chosen) {
    AddInfo(root, chosen);
    AddUpgrade(root, chosen);
    AddDiscover(root, chosen);
    AddConform(root, chosen);
}

}  // namespace kvtool
