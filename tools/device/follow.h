// Watches a device from outside: whether it serves recovery mode, and what it does after an
// accepted upgrade, of which it tells nothing itself.
#pragma once

#include <cstdint>
#include <string>

#include "tools/device/upgrade_session.h"

namespace kvtool {

enum class ProbeState {
    kRecovery,     // a login was answered
    kOther,        // something is there that does not speak the protocol, or closed at once
    kSilent,       // connected, but no answer in time
    kRefused,      // the host is there, the port is closed
    kUnreachable,  // no connection at all
};
struct ProbeResult {
    ProbeState state;
    uint32_t session = 0;  // when kRecovery: the session held before this login
    std::string text;      // what was seen, in words
};
// One look at the device: connects and logs in on a connection of its own.
ProbeResult Probe(const Endpoint& endpoint, Millis connect, Millis reply);

// Follows the device after acceptance until it is back in recovery mode or the times are over.
// `upgradeFd` is the connection of the upgrade; nothing is sent on it. Adds what was seen to
// record->observed and what is concluded to record->assumed.
// Returns kDone (seen to leave, not back), kBackInRecovery or kNeverLeft.
ExitCode Follow(const Endpoint& endpoint, int upgradeFd, const UpgradeTimes& times,
                UpgradeListener* listener, UpgradeRecord* record);

}  // namespace kvtool
