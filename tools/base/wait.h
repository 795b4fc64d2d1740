// Waiting that Ctrl-C ends at once, on the monotonic clock.
#pragma once

#include <chrono>

namespace kvtool {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Makes SIGINT and SIGTERM end every wait below with ToolError(kInterrupted), and SIGPIPE harmless.
// A second signal of the same kind ends the process in the usual way, should something outside
// these waits (a name look-up) hold it up. Call once, before any wait, from the main thread.
void CatchInterrupts();

// Throws ToolError(kInterrupted) once a signal has come.
void ThrowIfInterrupted();

// Waits until one of the poll events holds for the descriptor or the deadline has come.
// Returns the poll result events, 0 at the deadline. A descriptor of -1 only waits.
short WaitFor(int fd, short events, Clock::time_point deadline);

// Waits until the deadline.
void WaitUntil(Clock::time_point deadline);

}  // namespace kvtool
