// What the station decides: counting, time-outs and transitions as pure functions over one record,
// without clock, socket or command. The station thread (kv_wifi_sta.cpp) gathers what a decision
// needs, calls it, and acts. Times are whole seconds of the monotonic clock.
#pragma once

#include <cstdint>

namespace kv {

enum class StaState {
    kAssociating = 1,  // waits for the supplicant's "COMPLETED"
    kAddressing = 2,   // obtains or sets the address
    kVerifying = 3,    // looks whether address and MAC are there
    kGuarding = 4,     // pings the gateway
};

// Where the thread goes on after a pass.
enum class StaGo {
    kStay,       // next pass in a second
    kConnect,    // a new connect sequence
    kSoftReset,  // the soft-reset point, then a new connect sequence
};

enum class StaVerdict { kGood, kNoAddress, kNoMac };

enum class StaLink {
    kDead,        // no link, or the interface is down
    kNotRunning,  // up, but not running
    kFine,
};

struct StaMachine {
    StaState state = StaState::kAssociating;
    uint8_t retryCount = 0;     // rounds of failure since the link was last verified
    uint8_t secondCount = 0;    // cleared with the retry count; nothing counts with it
    int attemptCount = 0;       // connect sequences since the last round change
    uint8_t pingFailCount = 0;  // misses in a row
    int64_t lastChange = 0;     // connect sequence, change of wpa_state, or ping
    char lastState[32] = {};    // wpa_state seen last
};

// Counts the next connect sequence, reached from the soft-reset point or directly, and enters the
// associating state. Three sequences make a round; a round that is used up passes the soft-reset
// point once more. Returns how often the soft reset is to run in front of the sequence, 0 to 2.
int StaPlanConnect(StaMachine* machine, StaGo from);

// The connect sequence has run.
void StaOnConnected(StaMachine* machine, int64_t now);

// Associating: one question to the supplicant. `wpaState` is what it said, null when it failed to.
// kConnect means that the connection timed out.
StaGo StaOnStatus(StaMachine* machine, const char* wpaState, bool guardEnable, int64_t now);

// Addressing has run.
void StaOnAddressed(StaMachine* machine);

// Verifying: `wantedIp` is null when any address will do. Anything but kGood leads to the
// soft-reset point.
StaVerdict StaOnVerify(StaMachine* machine, const char* ip, const char* wantedIp, const char* mac);

// Guarding: whether it is time for a ping, and what came of it. True means that the link is to be
// looked at, which StaOnLink judges.
bool StaPingDue(const StaMachine& machine, int64_t now);
bool StaOnPing(StaMachine* machine, bool reply, int64_t now);
StaGo StaOnLink(StaMachine* machine, StaLink link);

}  // namespace kv
