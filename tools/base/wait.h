// Waits on the monotonic clock that Ctrl-C ends at once.
#pragma once

#include <chrono>

namespace kvtool {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Makes SIGINT and SIGTERM end every wait below with ToolError(kInterrupted), and ignores SIGPIPE.
// A second signal of the same kind ends the process in the usual way, in case something other than
// these waits (a name look-up) blocks it. Call once, before any wait, from the main thread.
void CatchInterrupts();

// Throws ToolError(kInterrupted) if a signal has arrived.
void ThrowIfInterrupted();

// Waits for one of the poll events on the descriptor, at most until the deadline.
// Returns the events that poll reports, 0 at the deadline. With descriptor -1 it only waits.
short WaitFor(int fd, short events, Clock::time_point deadline);

// Waits until the deadline.
void WaitUntil(Clock::time_point deadline);

}  // namespace kvtool
