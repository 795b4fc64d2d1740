#include "vboard/devices/work_queue.h"

#include <utility>

#include "vboard/devices/service_thread.h"

namespace vboard {

WorkQueue::WorkQueue(const char* threadName) {
    thread_ = StartServiceThread(threadName, [this] { Run(); });
}

void WorkQueue::Post(std::function<void()> job) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
}

void WorkQueue::Finish() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        finishing_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void WorkQueue::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return finishing_ || !jobs_.empty(); });
        if (jobs_.empty()) {
            return;
        }
        const std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

}  // namespace vboard
