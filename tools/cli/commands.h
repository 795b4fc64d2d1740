// The commands of kvtool, as the command line hands them over.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"
#include "tools/package/layout.h"

namespace kvtool {

struct PackCommand {
    std::string output;
    std::string ic;
    std::string sensor;
    std::vector<std::string> images;  // NAME=FILE
    bool force = false;
};

struct DeviceCommand {
    std::string host;  // an address, a name, or a MAC address that is searched for first
    std::optional<uint16_t> port;
    uint16_t discoveryPort = 0;
    bool json = false;
};

struct UpgradeCommand {
    DeviceCommand device;
    std::string file;
    bool force = false;
    bool follow = true;
    std::optional<int> waitSeconds;  // how long to wait for the device to appear
    UpgradeTimes times;
};

// Each prints its result to standard output, returns the exit code of the command, and throws
// ToolError where the command cannot go on.
ExitCode RunPack(const PackCommand& command, const Layout& layout);
ExitCode RunInspect(const std::string& file, const Layout& layout, bool json);
ExitCode RunInfo(const DeviceCommand& command, const UpgradeTimes& times);
ExitCode RunUpgrade(const UpgradeCommand& command, const Layout& layout);
ExitCode RunDiscover(const DiscoveryRequest& request, bool json);

}  // namespace kvtool
