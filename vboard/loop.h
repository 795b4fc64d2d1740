// A poll(2) loop for the runner's main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

namespace vboard {

class Loop {
  public:
    // Calls `ready` when `fd` is readable or closed, until removed. Either may be called from a
    // callback, also for the callback's own descriptor.
    void Add(int fd, std::function<void()> ready) {
        sources_[fd] = {++lastId_, std::move(ready), false, {}};
    }
    // The same for what may wait a few milliseconds: after a call nobody listens for that long, so
    // a writer of many small pieces does not pay for waking this process with each.
    void AddLazily(int fd, std::function<void()> ready) {
        sources_[fd] = {++lastId_, std::move(ready), true, {}};
    }
    void Remove(int fd) { sources_.erase(fd); }
    void Run();
    void Stop() { stopped_ = true; }

  private:
    struct Source {
        // A descriptor's number is soon used again; what poll said of the old one is then not
        // meant for the new one.
        uint64_t id = 0;
        std::function<void()> ready;
        bool lazy = false;
        std::chrono::steady_clock::time_point rests;  // lazy: nobody listens until then
    };
    std::map<int, Source> sources_;
    uint64_t lastId_ = 0;
    bool stopped_ = false;
};

}  // namespace vboard
