#define KV_TRACE_NAME "upgrade_main"
#include "main/kv_monitor.h"

#include <unistd.h>

#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_shell.h"
#include "common/kv_time.h"
#include "flash/kv_fullhan_flash.h"
#include "flash/kv_fullhan_watdog.h"
#include "main/hardware_reset.h"
#include "main/kv_recovery.h"
#include "mini/kv_mini_service.h"

namespace {

// Offset of the ready flag in a heartbeat.
constexpr int kReadyOffset = 32;

MonitoredProcess g_cameraMain = KV_MONITOR_NewRecord(0);

uint32_t Now() {
    return static_cast<uint32_t>(kv::MonotonicSeconds());
}

// Whether the monitor may act: only while no flash writer runs. Ask before each step, because the
// writer may start during the previous step. A reset in the middle of an erase leaves the device
// without firmware, and services that run beside the writer take its memory.
bool MayAct() {
    return KV_UPGRADE_IsUpgrading() == 0;
}

void RestartApplication() {
    KV_ShellEcho("killall -9 wpa_supplicant");
    KV_ShellEcho("sync");
    // Kept: 3 here, while the factory reset writes 1.
    KV_ShellEcho("echo 3 > /proc/sys/vm/drop_caches");
    KV_ShellEcho("sleep 3");
    // If the flash writer has started, it has killed the application on purpose.
    if (MayAct()) {
        KV_ShellEcho("startapp.sh");
    }
}

void RebootDevice() {
    if (MayAct()) {
        KV_ShellEchoFormat("touch %s", kv::kRebootMarker);
    }
    // If a writer has started meanwhile, the marker stays: the partition that holds it may be the
    // one being erased. At worst this skips one forced reboot: if the new firmware stays silent,
    // the device goes to recovery instead. A heartbeat removes the marker.
    if (MayAct()) {
        (void)KV_FH_WDT_Reboot();
    }
    if (MayAct()) {
        KV_ShellEcho("reboot -f");
        (void)sleep(10);
    }
}

void EnterRecovery() {
    if (MayAct()) {
        KV_ShellEchoFormat("rm %s", kv::kRebootMarker);
    }
    if (MayAct()) {
        KV_RECOVERY_Start();
    }
}

void Act(const MonitoredProcess& process, const MonitorDecision& decision, const char* function) {
    if (decision.stopButton) {
        HardwareResetStop();
    }
    if (decision.removeMarker) {
        KV_ShellEchoFormat("rm %s", kv::kRebootMarker);
    }
    if (decision.logOnline) {
        KV_Trace(KV_LEVEL_DEBUG, KV_TRACE_NAME, 204, function, "Process %s online", process.name);
    }
    if (decision.startButton) {
        (void)HardwareResetStart();
    }
    if (!decision.logOffline) {
        return;
    }
    KV_Trace(KV_LEVEL_DEBUG, KV_TRACE_NAME, 216, function,
             "Proces->start_timeout = %d, cameraMain off time = %d", process.start_timeout,
             static_cast<int>(decision.offTime));
    switch (decision.step) {
        case MonitorStep::kNone:
            break;
        case MonitorStep::kRestart:
            RestartApplication();
            break;
        case MonitorStep::kReboot:
            RebootDevice();
            break;
        case MonitorStep::kRecover:
            EnterRecovery();
            break;
    }
    KV_Trace(KV_LEVEL_INFO, KV_TRACE_NAME, 254, function, "Process [%s] offline", process.name);
}

void __KV_cameraMainProcessHandle(int online, MonitoredProcess* process, const uint8_t* ready) {
    MonitorInput input = {};
    input.now = Now();
    input.heartbeat = online != 0;
    input.ready = input.heartbeat && *ready != 0;
    input.quiet = KV_UPGRADE_IsUpgrading() != 0 || KV_MINI_ServiceIsStarted() != 0;
    input.marker = access(kv::kRebootMarker, F_OK) == 0;
    Act(*process, KV_MONITOR_Decide(process, input), __func__);
}

}  // namespace

void KV_MONITOR_Begin(void) {
    const uint32_t now = Now();
    g_cameraMain.last_seen = now;
    g_cameraMain.ready_time = now;
}

void __KV_cameraMainHeartbeatRead(hio_t* io, void* buf, int readbytes) {
    (void)io;
    // Only received bytes count: the text ends at its first NUL or with the datagram, and a short
    // datagram has no ready flag.
    const char* const text = static_cast<const char*>(buf);
    const size_t size = readbytes > 0 ? static_cast<size_t>(readbytes) : 0;
    const char* const name = g_cameraMain.name;
    if (memmem(text, strnlen(text, size), name, strlen(name)) == nullptr) {
        return;
    }
    const uint8_t ready =
        readbytes > kReadyOffset ? static_cast<const uint8_t*>(buf)[kReadyOffset] : uint8_t{0};
    __KV_cameraMainProcessHandle(1, &g_cameraMain, &ready);
}

void __KV_cameraMainCheckTimer(htimer_t* timer) {
    (void)timer;
    if (KV_MONITOR_IsSilent(g_cameraMain, Now())) {
        __KV_cameraMainProcessHandle(0, &g_cameraMain, nullptr);
    }
}
