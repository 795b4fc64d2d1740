// kvtool: what a technician runs on a PC against a camera in recovery mode.

#include <kv_version.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "common/kv_platform.h"
#include "tools/base/wait.h"
#include "tools/cli/commands.h"

namespace {

using kvtool::ExitCode;
using kvtool::Millis;

constexpr int kDefaultWaitSeconds = 300;
constexpr int kLongestSeconds = 86400;

struct Options {
    kvtool::PackCommand pack;
    kvtool::UpgradeCommand upgrade;
    kvtool::DeviceCommand info;
    kvtool::DiscoveryRequest discovery;
    std::string inspectFile;
    std::string layoutFile;
    std::vector<std::string> sizes;
    bool json = false;
    bool noFollow = false;
    uint16_t port = 0;
    double searchSeconds = 3;
    double connectSeconds = 5;
    double replySeconds = 5;
    double stallSeconds = 25;
    double verifySeconds = 60;
    double leaveSeconds = 600;
    double backSeconds = 120;
    int waitSeconds = 0;
};

Millis FromSeconds(double seconds) {
    return std::chrono::duration_cast<Millis>(std::chrono::duration<double>(seconds));
}

CLI::Option* AddSeconds(CLI::App* app, const char* name, double* value, const char* help) {
    return app->add_option(name, *value, help)
        ->capture_default_str()
        ->check(CLI::Range(0.1, static_cast<double>(kLongestSeconds)));
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
    app->add_option("file", options->inspectFile, "Package")->required();
    app->add_flag("--json", options->json, "Print JSON");
    AddLayout(app, options);
}

void AddInfo(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("info", "Ask a device in recovery mode who it is");
    app->add_option("host", options->info.host, "Address, name or MAC address")->required();
    app->add_flag("--json", options->json, "Print JSON");
    AddPort(app, options);
    AddSeconds(app, "--connect-timeout", &options->connectSeconds, "Seconds to connect");
    AddSeconds(app, "--reply-timeout", &options->replySeconds, "Seconds for each answer");
}

void AddUpgrade(CLI::App* root, Options* options) {
    CLI::App* app = root->add_subcommand("upgrade", "Send a package to a device in recovery mode");
    kvtool::UpgradeCommand& upgrade = options->upgrade;
    app->add_option("host", upgrade.device.host, "Address, name or MAC address")->required();
    app->add_option("file", upgrade.file, "Package")->required();
    app->add_flag("--force", upgrade.force, "Send in spite of objections");
    app->add_flag("--no-follow", options->noFollow, "End when the device has accepted");
    app->add_flag("--json", options->json, "Print JSON at the end, progress to standard error");
    AddPort(app, options);
    AddLayout(app, options);
    // A flag with a value, which never takes the word behind it: that word is the host.
    app->add_flag("--wait{" + std::to_string(kDefaultWaitSeconds) + "}", options->waitSeconds,
                  "Wait for the device to appear, --wait=SECONDS for a time of your own")
        ->check(CLI::Range(1, kLongestSeconds));
    AddSeconds(app, "--connect-timeout", &options->connectSeconds, "Seconds to connect");
    AddSeconds(app, "--reply-timeout", &options->replySeconds, "Seconds for each answer");
    AddSeconds(app, "--stall-timeout", &options->stallSeconds,
               "Seconds without anything acknowledged");
    AddSeconds(app, "--verify-timeout", &options->verifySeconds, "Seconds for the verdict");
    AddSeconds(app, "--leave-timeout", &options->leaveSeconds,
               "Seconds to see the device leave recovery mode");
    AddSeconds(app, "--back-timeout", &options->backSeconds,
               "Seconds to see it come back into recovery mode");
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
    AddSeconds(app, "--timeout", &options->searchSeconds, "Seconds to listen");
    app->add_option("--repeat", options->discovery.repeat, "Searches to send")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app->add_flag("--json", options->json, "Print JSON");
}

kvtool::UpgradeTimes TimesFrom(const Options& options) {
    kvtool::UpgradeTimes times;
    times.connect = FromSeconds(options.connectSeconds);
    times.reply = FromSeconds(options.replySeconds);
    times.stall = FromSeconds(options.stallSeconds);
    times.verify = FromSeconds(options.verifySeconds);
    times.leave = FromSeconds(options.leaveSeconds);
    times.back = FromSeconds(options.backSeconds);
    return times;
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
        return RunInspect(options->inspectFile, layout, options->json);
    }
    if (command == "info") {
        FillDevice(*options, &options->info);
        return RunInfo(options->info, TimesFrom(*options));
    }
    if (command == "discover") {
        options->discovery.timeout = FromSeconds(options->searchSeconds);
        return RunDiscover(options->discovery, options->json);
    }
    kvtool::UpgradeCommand& upgrade = options->upgrade;
    FillDevice(*options, &upgrade.device);
    upgrade.follow = !options->noFollow;
    upgrade.times = TimesFrom(*options);
    if (options->waitSeconds > 0) {
        upgrade.waitSeconds = options->waitSeconds;
    }
    return RunUpgrade(upgrade, layout);
}

int Run(int argc, char** argv) {
    Options options;
    CLI::App app("Upgrade packages and recovery of cameras that run upgradeMain");
    app.name("kvtool");
    app.set_version_flag("--version",
                         std::string("kvtool ") + kv::kVersion + ", built for " + kv::kDeviceName);
    app.require_subcommand(1);
    AddPack(&app, &options);
    AddInspect(&app, &options);
    AddInfo(&app, &options);
    AddUpgrade(&app, &options);
    AddDiscover(&app, &options);
    try {
        app.parse(argc, argv);
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
