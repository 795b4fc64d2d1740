// The commands that upgrade many devices, as the command line hands them over.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/cli/load_package.h"
#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"

namespace kvtool {

// What upgrade and watch have in common.
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
    std::string from;  // file with a host a line
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

// As those of commands.h. With JSON, events stand on lines of their own in front of the result.
ExitCode RunFleetUpgrade(const FleetUpgradeCommand& command, const Layout& layout, Json* json);
ExitCode RunFleetWatch(const FleetCommand& command, const Layout& layout, Json* json);
ExitCode RunFleetReport(const FleetReportCommand& command, Json* json);

}  // namespace kvtool
