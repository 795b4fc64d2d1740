#include "wifi/kv_wifi_sta_step.h"

#include <cstdio>
#include <cstring>

namespace kv {
namespace {

constexpr int kAttemptsPerRound = 3;
constexpr uint8_t kSoftResets = 3;
constexpr int64_t kConnectSeconds = 60;
constexpr int64_t kPingSeconds = 5;
constexpr uint8_t kPingMisses = 5;

// Saturates: a wrap would start a new series of soft resets without a verified link.
void CountRetry(StaMachine* machine) {
    if (machine->retryCount < UINT8_MAX) {
        ++machine->retryCount;
    }
}

}  // namespace

int StaPlanConnect(StaMachine* machine, StaGo from) {
    int softResets = 0;
    for (;;) {
        if (from == StaGo::kSoftReset && machine->retryCount >= 1 &&
            machine->retryCount <= kSoftResets) {
            ++softResets;
        }
        ++machine->attemptCount;
        machine->state = StaState::kAssociating;
        if (machine->attemptCount <= kAttemptsPerRound || machine->retryCount > kSoftResets) {
            return softResets;
        }
        CountRetry(machine);
        machine->attemptCount = 0;
        from = StaGo::kSoftReset;
    }
}

void StaOnConnected(StaMachine* machine, int64_t now) {
    machine->lastChange = now;
    machine->lastState[0] = '\0';
}

StaGo StaOnStatus(StaMachine* machine, const char* wpaState, bool guardEnable, int64_t now) {
    if (wpaState != nullptr) {
        if (strcmp(wpaState, "COMPLETED") == 0) {
            machine->state = StaState::kAddressing;
        } else if (strcmp(wpaState, "SCANNING") == 0) {
            machine->state = StaState::kAssociating;
        }
        if (strcmp(wpaState, machine->lastState) != 0) {
            (void)snprintf(machine->lastState, sizeof(machine->lastState), "%s", wpaState);
            machine->lastChange = now;
            return StaGo::kStay;
        }
    }
    const bool timedOut = now - machine->lastChange > kConnectSeconds;
    return timedOut && guardEnable ? StaGo::kConnect : StaGo::kStay;
}

void StaOnAddressed(StaMachine* machine) {
    machine->state = StaState::kVerifying;
}

StaVerdict StaOnVerify(StaMachine* machine, const char* ip, const char* wantedIp, const char* mac) {
    const bool addressGood = wantedIp != nullptr ? strcmp(ip, wantedIp) == 0 : ip[0] != '\0';
    if (!addressGood || mac[0] == '\0') {
        CountRetry(machine);
        return addressGood ? StaVerdict::kNoMac : StaVerdict::kNoAddress;
    }
    machine->retryCount = 0;
    machine->secondCount = 0;
    machine->attemptCount = 0;
    machine->state = StaState::kGuarding;
    return StaVerdict::kGood;
}

bool StaPingDue(const StaMachine& machine, int64_t now) {
    return now - machine.lastChange > kPingSeconds;
}

bool StaOnPing(StaMachine* machine, bool reply, int64_t now) {
    machine->lastChange = now;
    machine->pingFailCount = reply ? uint8_t{0} : static_cast<uint8_t>(machine->pingFailCount + 1);
    return machine->pingFailCount > kPingMisses;
}

StaGo StaOnLink(StaMachine* machine, StaLink link) {
    machine->pingFailCount = 0;
    switch (link) {
        case StaLink::kDead:
            CountRetry(machine);
            return StaGo::kSoftReset;
        case StaLink::kNotRunning:
            return StaGo::kConnect;
        case StaLink::kFine:
            break;
    }
    return StaGo::kStay;
}

}  // namespace kv
