#define KV_TRACE_NAME "upgrade_main"
#include "main/kv_signals.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_thread.h"

namespace {

constexpr size_t kMaxRoutes = 8;
// The flash writer has its transfer buffer on this stack.
constexpr size_t kRunStack = 262144;

struct SignalState {
    const SignalRoute* routes;
    size_t count;
    int readEnd;
    int writeEnd;
};

SignalState g_signals = {nullptr, 0, -1, -1};
// Runs due for each serial route: 0 idle, 1 running, 2 running and one pending.
std::atomic<int> g_due[kMaxRoutes] = {};

void StartThread(size_t stackSize, void* (*procedure)(void*), void* argument) {
    const int error = KV_ThreadStart(nullptr, stackSize, procedure, argument);
    if (error != 0) {
        KV_ASSERT_FAIL("pthread create failed:%s", strerror(error));
    }
}

void OnSignal(int signal) {
    const int savedErrno = errno;
    const uint8_t byte = static_cast<uint8_t>(signal);
    (void)write(g_signals.writeEnd, &byte, 1);
    errno = savedErrno;
}

void* __KV_SIGNAL_RunProc(void* argument) {
    const SignalRoute* route = static_cast<const SignalRoute*>(argument);
    (void)prctl(PR_SET_NAME, "__KV_SIGNAL_Run");
    if (route->mode == SignalMode::kConcurrent) {
        route->procedure(route->signal);
        return nullptr;
    }
    std::atomic<int>& due = g_due[route - g_signals.routes];
    do {
        route->procedure(route->signal);
    } while (due.fetch_sub(1) > 1);
    return nullptr;
}

void Dispatch(const SignalRoute* route) {
    std::atomic<int>& due = g_due[route - g_signals.routes];
    if (route->mode == SignalMode::kConcurrent || (due.load() < 2 && due.fetch_add(1) == 0)) {
        StartThread(kRunStack, __KV_SIGNAL_RunProc, const_cast<SignalRoute*>(route));
    }
}

void* __KV_SIGNAL_Proc(void* argument) {
    (void)argument;
    (void)prctl(PR_SET_NAME, "__KV_SIGNAL_Proc");
    for (;;) {
        uint8_t byte = 0;
        const ssize_t got = read(g_signals.readEnd, &byte, 1);
        if (got != 1 && errno != EINTR) {
            return nullptr;
        }
        for (size_t i = 0; i < g_signals.count; ++i) {
            if (g_signals.routes[i].signal == byte) {
                Dispatch(&g_signals.routes[i]);
            }
        }
    }
}

}  // namespace

int KV_SIGNAL_Install(const SignalRoute* routes, size_t count) {
    int ends[2];
    if (count > kMaxRoutes || pipe2(ends, O_CLOEXEC) != 0) {
        KV_ERROR("signals are not handled:%s", strerror(errno));
        return -1;
    }
    // Only the write end: a full pipe must not block the thread that a signal interrupted.
    (void)fcntl(ends[1], F_SETFL, O_NONBLOCK);
    g_signals = {routes, count, ends[0], ends[1]};
    for (size_t i = 0; i < count; ++i) {
        (void)signal(routes[i].signal, OnSignal);
    }
    return 0;
}

void KV_SIGNAL_Serve() {
    if (g_signals.readEnd >= 0) {
        StartThread(kSmallStack, __KV_SIGNAL_Proc, nullptr);
    }
}
