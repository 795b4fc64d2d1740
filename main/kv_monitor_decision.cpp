#include "main/kv_monitor_decision.h"

namespace {

MonitorDecision DecideOnHeartbeat(MonitoredProcess* process, const MonitorInput& input) {
    MonitorDecision decision = {};
    // The first heartbeat after a silence does not stop the button thread. Only the second in a row
    // shows that the application owns the button again.
    decision.stopButton = process->online == 1;
    if (input.ready) {
        process->restart_hold = 0;
        process->ready_time = input.now;
    }
    process->last_seen = input.now;
    process->online = 1;
    decision.removeMarker = input.marker;
    // Kept: logged in one second out of four, however often heartbeats arrive.
    decision.logOnline = (process->last_seen & 3U) == 0;
    return decision;
}

MonitorDecision DecideOnSilence(MonitoredProcess* process, const MonitorInput& input) {
    MonitorDecision decision = {};
    decision.startButton = process->online == 1;
    decision.logOffline = true;
    decision.offTime = input.now - process->last_seen;
    if (process->restart_hold == 0 && decision.offTime > process->start_timeout) {
        if (process->restart_budget != 0) {
            --process->restart_budget;
            decision.step = MonitorStep::kRestart;
            // The next step follows after half a start time-out, not a whole one.
            process->last_seen = input.now - process->start_timeout / 2U;
        } else {
            decision.step = input.marker ? MonitorStep::kRecover : MonitorStep::kReboot;
        }
    }
    process->online = 0;
    return decision;
}

}  // namespace

MonitorDecision KV_MONITOR_Decide(MonitoredProcess* process, const MonitorInput& input) {
    if (input.quiet) {
        process->last_seen = input.now;
        return {};
    }
    return input.heartbeat ? DecideOnHeartbeat(process, input) : DecideOnSilence(process, input);
}
