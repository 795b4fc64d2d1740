// The monotonic clock, and sleeps that signals do not cut short. Any thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace kv {

// Milliseconds since some moment before the program's start. Does not jump when the wall clock is
// set.
inline int64_t MonotonicMilliseconds() {
    struct timespec now {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The same in whole seconds, rounded down.
inline int64_t MonotonicSeconds() {
    return MonotonicMilliseconds() / 1000;
}

// Blocks the calling thread for the whole time, even if a signal interrupts it.
inline void SleepMilliseconds(int milliseconds) {
    struct timespec left = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace kv
