// The commands of kvtool, as the command line hands them over.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"
#include "tools/package/check.h"
#include "tools/package/layout.h"

namespace kvtool {

struct PackCommand {
    std::string output;
    std::string ic;
    std::string sensor;
    std::vector<std::string> images;  // NAME=FILE
    bool force = false;
};

struct InspectCommand {
    std::string file;
    Identity device;  // what to check against
    bool json = false;
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
    bool force = false;          // send in spite of what the check of the package says
    bool forceIdentity = false;  // send to a device of another chip or sensor
    bool follow = true;
    std::optional<Millis> wait;         // how long to wait for the device to appear
    std::optional<uint16_t> alivePort;  // what the running application opens
    std::string expectVersion;          // empty: any
    UpgradeTimes times;
};

// Each prints its result to standard output, returns the exit code of the command, and throws
// ToolError where the command cannot go on.
ExitCode RunPack(const PackCommand& command, const Layout& layout);
ExitCode RunInspect(const InspectCommand& command, const Layout& layout);
ExitCode RunInfo(const DeviceCommand& command, const UpgradeTimes& times);
ExitCode RunUpgrade(const UpgradeCommand& command, const Layout& layout);
ExitCode RunDiscover(const DiscoveryRequest& request, bool json);

}  // namespace kvtool
