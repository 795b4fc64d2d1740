// cameraMain monitor: turns heartbeats and their absence into restart, reboot and recovery.
//
// The decision (KV_MONITOR_Decide) knows no clock, shell or socket; the acting stands beside it.
// Everything here runs on the supervisor loop's thread, so the record needs no lock.
#pragma once

#include <cstdint>

#include "hv/hloop.h"

struct MonitoredProcess {
    const char* name;
    // Monotonic seconds of the last heartbeat; moved back after a restart. Differences wrap at 32
    // bits.
    uint32_t last_seen;
    // Seconds of silence beyond which the process counts as offline.
    uint16_t heartbeat_timeout;
    // Seconds of silence beyond which it is restarted, or the device rebooted.
    uint16_t start_timeout;
    // Restarts left for the life of this process; never refilled.
    uint8_t restart_budget;
    uint8_t online;
    // While set, silence is only logged. Nothing in this program sets it: it is there for a
    // protocol of the sender's.
    uint8_t restart_hold;
    // Monotonic seconds of the last heartbeat with a ready flag; kept, not read.
    uint32_t ready_time;
};

struct MonitorInput {
    uint32_t now;
    // A heartbeat arrived; otherwise the check timer found silence.
    bool heartbeat;
    // The heartbeat's ready flag.
    bool ready;
    // Flash is being written, or the mini services run.
    bool quiet;
    // The reboot marker exists.
    bool marker;
};

enum class MonitorStep { kNone, kRestart, kReboot, kRecover };

struct MonitorDecision {
    bool stopButton;
    bool startButton;
    bool removeMarker;
    bool logOnline;
    // Silence: offline is logged, with offTime seconds.
    bool logOffline;
    uint32_t offTime;
    MonitorStep step;
};

// What to do at `input.now`; brings the record up to date.
MonitorDecision KV_MONITOR_Decide(MonitoredProcess* process, const MonitorInput& input);

// Gives cameraMain its full time-out from now on. Before the loop runs.
void KV_MONITOR_Begin(void);

// Heartbeat read callback and 3000 ms check timer of the supervisor loop. The timer blocks the loop
// for as long as the commands of a restart or a reboot take.
void __KV_cameraMainHeartbeatRead(hio_t* io, void* buf, int readbytes);
void __KV_cameraMainCheckTimer(htimer_t* timer);
