// Shared by the tests of the event loop: posted events, loops on threads, counts to wait for.
#pragma once

#include <condition_variable>
#include <future>
#include <mutex>

#include "hv/hloop.h"
#include "hv/hsocket.h"
#include "tests/support/footprint.h"
#include "tests/support/tcp_client.h"

using namespace kv_test;

#ifdef KV_HV_SYSTEM
#include "hv/hlog.h"
// libhv would write a log file into the working directory.
const int kLoggerOff = (hlog_disable(), 0);
#define BUNDLED_ONLY(reason) GTEST_SKIP() << "not with an installed libhv: " << (reason)
#else
#define BUNDLED_ONLY(reason) static_assert(sizeof(reason) > 1, "say why")
#endif

inline void Post(hloop_t* loop, hevent_cb cb, void* userdata) {
    hevent_t ev;
    memset(&ev, 0, sizeof(ev));
    ev.cb = cb;
    ev.userdata = userdata;
    hloop_post_event(loop, &ev);
}

inline void PostStop(hloop_t* loop) {
    Post(
        loop, [](hevent_t* ev) { hloop_stop(hevent_loop(ev)); }, nullptr);
}

// A loop that runs on its own thread until the end of the scope.
class LoopThread {
  public:
    LoopThread() : loop_(hloop_new(0)), thread_([this] { hloop_run(loop_); }) {}
    ~LoopThread() { Stop(); }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;
    hloop_t* Get() { return loop_; }
    std::thread::id Id() { return thread_.get_id(); }

    // Runs `work` on the loop's thread and waits until it is done.
    void Do(const std::function<void()>& work) {
        struct Job {
            const std::function<void()>* work;
            std::promise<void> done;
        } job = {&work, {}};
        Post(
            loop_,
            [](hevent_t* ev) {
                auto* posted = static_cast<Job*>(hevent_userdata(ev));
                (*posted->work)();
                posted->done.set_value();
            },
            &job);
        job.done.get_future().wait();
    }
    void Stop() {
        if (thread_.joinable()) {
            PostStop(loop_);
            thread_.join();
            hloop_free(&loop_);
        }
    }

  private:
    hloop_t* loop_;
    std::thread thread_;
};

// Counts events on one thread, so that another thread can wait for them.
class Tally {
  public:
    void Add(size_t n = 1) {
        const std::lock_guard<std::mutex> guard(mutex_);
        count_ += n;
        changed_.notify_all();
    }
    size_t Count() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return count_;
    }
    bool WaitFor(size_t n) {
        std::unique_lock<std::mutex> guard(mutex_);
        return changed_.wait_for(guard, std::chrono::seconds(60), [&] { return count_ >= n; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t count_ = 0;
};

inline int PortOf(hio_t* io) {
    return ntohs(reinterpret_cast<sockaddr_u*>(hio_localaddr(io))->sin.sin_port);
}
