#include "main/hardware_reset.h"

#include <sys/prctl.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/kv_gpio.h"
#include "common/kv_platform.h"
#include "common/kv_shell.h"
#include "common/kv_thread.h"
#include "common/kv_time.h"

namespace {

constexpr int kTriggerCount = 10;

constexpr const char* kFactoryReset[] = {
    "sync",
    // Kept: 1 here, while a restart of the application writes 3.
    "echo 1 > /proc/sys/vm/drop_caches",
    "rm -rf /param/var/*",
    "rm /param/*debug*",
    "rm -rf /param/wpa_supplicant.conf",
    "sync",
    "reboot",
};

std::atomic<int> g_run = {0};

// Returns 0 if the command ran, whatever its status, and 1 if no child could be created.
int __KV_ExecuteCmd(const char* cmd) {
    return KV_ShellRun(cmd, nullptr) == 1 ? 1 : 0;
}

void FactoryReset() {
    for (const char* const command : kFactoryReset) {
        const int result = __KV_ExecuteCmd(command);
        if (result != 0) {
            (void)printf("execute cmd [%s] failed! ret = %d\n", command, result);
        }
    }
}

// Samples the button once a second. Returns true after ten pressed samples in a row, false when
// asked to end.
bool WatchButton(const char* function) {
    int value = 1;
    int count = 0;
    while (g_run.load() != 0) {
        // A file that cannot be opened keeps the last value.
        (void)KV_GPIO_GetValue(kv::kResetButtonGpio, &value);
        if (value == 0) {
            ++count;
            (void)printf("%s %d: hard reset count = %d\n", function, 103, count);
            if (count >= kTriggerCount) {
                return true;
            }
        } else {
            count = 0;
        }
        kv::SleepMilliseconds(1000);
    }
    return false;
}

void* HardwareResetProc(void* argument) {
    (void)argument;
    (void)printf("%s %d: HardwareResetProc thread Start is OK\n", __func__, 94);
    (void)prctl(PR_SET_NAME, "HardwareResetProc");
    if (WatchButton(__func__)) {
        FactoryReset();
    }
    (void)printf("%s %d: HardwareResetProc thread End is OK\n", __func__, 124);
    return nullptr;
}

}  // namespace

int HardwareResetStart(void) {
    if (g_run.exchange(1) == 1) {
        return 0;
    }
    const int error = KV_ThreadStart(nullptr, 0, HardwareResetProc, nullptr);
    if (error != 0) {
        (void)printf("%s %d errno %s\n", __func__, 138, strerror(error));
        return -1;
    }
    (void)signal(SIGPIPE, SIG_IGN);
    return 0;
}

void HardwareResetStop(void) {
    g_run.store(0);
}
