// The board's clock: the host's, or one that runs a whole number of times as fast.
#pragma once

#include <chrono>

namespace vboard {

class BoardClock {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // Both clocks show the same time at the moment of construction.
    explicit BoardClock(int speed = 1) : speed_(speed) {}

    int Speed() const { return speed_; }
    Time Now() const { return AtHost(std::chrono::steady_clock::now()); }
    // What the board's clock shows when the host's shows `host`.
    Time AtHost(Time host) const { return start_ + (host - start_) * speed_; }
    // When the host's clock will show what the board's does at `board`; never too early.
    Time ToHost(Time board) const {
        return start_ + (board - start_ + Time::duration(speed_ - 1)) / speed_;
    }
    std::chrono::duration<double> SinceStart(Time board) const { return board - start_; }

  private:
    int speed_;
    Time start_ = std::chrono::steady_clock::now();
};

}  // namespace vboard
