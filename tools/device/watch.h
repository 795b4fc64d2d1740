// Searches again and again and reports which devices have appeared, changed or gone.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/device/discovery_client.h"
#include "tools/device/match.h"

namespace kvtool {

struct WatchedDevice {
    FoundDevice found;  // as it answered last
    Millis silent{0};   // time of searches that it did not answer
};

struct DeviceChange {
    enum class Kind { kAppeared, kChanged, kGone };
    Kind kind;
    FoundDevice device;
    FoundDevice before;  // only for kChanged
};

// Compares the answers of one search with earlier ones. Uses no clock and no network.
class Presence {
  public:
    // A device is gone once it has been silent for this time.
    explicit Presence(Millis goneAfter) : goneAfter_(goneAfter) {}

    // Takes the answers of a search that lasted `listened`, and returns what they change. A device
    // is recognized by its MAC address: with a new address it is still the same device. While
    // several devices answer with one MAC address, their addresses tell them apart. If `listened`
    // is zero, no device becomes silent.
    std::vector<DeviceChange> Take(const std::vector<FoundDevice>& answers, Millis listened);

    const std::vector<WatchedDevice>& Devices() const { return devices_; }

  private:
    Millis goneAfter_;
    std::vector<WatchedDevice> devices_;
};

struct WatchRequest {
    DiscoveryRequest search;  // one round, which takes its `timeout`
    Matcher matcher;          // devices that do not match count as silent
    Millis goneAfter{10000};
};

struct WatchRound {
    const std::vector<WatchedDevice>& devices;
    std::vector<DeviceChange> changes;
    // Conflicts of all devices, and what kept this PC from searching.
    std::vector<std::string> warnings;
    const DiscoveryResult& search;  // of this round; only the devices that match
};

// Searches round by round. Calls `round` after each, until it returns false. Time in which this PC
// cannot search does not count as silence. Throws ToolError(kInterrupted) after Ctrl-C.
void Watch(const WatchRequest& request, const std::function<bool(const WatchRound&)>& round);

}  // namespace kvtool
