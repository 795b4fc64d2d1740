// The station's decisions: counts, time-outs and transitions as pure functions over one record,
// without clock, socket or command. The station thread (kv_wifi_sta.cpp) collects the inputs, calls
// a decision and acts on it. Times are whole seconds of the monotonic clock.
#pragma once

#include <cstdint>

namespace kv {

enum class StaState {
    kAssociating = 1,  // waits for the supplicant's "COMPLETED"
    kAddressing = 2,   // obtains or sets the address
    kVerifying = 3,    // checks the address and the MAC
    kGuarding = 4,     // pings the gateway
};

// What the thread does after a pass.
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
    uint8_t retryCount = 0;     // failed rounds and checks since the link was last verified
    uint8_t secondCount = 0;    // cleared with retryCount, otherwise unused
    int attemptCount = 0;       // connect sequences since the last round change
    uint8_t pingFailCount = 0;  // misses in a row
    int64_t lastChange = 0;     // time of the connect sequence, wpa_state change or ping
    char lastState[32] = {};    // last wpa_state seen
};

// Counts the next connect sequence and enters the associating state. `from` tells whether the
// thread comes from the soft-reset point or directly. Three sequences make a round; the first one
// of a new round passes the soft-reset point once more. Returns the number of soft resets to run
// before the sequence, 0 to 2.
int StaPlanConnect(StaMachine* machine, StaGo from);

// The connect sequence has run.
void StaOnConnected(StaMachine* machine, int64_t now);

// Associating: evaluates one status query. `wpaState` is the supplicant's answer, or null if the
// query failed. Returns kConnect if the connection has timed out.
StaGo StaOnStatus(StaMachine* machine, const char* wpaState, bool guardEnable, int64_t now);

// Addressing has run.
void StaOnAddressed(StaMachine* machine);

// Verifying: `wantedIp` is null if any address will do. After any result but kGood the thread goes
// to the soft-reset point.
StaVerdict StaOnVerify(StaMachine* machine, const char* ip, const char* wantedIp, const char* mac);

// Guarding: whether a ping is due, and the evaluation of a ping. StaOnPing returns true if the link
// must be checked; StaOnLink evaluates that check.
bool StaPingDue(const StaMachine& machine, int64_t now);
bool StaOnPing(StaMachine* machine, bool reply, int64_t now);
StaGo StaOnLink(StaMachine* machine, StaLink link);

}  // namespace kv
