// Watches which devices there are: searches again and again and tells what has changed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/device/discovery_client.h"
#include "tools/device/match.h"

namespace kvtool {

struct WatchedDevice {
    FoundDevice found;  // as it answered last
    Millis silent{0};   // for so long it has been searched for in vain
};

struct DeviceChange {
    enum class Kind { kAppeared, kChanged, kGone };
    Kind kind;
    FoundDevice device;
    FoundDevice before;  // of kChanged
};

// Compares the answers of one search with those before. Knows no clock and no network.
class Presence {
  public:
    // A device is gone when it was silent for so long.
    explicit Presence(Millis goneAfter) : goneAfter_(goneAfter) {}

    // What the devices that answered within `listened` change. A device is known by its MAC
    // address, so that one with a new address is the same device; while several answer with one
    // MAC address, each is known by its address as well. A time of zero makes nobody silent.
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
};

// Searches round by round until `round` returns false, which it is asked after each. Time in which
// this PC cannot search makes no device silent. Throws ToolError(kInterrupted) after Ctrl-C.
void Watch(const WatchRequest& request, const std::function<bool(const WatchRound&)>& round);

}  // namespace kvtool
