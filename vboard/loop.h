// A poll(2) loop for the runner's main thread.
#pragma once

#include <functional>
#include <map>

namespace vboard {

class Loop {
  public:
    // Calls `ready` when `fd` is readable or closed, until removed. Either may be called from a
    // callback, also for the callback's own descriptor.
    void Add(int fd, std::function<void()> ready) { sources_[fd] = std::move(ready); }
    void Remove(int fd) { sources_.erase(fd); }
    void Run();
    void Stop() { stopped_ = true; }

  private:
    std::map<int, std::function<void()>> sources_;
    bool stopped_ = false;
};

}  // namespace vboard
