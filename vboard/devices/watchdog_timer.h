// The watchdog as a state machine over a clock that the caller reads.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "vboard/devices/devices.h"

namespace vboard {

constexpr int kWatchdogDefaultTimeout = 60;  // seconds, as most Linux drivers start with
constexpr int kWatchdogMaxTimeout = 255;     // seconds

// Behaves as a Linux watchdog device with WDIOF_MAGICCLOSE and without "nowayout". Results are 0
// or -errno. Once starved it is beyond rescue until PowerOn: the board is being reset. Not locked.
class WatchdogTimer {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // Disarmed, closed, default time-out. Keeps the count of feeds and the largest gap.
    void PowerOn();

    // Arms; -EBUSY while open. Re-opening an armed watchdog is not a feed.
    int Open(Time now);
    // Disarms when the last write held a 'V'; otherwise the armed watchdog stays so, and is fed.
    void Release(Time now);
    // Feeds, whatever the bytes; an empty write does nothing.
    void Write(const void* data, size_t length, Time now);
    void KeepAlive(Time now);
    // 1 … kWatchdogMaxTimeout seconds, else -EINVAL; feeds first, so that a longer time-out is
    // no rescue from a deadline already missed.
    int SetTimeout(int seconds, Time now);
    // WDIOS_DISABLECARD, WDIOS_ENABLECARD, in this order if both; -EINVAL for neither.
    int SetOptions(int options, Time now);

    int Timeout() const { return timeout_; }
    // Whole seconds until starvation, 0 when disarmed or starved.
    int TimeLeft(Time now) const;

    // When it starves, or starved; only while armed.
    std::optional<Time> Deadline() const;
    bool Starved(Time now);
    WatchdogStatus Status(Time now) const;

  private:
    void Arm(Time now);
    void Disarm(Time now);
    Time End() const { return lastFeed_ + std::chrono::seconds(timeout_); }

    bool open_ = false;
    bool armed_ = false;
    bool starved_ = false;
    bool mayDisarm_ = false;
    int timeout_ = kWatchdogDefaultTimeout;
    uint64_t feeds_ = 0;
    Time::duration largestGap_{};
    Time lastFeed_{};
};

}  // namespace vboard
