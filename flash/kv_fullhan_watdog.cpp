#define KV_TRACE_NAME "kv_fullhan_watdog"
#include "flash/kv_fullhan_watdog.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_thread.h"

namespace {

constexpr int kFeedPeriodMs = 1000;
constexpr size_t kReplyRoom = 32;

struct KeeperState {
    std::atomic<uint8_t> inited;
    pthread_t thread;
    std::atomic<int> fd;
    // Takes the place of `fd` when the device is closed. Opened at the start, because a stop must
    // not need a free descriptor.
    int placeholder;
    // A write here ends the feeder's wait early.
    int wakeFd;
};

KeeperState g_keeper = {{0}, static_cast<pthread_t>(-1), {-1}, -1, -1};
std::atomic<int> g_running = {0};
std::atomic<int> g_starving = {0};
// Guards writes of g_running.
pthread_mutex_t g_keeperLock = PTHREAD_MUTEX_INITIALIZER;

int __KV_FH_WDT_Keepalive(int fd) {
    if (ioctl(fd, WDIOC_KEEPALIVE, 0) < 0) {
        KV_ERROR_AT(39, "Set Watchdog KeepAlive Fail: %s", strerror(errno));
        return -1;
    }
    return 0;
}

void* __KV_FH_WDT_Proc(void* argument) {
    const KeeperState* keeper = static_cast<const KeeperState*>(argument);
    (void)prctl(PR_SET_NAME, "__KV_FH_WDT_Proc");
    while (g_running.load() != 0) {
        (void)__KV_FH_WDT_Keepalive(keeper->fd.load());
        struct pollfd wake = {keeper->wakeFd, POLLIN, 0};
        (void)poll(&wake, 1, kFeedPeriodMs);
    }
    return nullptr;
}

int SetRunning(int running) {
    const MutexGuard guard(&g_keeperLock);
    return g_running.exchange(running);
}

}  // namespace

int KV_FH_WDT_Start(void) {
    if (g_keeper.inited.load() == 1) {
        KV_FAILED_AT(116, "Watchdog is Inited!");
        return -1;
    }
    const int fd = open(kv::kWatchdogDevice, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        KV_FAILED_AT(119, "Open Watchdog KeepAlive Fail: %s", strerror(errno));
        return -1;
    }
    int timeout = kv::kWatchdogTimeoutSeconds;
    if (ioctl(fd, WDIOC_SETTIMEOUT, &timeout) < 0) {
        // Kept: the descriptor stays open. Opening has armed the device, and on some drivers
        // closing does not disarm it.
        KV_FAILED_AT(123, "Set Watchdog TimeOut Fail: %s", strerror(errno));
        return -1;
    }
    timeout = 0;
    (void)ioctl(fd, WDIOC_GETTIMEOUT, &timeout);
    KV_DEBUG_AT(127, "Watchdog Timeout:%d", timeout);
    g_keeper.fd.store(fd);
    g_keeper.placeholder = open("/", O_PATH | O_CLOEXEC);
    g_keeper.wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    (void)SetRunning(1);
    const int error = KV_ThreadStart(&g_keeper.thread, kSmallStack, __KV_FH_WDT_Proc, &g_keeper);
    if (error != 0) {
        KV_ASSERT_FAIL_AT(140, "pthread create failed:%s", strerror(error));
    }
    g_keeper.inited.store(1);
    KV_DEBUG_AT(154, "Watchdog Init successful");
    return 0;
}

int KV_FH_WDT_Stop(void) {
    if (g_keeper.inited.load() != 1) {
        KV_FAILED_AT(167, "Watchdog not Inited!");
        return 0;
    }
    // Kept: the record keeps the descriptor's number, and a second stop disarms and closes that
    // number again. The number must not go to another file meanwhile, so a placeholder occupies it.
    // The placeholder refuses requests with EBADF, as a closed number does. dup3 closes the device
    // and takes its number in one step.
    const int fd = g_keeper.fd.load();
    int option = WDIOS_DISABLECARD;
    (void)ioctl(fd, WDIOC_SETOPTIONS, &option);
    (void)dup3(g_keeper.placeholder, fd, O_CLOEXEC);
    if (SetRunning(0) != 0) {
        // The feeder ends after its current second, not at once. A stop is not urgent, and this
        // way a second exit signal still reaches the ending process.
        (void)pthread_join(g_keeper.thread, nullptr);
    }
    KV_DEBUG_AT(176, "Watchdog Stop successful");
    return 0;
}

int KV_FH_WDT_Reboot(void) {
    KV_INFO_AT(98, "Start to stop feeding the dog!");
    (void)pthread_mutex_lock(&g_keeperLock);
    if (g_running.load() == 0) {
        // Kept: the lock stays held, so a later stop or reboot request blocks.
        return 0;
    }
    g_starving.store(1);
    g_running.store(0);
    (void)pthread_mutex_unlock(&g_keeperLock);
    const uint64_t one = 1;
    (void)write(g_keeper.wakeFd, &one, sizeof(one));
    (void)pthread_join(g_keeper.thread, nullptr);
    KV_DEBUG_AT(105, "Wait for the watchdog to restart!");
    return 0;
}

int KV_FH_WDT_IsStarving(void) {
    return g_starving.load();
}

int KV_FH_WDT_ConsoleCmd(int argc, const char* command, char* const* argv, char* reply) {
    (void)command;
    const char* const word = argc > 0 ? argv[0] : "";
    if (strcmp(word, "Stop") == 0) {
        (void)KV_FH_WDT_Stop();
        (void)snprintf(reply, kReplyRoom, "Watdog Stop Success\n");
    } else if (strcmp(word, "Start") == 0) {
        (void)KV_FH_WDT_Start();
        (void)snprintf(reply, kReplyRoom, "Watdog Start Success\n");
    } else if (strcmp(word, "Reboot") == 0) {
        (void)KV_FH_WDT_Reboot();
        (void)snprintf(reply, kReplyRoom, "Watdog Reboot Success\n");
    }
    return 0;
}
