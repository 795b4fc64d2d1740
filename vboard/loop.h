// A poll(2) loop for the runner's main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

namespace vboard {

class Loop {
  public:
    // Calls `ready` whenever `fd` is readable or closed, until it is removed. Callbacks may call
    // Add and Remove, even for their own descriptor.
    void Add(int fd, std::function<void()> ready) {
        sources_[fd] = {++lastId_, std::move(ready), false, {}};
    }
    // The same, but after each call the loop ignores `fd` for a few milliseconds, so that a writer
    // of many small pieces does not wake this process for each one.
    void AddLazily(int fd, std::function<void()> ready) {
        sources_[fd] = {++lastId_, std::move(ready), true, {}};
    }
    void Remove(int fd) { sources_.erase(fd); }
    void Run();
    void Stop() { stopped_ = true; }

  private:
    struct Source {
        // Descriptor numbers are reused soon. The id keeps an event for an old descriptor from
        // reaching a new one with the same number.
        uint64_t id = 0;
        std::function<void()> ready;
        bool lazy = false;
        std::chrono::steady_clock::time_point rests;  // lazy: ignored until then
    };
    std::map<int, Source> sources_;
    uint64_t lastId_ = 0;
    bool stopped_ = false;
};

}  // namespace vboard
