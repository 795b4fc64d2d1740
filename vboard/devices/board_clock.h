// The board's clock: it runs as fast as the host's, or a whole number of times faster.
#pragma once

#include <chrono>

namespace vboard {

class BoardClock {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // At construction both clocks show the same time.
    explicit BoardClock(int speed = 1) : speed_(speed) {}

    int Speed() const { return speed_; }
    Time Now() const { return AtHost(std::chrono::steady_clock::now()); }
    // What the board's clock shows when the host's shows `host`.
    Time AtHost(Time host) const { return start_ + (host - start_) * speed_; }
    // The host's time at which the board's clock shows `board`; rounded up, never too early.
    Time ToHost(Time board) const {
        return start_ + (board - start_ + Time::duration(speed_ - 1)) / speed_;
    }
    std::chrono::duration<double> SinceStart(Time board) const { return board - start_; }

  private:
    int speed_;
    Time start_ = std::chrono::steady_clock::now();
};

}  // namespace vboard
