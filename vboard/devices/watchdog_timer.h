// The watchdog as a state machine. The caller passes the time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "vboard/devices/devices.h"

namespace vboard {

constexpr int kWatchdogDefaultTimeout = 60;  // seconds, the default of most Linux drivers
constexpr int kWatchdogMaxTimeout = 255;     // seconds

// Behaves like a Linux watchdog device with WDIOF_MAGICCLOSE and without "nowayout". Results are 0
// or -errno. Once starved, it stays starved until PowerOn: the board is being reset. Not locked.
class WatchdogTimer {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // Disarmed, closed, default time-out. Keeps the count of feeds and the largest gap.
    void PowerOn();

    // Arms. -EBUSY while open. Opening an armed watchdog again does not feed it.
    int Open(Time now);
    // Disarms if the last write contained a 'V'. Otherwise an armed watchdog stays armed and is
    // fed.
    void Release(Time now);
    // Feeds, whatever the bytes are. An empty write does nothing.
    void Write(const void* data, size_t length, Time now);
    void KeepAlive(Time now);
    // 1 to kWatchdogMaxTimeout seconds, else -EINVAL. Feeds first, so that a longer time-out does
    // not undo a missed deadline.
    int SetTimeout(int seconds, Time now);
    // WDIOS_DISABLECARD and WDIOS_ENABLECARD, in this order if both are set; -EINVAL if neither is.
    int SetOptions(int options, Time now);

    int Timeout() const { return timeout_; }
    // Whole seconds until it starves; 0 if disarmed or starved.
    int TimeLeft(Time now) const;

    // When it starves or starved. None while disarmed.
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
