// Finds devices in recovery mode through their discovery service.
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
    std::vector<std::string> interfaces;  // where to broadcast; empty: on all that can
    uint16_t port = 0;
    Millis timeout{3000};  // total time to listen
    int repeat = 3;        // searches sent, spread over the first half of that time
};

struct FoundDevice {
    DiscoveryReply reply;
    std::vector<std::string> senders;  // addresses that its replies came from
    bool conflict = false;             // another device has its MAC address or one of its addresses

    // Where to reach it: the address that it names if it answered from there, otherwise one that it
    // did answer from.
    const std::string& Address() const;
    // "recovery" or "conflict".
    const char* State() const { return conflict ? "conflict" : "recovery"; }
};

struct DiscoveryResult {
    std::vector<FoundDevice> devices;
    std::map<std::string, int> malformed;  // "10.0.0.1: wrong magic" -> how many
    std::vector<std::string> problems;     // searches that could not be sent, and why
    int sent = 0;                          // search datagrams sent
};

// Blocks for the whole time, or until `enough` (may be empty) returns true for a device found, or
// until the one host of the request has answered. Lists each device once, however many replies it
// sends. Throws ToolError(kUnreachable) if no interface can carry a broadcast or the host has no
// IPv4 address.
DiscoveryResult Discover(const DiscoveryRequest& request,
                         const std::function<bool(const FoundDevice&)>& enough);

// The same on sockets that stay open between searches. Late answers are not lost.
DiscoveryResult Discover(const SearchSockets& sockets, const DiscoveryRequest& request,
                         const std::function<bool(const FoundDevice&)>& enough);

struct SearchInterface {
    std::string name;
    std::string address;
};
// The interfaces that a broadcast goes out on, of `wanted` or, if that is empty, of all.
std::vector<SearchInterface> SearchInterfaces(const std::vector<std::string>& wanted);

// One sentence for each MAC address that more than one of the devices names, and for each address
// that more than one names or answers from.
std::vector<std::string> Conflicts(const DiscoveryResult& result);

// The devices whose upgrade could go to another one, by MAC address, with the reason: a device
// names the same MAC address or answers from the same address.
std::map<std::string, std::string> Confusable(const DiscoveryResult& result);

// The device with this MAC address among those that answer a broadcast, or null.
const FoundDevice* FindMac(const DiscoveryResult& result, const std::string& mac);

// Asks one address. Returns nothing if no valid reply comes in time or the host has no IPv4
// address.
std::optional<DiscoveryReply> AskAt(const std::string& host, uint16_t port, Millis timeout);

}  // namespace kvtool
