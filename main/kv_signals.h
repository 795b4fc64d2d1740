// Signals, taken out of signal context: a handler only writes one byte to a pipe, a thread reads
// the pipe and runs each procedure on a thread of its own, where tracing, locks and joins are safe.
#pragma once

#include <cstddef>

enum class SignalMode {
    // Every arrival runs the procedure, also while an earlier run is not over.
    kConcurrent,
    // One run at a time; arrivals during a run are kept pending, as one, as the kernel would.
    kSerial,
};

struct SignalRoute {
    int signal;
    SignalMode mode;
    void (*procedure)(int signal);
};

// Installs a handler for each route, in order. `routes` must stay valid for the life of the
// process, at most 8. Main thread, once, before other threads start. Handlers rather than a blocked
// mask, since shell children must not inherit blocked signals. 0, or -1 when no pipe can be had.
int KV_SIGNAL_Install(const SignalRoute* routes, size_t count);

// Starts to run the procedures, first for the signals that have arrived since the installation:
// what a procedure undoes can be set up in between. Main thread, once; nothing when the
// installation failed. Aborts when the thread cannot be created.
void KV_SIGNAL_Serve();
