// Program entry: signals, watchdog, choice of the mode, supervisor loop.
#define KV_TRACE_NAME "upgrade_main"
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_shell.h"
#include "flash/kv_fullhan_flash.h"
#include "flash/kv_fullhan_watdog.h"
#include "hv/hloop.h"
#include "main/kv_monitor.h"
#include "main/kv_recovery.h"
#include "main/kv_signals.h"
#include "mini/kv_mini_service.h"
#include "wifi/kv_wifi_sta.h"
#ifdef KV_HV_SYSTEM
#include "hv/hlog.h"
#endif

namespace {

constexpr uint32_t kCheckPeriodMs = kMonitorCheckPeriodMs;

std::atomic<uint8_t> g_exiting = {0};

void upgreade_fun_sig(int signal) {
    (void)signal;
    if (g_exiting.exchange(1) != 0) {
        KV_FAILED_AT(297, "wait exit!");
        return;
    }
    KV_DEBUG_AT(300, "Start Exit!");
    // First, so no reset cuts a slow shutdown short.
    (void)KV_FH_WDT_Stop();
    (void)KV_WIFI_StaStop();
    (void)KV_MINI_ServiceStop();
    exit(0);
}

void StopWatchdog(int signal) {
    (void)signal;
    (void)KV_FH_WDT_Stop();
}

constexpr SignalRoute kSignals[] = {
    {SIGINT, SignalMode::kConcurrent, upgreade_fun_sig},
    {SIGTERM, SignalMode::kConcurrent, upgreade_fun_sig},
    {SIGUSR1, SignalMode::kSerial, StopWatchdog},
    {SIGUSR2, SignalMode::kSerial, KV_UPGRADE_Proc},
};

// The log's reader may be gone, or the log's descriptor closed. A broken pipe must be an ordinary
// error, and the watchdog must not be opened on a standard descriptor's number.
void PrepareOutput() {
    (void)signal(SIGPIPE, SIG_IGN);
    int fd = -1;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        (void)close(fd);
    }
    // An echoed command must appear before the command's own output, even on a pipe.
    (void)setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

// Starts recovery if the application is missing or the debug marker exists. `function` is the name
// in the log.
void ChooseMode(const char* function) {
    if (access(kv::kAppPath, F_OK) != 0) {
        KV_RECOVERY_Start();
        KV_Trace(KV_LEVEL_INFO, KV_TRACE_NAME, 327, function, "app file not exist!");
    } else if (access(kv::kDebugMarker, F_OK) == 0) {
        // Removed first: the marker requests recovery for one boot only.
        KV_ShellEchoFormat("rm %s", kv::kDebugMarker);
        KV_RECOVERY_Start();
    } else {
        KV_Trace(KV_LEVEL_INFO, KV_TRACE_NAME, 338, function, "app file exist!");
    }
}

void PrepareLoop(hloop_t* loop) {
    hio_t* const heartbeat = hloop_create_udp_server(loop, kv::kHeartbeatHost, kv::kHeartbeatPort);
    if (heartbeat != nullptr) {
        hio_setcb_read(heartbeat, __KV_cameraMainHeartbeatRead);
        (void)hio_read(heartbeat);
    } else {
        // To the monitor this looks like an application that stays silent.
        KV_ERROR("no heartbeats can be received, udp %s:%d: %s", kv::kHeartbeatHost,
                 kv::kHeartbeatPort, strerror(errno));
    }
    (void)htimer_add(loop, __KV_cameraMainCheckTimer, kCheckPeriodMs, INFINITE);
}

}  // namespace

int main() {
    PrepareOutput();
#ifdef KV_HV_SYSTEM
    hlog_disable();
#endif
    (void)KV_SIGNAL_Install(kSignals, sizeof(kSignals) / sizeof(kSignals[0]));
    (void)KV_FH_WDT_Start();
    // After the watchdog's start, because an early exit request must find an armed watchdog to
    // disarm.
    KV_SIGNAL_Serve();
    ChooseMode(__func__);
    KV_MONITOR_Begin();

    hloop_t* const loop = hloop_new(HLOOP_FLAG_AUTO_FREE);
    if (loop != nullptr) {
        PrepareLoop(loop);
        (void)hloop_run(loop);
    }
    // Reached only if the loop cannot be created or fails. The loop is freed by then; the other
    // threads continue.
    for (;;) {
        (void)sleep(10000);
    }
}
