#include "vboard/devices/watchdog_timer.h"

#include <linux/watchdog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vboard {

void WatchdogTimer::PowerOn() {
    const uint64_t feeds = feeds_;
    const Time::duration largestGap = largestGap_;
    *this = WatchdogTimer();
    feeds_ = feeds;
    largestGap_ = largestGap;
}

// Every operation calls this first, so that an operation after the deadline cannot undo the
// starvation, even if nobody has acted on it yet.
bool WatchdogTimer::Starved(Time now) {
    starved_ = starved_ || (armed_ && now >= End());
    return starved_;
}

void WatchdogTimer::Arm(Time now) {
    if (!Starved(now) && !armed_) {
        armed_ = true;
        lastFeed_ = now;
    }
}

void WatchdogTimer::Disarm(Time now) {
    if (!Starved(now)) {
        armed_ = false;
    }
}

void WatchdogTimer::KeepAlive(Time now) {
    if (!Starved(now) && armed_) {
        largestGap_ = std::max(largestGap_, now - lastFeed_);
        lastFeed_ = now;
        ++feeds_;
    }
}

int WatchdogTimer::Open(Time now) {
    if (open_) {
        return -EBUSY;
    }
    open_ = true;
    mayDisarm_ = false;
    Arm(now);
    return 0;
}

void WatchdogTimer::Release(Time now) {
    open_ = false;
    if (mayDisarm_) {
        Disarm(now);
    } else {
        KeepAlive(now);
    }
}

void WatchdogTimer::Write(const void* data, size_t length, Time now) {
    if (length == 0) {
        return;
    }
    mayDisarm_ = memchr(data, 'V', length) != nullptr;
    KeepAlive(now);
}

int WatchdogTimer::SetTimeout(int seconds, Time now) {
    if (seconds < 1 || seconds > kWatchdogMaxTimeout) {
        return -EINVAL;
    }
    KeepAlive(now);
    if (!starved_) {
        timeout_ = seconds;
    }
    return 0;
}

int WatchdogTimer::SetOptions(int options, Time now) {
    if ((options & (WDIOS_DISABLECARD | WDIOS_ENABLECARD)) == 0) {
        return -EINVAL;
    }
    if ((options & WDIOS_DISABLECARD) != 0) {
        Disarm(now);
    }
    if ((options & WDIOS_ENABLECARD) != 0) {
        Arm(now);
    }
    return 0;
}

int WatchdogTimer::TimeLeft(Time now) const {
    if (!armed_ || starved_ || now >= End()) {
        return 0;
    }
    return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(End() - now).count());
}

std::optional<WatchdogTimer::Time> WatchdogTimer::Deadline() const {
    return armed_ ? std::optional<Time>(End()) : std::nullopt;
}

WatchdogStatus WatchdogTimer::Status(Time now) const {
    WatchdogStatus status;
    status.open = open_;
    status.armed = armed_;
    status.timeoutSeconds = timeout_;
    status.feeds = feeds_;
    status.largestGapSeconds = std::chrono::duration<double>(largestGap_).count();
    if (armed_) {
        status.secondsSinceFeed = std::chrono::duration<double>(now - lastFeed_).count();
    }
    return status;
}

}  // namespace vboard
