// Signals, handled outside signal context. A handler only writes a byte to a pipe. A thread reads
// the pipe and runs each procedure on a thread of its own, where logging, locks and joins are safe.
#pragma once

#include <cstddef>

enum class SignalMode {
    // Every arrival runs the procedure, even while an earlier run continues.
    kConcurrent,
    // One run at a time. Arrivals during a run leave one run pending, as in the kernel.
    kSerial,
};

struct SignalRoute {
    int signal;
    SignalMode mode;
    void (*procedure)(int signal);
};

// Installs a handler for each route, in order. `routes` has at most 8 entries and must stay valid
// for the life of the process. Main thread, once, before other threads start; does not block.
// Returns 0. Returns -1 with a log line if there is no pipe; the signals then keep their default
// actions.
int KV_SIGNAL_Install(const SignalRoute* routes, size_t count);

// Starts running the procedures, beginning with the signals that have arrived since the
// installation. So the caller can use the time between the two calls to start the things that the
// procedures stop. Main thread, once; does not block. Does nothing if the installation failed.
// Aborts if the thread cannot be created.
void KV_SIGNAL_Serve();
