// Looks at a device once from outside.
#pragma once

#include <cstdint>
#include <string>

#include "tools/device/tcp.h"

namespace kvtool {

enum class ProbeState {
    kRecovery,     // a login was answered
    kOther,        // the other end does not speak the protocol, or closed the connection
    kSilent,       // connected, but no answer in time
    kRefused,      // the host is there, the port is closed
    kUnreachable,  // no connection at all
    kBlind,        // this PC's own network is at fault; the device may be fine
};
struct ProbeResult {
    ProbeState state;
    uint32_t session = 0;  // when kRecovery: the session held before this login
    std::string text;      // what was seen, in words
};

// Connects to the command port and logs in on a new connection. `local` is the address of this PC
// that reached the device before (length 0: not known); a failure is kBlind while that address is
// not usable. Blocks for at most the sum of both time-outs.
ProbeResult Probe(const Endpoint& endpoint, const Endpoint& local, Millis connect, Millis reply);

enum class PortState {
    kOpen,
    kClosed,  // refused, or no connection in time
    kBlind,   // as above
};
// Whether this port of the endpoint's host accepts connections. Sends nothing.
PortState LookAtPort(const Endpoint& endpoint, uint16_t port, const Endpoint& local,
                     Millis timeout);

}  // namespace kvtool
