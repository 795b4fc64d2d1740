// What the tests of the event loop share: loops on threads, waiting for conditions, plain clients.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "common/kv_raii.h"
#include "hv/hloop.h"
#include "hv/hsocket.h"

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

// A loop that runs on a thread of its own until the end of the scope.
class LoopThread {
  public:
    LoopThread() : loop_(hloop_new(0)), thread_([this] { hloop_run(loop_); }) {}
    ~LoopThread() { Stop(); }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;
    hloop_t* Get() { return loop_; }
    std::thread::id Id() { return thread_.get_id(); }

    // Runs `work` on the loop's thread and waits for it.
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

// Counts what happens on one thread so that another can wait for it.
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
        return changed_.wait_for(guard, std::chrono::seconds(20), [&] { return count_ >= n; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t count_ = 0;
};

inline int PortOf(hio_t* io) {
    return ntohs(reinterpret_cast<sockaddr_u*>(hio_localaddr(io))->sin.sin_port);
}

// A blocking client socket for 127.0.0.1; its receives give up after 20 s.
inline UniqueFd ClientSocket(int type = SOCK_STREAM) {
    UniqueFd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const timeval limit = {20, 0};
    (void)setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return fd;
}
inline bool ConnectTo(const UniqueFd& fd, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}
inline UniqueFd Client(int port, int type = SOCK_STREAM) {
    UniqueFd fd = ClientSocket(type);
    if (!ConnectTo(fd, port)) {
        ADD_FAILURE() << "connect: " << strerror(errno);
    }
    return fd;
}
inline void Send(const UniqueFd& fd, const std::string& bytes) {
    ASSERT_EQ(send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}
// Reads until `size` bytes, the end of the connection or an error.
inline std::string Receive(const UniqueFd& fd, size_t size) {
    std::string all(size, '\0');
    size_t used = 0;
    while (used < size) {
        const ssize_t got = recv(fd.Get(), &all[used], size - used, 0);
        if (got <= 0) {
            break;
        }
        used += static_cast<size_t>(got);
    }
    all.resize(used);
    return all;
}
inline bool AtEnd(const UniqueFd& fd) {
    char byte;
    return recv(fd.Get(), &byte, 1, 0) == 0;
}
inline std::string Pattern(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        seed = seed * 1103515245U + 12345U;
        byte = static_cast<char>(seed >> 16);
    }
    return bytes;
}

inline std::set<int> OpenDescriptors() {
    std::set<int> open;
    DIR* dir = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(dir)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(dir)) {
            open.insert(fd);
        }
    }
    (void)closedir(dir);
    return open;
}
