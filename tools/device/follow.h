// Follows a device after an accepted upgrade. The device itself reports nothing.
#pragma once

#include <cstdint>
#include <string>

#include "tools/device/upgrade_session.h"

namespace kvtool {

struct FollowTarget {
    Endpoint endpoint;           // the command port
    Endpoint local;              // this PC's end of the upgrade's connection
    std::string mac;             // "AA:BB:CC:DD:EE:FF"; empty: not known, so no search for it
    uint16_t discoveryPort = 0;  // where searches go
    uint16_t alivePort = 0;      // TCP port that the running application opens; 0: not known
    // Whether that port was seen closed while the device was in recovery mode, before the upload.
    bool alivePortClosed = false;
    std::string version;  // firmware that a search reply must also name; empty: any
};

// Follows the device until it is seen alive, is back in recovery mode, or time is up. `upgradeFd`
// is the connection of the upgrade; nothing is sent on it. Adds what it sees to record->observed
// and what it concludes to record->assumed. It reports trouble with this PC's own network and waits
// for it to end, but concludes nothing from it. Blocks for at most times.leave + times.back, plus
// the time of one look. Returns kDone (seen to leave, then alive as `target` says),
// kBackInRecovery, kNotSeenAlive or kNeverLeft.
ExitCode Follow(const FollowTarget& target, int upgradeFd, const UpgradeTimes& times,
                UpgradeListener* listener, UpgradeRecord* record);

// What a result of Follow means, in words.
const char* OutcomeText(ExitCode code);

// Whether `version` means this firmware of a device: the whole text, or the part after its last
// "_V".
bool IsVersion(const std::string& firmware, const std::string& version);

}  // namespace kvtool
