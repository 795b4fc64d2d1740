// The commands that upgrade many devices, with their parsed options.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/cli/load_package.h"
#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"

namespace kvtool {

// The options that upgrade and watch share.
struct FleetCommand {
    PackageChoice package;
    std::vector<std::string> match;  // FIELD=GLOB
    size_t jobs = 20;
    int retries = 0;
    std::string journal;
    DiscoveryRequest discovery;
    std::optional<uint16_t> port;
    std::optional<uint16_t> alivePort;
    std::string expectVersion;
    UpgradeTimes times;
    bool json = false;
};

struct FleetUpgradeCommand : FleetCommand {
    bool all = false;
    std::string from;  // file with one host per line
    std::vector<std::string> hosts;
    size_t canaries = 0;
    size_t maxFailures = 0;
    bool resume = false;
    bool dryRun = false;
    bool yes = false;
};

struct FleetReportCommand {
    std::string journal;
    bool csv = false;
    bool html = false;
    bool json = false;
};

// Like the functions of commands.h. With JSON, each event is a line before the result.
ExitCode RunFleetUpgrade(const FleetUpgradeCommand& command, const Layout& layout, Json* json);
ExitCode RunFleetWatch(const FleetCommand& command, const Layout& layout, Json* json);
ExitCode RunFleetReport(const FleetReportCommand& command, Json* json);

}  // namespace kvtool
