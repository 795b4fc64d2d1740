// The decision of the cameraMain monitor: what to do on a heartbeat, or without one. It uses no
// clock, shell, socket or other module, so tools on a PC use it too. kv_monitor.cpp acts on it.
#pragma once

#include <cstdint>

#include "common/kv_platform.h"

// How often the supervisor checks whether the process is silent.
constexpr uint32_t kMonitorCheckPeriodMs = 3000;

struct MonitoredProcess {
    const char* name;
    // Monotonic seconds of the last heartbeat. A restart sets it to half a start time-out ago, a
    // quiet decision to now. Differences wrap at 32 bits.
    uint32_t last_seen;
    // The process counts as offline after more seconds of silence than this.
    uint16_t heartbeat_timeout;
    // The monitor restarts the process, reboots the device or starts recovery after more seconds of
    // silence than this.
    uint16_t start_timeout;
    // Restarts left in the life of this program; never refilled.
    uint8_t restart_budget;
    uint8_t online;
    // While set, silence leads to no step. Nothing in this program sets it; it is reserved for the
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

// The record of cameraMain in a supervisor that starts at `now`: the start counts as a heartbeat.
constexpr MonitoredProcess KV_MONITOR_NewRecord(uint32_t now) {
    return {kv::kAppName, now, 5, 120, 1, 1, 0, now};
}

// Whether a check at `now` finds the process silent. If not, the check does nothing more.
constexpr bool KV_MONITOR_IsSilent(const MonitoredProcess& process, uint32_t now) {
    return now - process.last_seen > process.heartbeat_timeout;
}

// Decides what to do at `input.now` and updates the record. Any thread; never blocks.
MonitorDecision KV_MONITOR_Decide(MonitoredProcess* process, const MonitorInput& input);
