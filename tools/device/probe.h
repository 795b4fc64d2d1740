// Single looks at a device from outside.
#pragma once

#include <cstdint>
#include <string>

#include "tools/device/tcp.h"

namespace kvtool {

enum class ProbeState {
    kRecovery,     // a login was answered
    kOther,        // something is there that does not speak the protocol, or closed at once
    kSilent,       // connected, but no answer in time
    kRefused,      // the host is there, the port is closed
    kUnreachable,  // no connection at all
    kBlind,        // this PC's own network is at fault; nothing is known of the device
};
struct ProbeResult {
    ProbeState state;
    uint32_t session = 0;  // when kRecovery: the session held before this login
    std::string text;      // what was seen, in words
};

// Connects to the command port and logs in on a connection of its own. `local` is the address of
// this PC that led to the device before (length 0: not known); a failure counts as kBlind while it
// is not usable. Blocks for at most both time-outs.
ProbeResult Probe(const Endpoint& endpoint, const Endpoint& local, Millis connect, Millis reply);

enum class PortState {
    kOpen,
    kClosed,  // refused, or no connection in time
    kBlind,   // as above
};
// Whether the port of the endpoint's host takes connections. Sends nothing on one.
PortState LookAtPort(const Endpoint& endpoint, uint16_t port, const Endpoint& local,
                     Millis timeout);

}  // namespace kvtool
