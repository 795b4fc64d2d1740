// The commands that talk to devices, after the command line is parsed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"
#include "tools/package/layout.h"
#include "tools/package/signature.h"

namespace kvtool {

struct DeviceCommand {
    std::string host;  // an address, a name, or a MAC address to search for
    std::optional<uint16_t> port;
    uint16_t discoveryPort = 0;
    bool json = false;
};

struct UpgradeCommand {
    DeviceCommand device;
    std::string file;
    bool force = false;          // send in spite of errors found in the package
    bool forceIdentity = false;  // send even if the chip or sensor type differs
    bool follow = true;
    std::optional<Millis> wait;         // how long to wait for the device to appear
    std::optional<uint16_t> alivePort;  // port that the running application opens
    std::string expectVersion;          // empty: any
    Trust trust;
    UpgradeTimes times;
};

struct DiscoverCommand {
    DiscoveryRequest request;
    std::vector<std::string> match;  // conditions of a Matcher
    bool watch = false;
    Millis goneAfter{10000};  // of a watch
    bool verbose = false;
    bool json = false;
};

// Each prints its result to standard output unless the command asks for JSON, and returns the exit
// code of the command. Each throws ToolError if it cannot continue. *json gets each fact as soon as
// it is known, so it is correct after a failure too.
ExitCode RunInfo(const DeviceCommand& command, const UpgradeTimes& times, Json* json);
ExitCode RunUpgrade(const UpgradeCommand& command, const Layout& layout, Json* json);
ExitCode RunDiscover(const DiscoverCommand& command, Json* json);

}  // namespace kvtool
