// cameraMain monitor: answers missing heartbeats with a restart, a reboot, then recovery.
//
// The decision (KV_MONITOR_Decide) uses no clock, shell or socket; kv_monitor.cpp acts on it.
// Everything runs on the supervisor loop's thread, so the record needs no lock.
#pragma once

#include <cstdint>

#include "hv/hloop.h"

struct MonitoredProcess {
    const char* name;
    // Monotonic seconds of the last heartbeat. A restart sets it to half a start time-out ago.
    // Differences wrap at 32 bits.
    uint32_t last_seen;
    // The process counts as offline after more seconds of silence than this.
    uint16_t heartbeat_timeout;
    // The monitor restarts the process, reboots the device or starts recovery after more seconds of
    // silence than this.
    uint16_t start_timeout;
    // Restarts left in the life of this program; never refilled.
    uint8_t restart_budget;
    uint8_t online;
    // While set, silence is only logged. Nothing in this program sets it; it is reserved for the
    // application's side of the protocol.
    uint8_t restart_hold;
    // Monotonic seconds of the last heartbeat with a ready flag. Nothing reads it.
    uint32_t ready_time;
};

struct MonitorInput {
    uint32_t now;
    // True if a heartbeat has arrived, false if the check timer has found silence.
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
    // Log that the process is offline, with offTime seconds of silence.
    bool logOffline;
    uint32_t offTime;
    MonitorStep step;
};

// Decides what to do at `input.now` and updates the record.
MonitorDecision KV_MONITOR_Decide(MonitoredProcess* process, const MonitorInput& input);

// Starts cameraMain's time-out now. Call it before the loop runs.
void KV_MONITOR_Begin(void);

// Heartbeat callback and 3000 ms check timer of the supervisor loop. They block the loop while
// their commands run; a restart or a reboot takes seconds.
void __KV_cameraMainHeartbeatRead(hio_t* io, void* buf, int readbytes);
void __KV_cameraMainCheckTimer(htimer_t* timer);
