// cameraMain monitor: answers missing heartbeats with a restart, a reboot, then recovery.
//
// KV_MONITOR_Decide decides (kv_monitor_decision.h); kv_monitor.cpp acts on it. Everything runs on
// the supervisor loop's thread, so the record needs no lock.
#pragma once

#include "hv/hloop.h"
#include "main/kv_monitor_decision.h"

// Starts cameraMain's time-out now. Call it before the loop runs.
void KV_MONITOR_Begin(void);

// Heartbeat callback and check timer of the supervisor loop. They block the loop while
// their commands run. A reboot takes seconds; a restart takes 3 s and as long as startapp.sh runs.
void __KV_cameraMainHeartbeatRead(hio_t* io, void* buf, int readbytes);
void __KV_cameraMainCheckTimer(htimer_t* timer);
