// Starts the serving threads and tells them to end.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "common/kv_raii.h"

namespace vboard {

// A flag that threads can test, poll and wait for. Once raised, it stays raised. May be used on any
// thread.
class StopSignal {
  public:
    StopSignal();

    void Raise();
    bool Raised() const { return raised_; }
    // Readable once raised.
    int Fd() const { return event_.Get(); }
    // Blocks until `deadline`, or until raised. Returns whether it is raised.
    bool RaisedBefore(std::chrono::steady_clock::time_point deadline) const;

  private:
    UniqueFd event_;
    std::atomic<bool> raised_{false};
};

// Starts a thread with all signals blocked. `name`: up to 15 characters.
std::thread StartServiceThread(const char* name, std::function<void()> body);

}  // namespace vboard
