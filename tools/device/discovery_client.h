// Finds devices in recovery mode by their discovery service.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/wait.h"
#include "tools/device/discovery_reply.h"
#include "tools/device/search_sockets.h"

namespace kvtool {

struct DiscoveryRequest {
    std::string host;                     // one device by its address; empty: broadcast
    std::vector<std::string> interfaces;  // where to broadcast; empty: wherever it is possible
    uint16_t port = 0;
    Millis timeout{3000};  // how long to listen in all
    int repeat = 3;        // searches sent, spread over the first half of that time
};

struct FoundDevice {
    DiscoveryReply reply;
    std::vector<std::string> senders;  // addresses that its replies came from
    bool conflict = false;             // another device names its MAC address or its address

    // Where to reach it: the address that it names, or one that it was seen to answer from.
    const std::string& Address() const;
    // "recovery" or "conflict".
    const char* State() const { return conflict ? "conflict" : "recovery"; }
};

struct DiscoveryResult {
    std::vector<FoundDevice> devices;
    std::map<std::string, int> malformed;  // "10.0.0.1: wrong magic" -> how many
    std::vector<std::string> problems;     // searches that could not be sent, and why
    int sent = 0;                          // search datagrams that left
};

// Blocks for the whole time, or until `enough` (may be empty) says so of a device found, or until
// the host asked for has answered itself.
// A device is listed once whatever the number of its replies. Throws ToolError(kUnreachable) when
// no interface can carry a broadcast or the host has no IPv4 address.
DiscoveryResult Discover(const DiscoveryRequest& request,
                         const std::function<bool(const FoundDevice&)>& enough);

// The same on sockets that stay open from one search to the next, so that no late answer is lost.
DiscoveryResult Discover(const SearchSockets& sockets, const DiscoveryRequest& request,
                         const std::function<bool(const FoundDevice&)>& enough);

// One sentence for each MAC address and each address that more than one of the devices names.
std::vector<std::string> Conflicts(const DiscoveryResult& result);

// The device with this MAC address among those that answer a broadcast, or null.
const FoundDevice* FindMac(const DiscoveryResult& result, const std::string& mac);

// Asks one address; nothing when no trustworthy reply comes in time or it has no IPv4 address.
std::optional<DiscoveryReply> AskAt(const std::string& host, uint16_t port, Millis timeout);

}  // namespace kvtool
