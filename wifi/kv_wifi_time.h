// Time as the Wi-Fi module counts it: the monotonic clock and pauses of one second.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace kv {

inline int64_t MonotonicMilliseconds() {
    struct timespec now {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Whole seconds, cut and not rounded.
inline int64_t MonotonicSeconds() {
    return MonotonicMilliseconds() / 1000;
}

// Sleeps one second; a signal that lands on this thread does not cut it short.
inline void SleepOneSecond() {
    struct timespec left {
        1, 0
    };
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace kv
