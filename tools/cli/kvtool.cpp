// kvtool: what a technician runs on a PC against a camera in recovery mode.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <regex>

#include "common/kv_platform.h"
#include "tools/base/wait.h"
#include "tools/cli/commands.h"

namespace {

using kvtool::ExitCode;
using kvtool::Millis;

constexpr double kLongestSeconds = 86400;

struct Options {
    kvtool::PackCommand pack;
    kvtool::UpgradeCommand upgrade;
    kvtool::DeviceCommand info;
    kvtool::DiscoveryRequest discovery;
    kvtool::InspectCommand inspect;
    std::string layoutFile;
    std::vector<std::string> sizes;
    bool json = false;
    bool noFollow = false;
    uint16_t port = 0;
    uint16_t expectPort = 0;
    kvtool::UpgradeTimes times;
    double waitSeconds = 0;
};

Millis FromSeconds(double seconds) {
    return std::chrono::duration_cast<Millis>(std::chrono::duration<double>(seconds));
}

// The default is what stands in *value.
CLI::Option* AddSeconds(CLI::App* app, const char* name, Millis* value, const char* help) {
    const double seconds = std::chrono::duration<double>(*value).count();
    return app
        ->add_option_function<double>(
            name, [value](const double& given) { *value = FromSeconds(given); }, help)
        ->default_str(CLI::detail::to_string(seconds))
        ->check(CLI::Range(0.1, kLongestSeconds));
}

void AddLayout(CLI::App* app, Options* options) {
    app->add_option("--layout", options->layoutFile, "File of partition sizes, NAME=BYTES a line");
    app->add_option("--size", options->sizes, "Size of one partition, NAME=BYTES (K, M, G allowed)")
        ->allow_extra_args(false);
}

void AddPort(CLI::App* app, Options* options) {
    app->add_option("--port", options->port, "TCP port (default: 80, or as discovered)")
        ->check(CLI::Range(1, 65535));
}

void AddPack(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("pack", "Build an upgrade package");
    options->pack.ic = kv::kIcType;
    options->pack.sensor = kv::kSensorType;
    app->add_option("-o,--output", options->pack.output, "Package to write")->required();
    app->add_option("--ic", options->pack.ic, "Chip type")->capture_default_str();
    app->add_option("--sensor", options->pack.sensor, "Sensor type")->capture_default_str();
    app->add_flag("--force", options->pack.force, "Build in spite of objections");
    AddLayout(app, options);
    app->add_option("images", options->pack.images, "NAME=IMAGE: entry name and image file")
        ->required();
}

void AddInspect(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("inspect", "Show what a device would make of a package");
    app->add_option("file", options->inspect.file, "Package")->required();
    app->add_option("--ic", options->inspect.device.ic, "Chip type of the device to check for");
    app->add_option("--sensor", options->inspect.device.sensor,
                    "Sensor type of the device to check for");
    app->add_flag("--json", options->inspect.json, "Print JSON");
    AddLayout(app, options);
}

void AddInfo(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("info", "Ask a device in recovery mode who it is");
    app->add_option("host", options->info.host, "Address, name or MAC address")->required();
    app->add_flag("--json", options->json, "Print JSON");
    AddPort(app, options);
    AddSeconds(app, "--connect-timeout", &options->times.connect, "Seconds to connect");
    AddSeconds(app, "--reply-timeout", &options->times.reply, "Seconds for each answer");
}

void AddUpgrade(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("upgrade", "Send a package to a device in recovery mode");
    kvtool::UpgradeCommand& upgrade = options->upgrade;
    app->add_option("host", upgrade.device.host, "Address, name or MAC address")->required();
    app->add_option("file", upgrade.file, "Package")->required();
    app->add_flag("--force", upgrade.force, "Send in spite of objections to the package");
    app->add_flag("--force-identity", upgrade.forceIdentity,
                  "Send to a device of another chip or sensor type");
    app->add_flag("--no-follow", options->noFollow, "End when the device has accepted");
    app->add_flag("--json", options->json, "Print JSON at the end, progress to standard error");
    AddPort(app, options);
    AddLayout(app, options);
    // A flag with a value: what may stand behind it is settled in JoinWaitTime.
    app->add_flag("--wait{300}", options->waitSeconds,
                  "Wait for the device to appear, --wait SECONDS for a time of your own")
        ->check(CLI::Range(0.1, kLongestSeconds));
    app->add_option("--expect-port", options->expectPort,
                    "TCP port that the running application opens (default: RTSP, as discovered)")
        ->check(CLI::Range(1, 65535));
    app->add_option("--expect-version", upgrade.expectVersion,
                    "Firmware version that the running application tells a search");
    AddSeconds(app, "--connect-timeout", &options->times.connect, "Seconds to connect");
    AddSeconds(app, "--reply-timeout", &options->times.reply, "Seconds for each answer");
    AddSeconds(app, "--stall-timeout", &options->times.stall,
               "Seconds without anything acknowledged");
    AddSeconds(app, "--verify-timeout", &options->times.verify, "Seconds for the verdict");
    AddSeconds(app, "--leave-timeout", &options->times.leave,
               "Seconds to see the device leave recovery mode");
    AddSeconds(app, "--back-timeout", &options->times.back, "Seconds from there to see it alive");
}

void AddDiscover(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("discover", "Find devices in recovery mode");
    options->discovery.port = kv::kDiscoveryPort;
    app->add_option("host", options->discovery.host, "Search one address instead of broadcasting");
    app->add_option("--interface", options->discovery.interfaces, "Broadcast here only")
        ->allow_extra_args(false);
    app->add_option("--port", options->discovery.port, "UDP port")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    AddSeconds(app, "--timeout", &options->discovery.timeout, "Seconds to listen");
    app->add_option("--repeat", options->discovery.repeat, "Searches to send")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app->add_flag("--json", options->json, "Print JSON");
}

void FillDevice(const Options& options, kvtool::DeviceCommand* device) {
    if (options.port != 0) {
        device->port = options.port;
    }
    device->discoveryPort = kv::kDiscoveryPort;
    device->json = options.json;
}

ExitCode Dispatch(const CLI::App& app, Options* options) {
    kvtool::Layout layout = kvtool::Layout::Default();
    if (!options->layoutFile.empty()) {
        layout.ReadFile(options->layoutFile);
    }
    for (const std::string& size : options->sizes) {
        layout.SetSize(size);
    }
    const std::string command = app.get_subcommands().front()->get_name();
    if (command == "pack") {
        return RunPack(options->pack, layout);
    }
    if (command == "inspect") {
        return RunInspect(options->inspect, layout);
    }
    if (command == "info") {
        FillDevice(*options, &options->info);
        return RunInfo(options->info, options->times);
    }
    if (command == "discover") {
        return RunDiscover(options->discovery, options->json);
    }
    kvtool::UpgradeCommand& upgrade = options->upgrade;
    FillDevice(*options, &upgrade.device);
    upgrade.follow = !options->noFollow;
    upgrade.times = options->times;
    if (options->waitSeconds > 0) {
        upgrade.wait = FromSeconds(options->waitSeconds);
    }
    if (options->expectPort != 0) {
        upgrade.alivePort = options->expectPort;
    }
    return RunUpgrade(upgrade, layout);
}

// "--wait 5" becomes "--wait=5". The word behind a bare --wait may also be the host: it is the time
// when it is a number of at most five digits, with a fraction or not.
std::vector<std::string> JoinWaitTime(int argc, char** argv) {
    const std::regex time("[0-9]{1,5}(\\.[0-9]+)?");
    std::vector<std::string> words;
    bool options = true;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        options = options && word != "--";
        if (options && !words.empty() && words.back() == "--wait" && std::regex_match(word, time)) {
            words.back() += "=" + word;
        } else {
            words.push_back(word);
        }
    }
    // The parser takes its words from the back.
    std::reverse(words.begin(), words.end());
    return words;
}

int Run(int argc, char** argv) {
    Options options;
    CLI::App app("Upgrade packages and recovery of cameras that run upgradeMain");
    app.name("kvtool");
    app.require_subcommand(1);
    AddPack(&app, &options);
    AddInspect(&app, &options);
    AddInfo(&app, &options);
    AddUpgrade(&app, &options);
    AddDiscover(&app, &options);
    try {
        app.parse(JoinWaitTime(argc, argv));
    } catch (const CLI::ParseError& error) {
        return static_cast<int>(app.exit(error) == 0 ? ExitCode::kDone : ExitCode::kUsage);
    }
    kvtool::CatchInterrupts();
    ExitCode code = Dispatch(app, &options);
    std::cout.flush();
    if (!std::cout) {
        throw kvtool::ToolError(ExitCode::kInternal, "cannot write to standard output");
    }
    return static_cast<int>(code);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const kvtool::ToolError& error) {
        std::cerr << "kvtool: " << error.what() << '\n';
        return static_cast<int>(error.Code());
    } catch (const std::exception& error) {
        std::cerr << "kvtool: internal error: " << error.what() << '\n';
        return static_cast<int>(ExitCode::kInternal);
    }
}
