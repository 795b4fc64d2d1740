// A thread that runs jobs one after the other: the flash chip.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace vboard {

class WorkQueue {
  public:
    explicit WorkQueue(const char* threadName);
    ~WorkQueue() { Finish(); }
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    // May be called on any thread, but not after Finish.
    void Post(std::function<void()> job);
    // Blocks until all jobs are done and the thread has ended. Do not call it from a job.
    void Finish();

  private:
    void Run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    bool finishing_ = false;
    std::thread thread_;
};

}  // namespace vboard
