// How the serving threads start, and how they learn that they should end.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "common/kv_raii.h"

namespace vboard {

// A flag that can be polled for and waited for; raised once, stays raised. Any thread.
class StopSignal {
  public:
    StopSignal();

    void Raise();
    bool Raised() const { return raised_; }
    // Readable once raised.
    int Fd() const { return event_.Get(); }
    // Blocks until `deadline`, or until raised: then true.
    bool RaisedBefore(std::chrono::steady_clock::time_point deadline) const;

  private:
    UniqueFd event_;
    std::atomic<bool> raised_{false};
};

// Starts a thread that takes none of the process's signals. `name`: up to 15 characters.
std::thread StartServiceThread(const char* name, std::function<void()> body);

}  // namespace vboard
