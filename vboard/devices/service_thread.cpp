#include "vboard/devices/service_thread.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace vboard {

StopSignal::StopSignal() : event_(eventfd(0, EFD_CLOEXEC)) {
    if (!event_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void StopSignal::Raise() {
    raised_ = true;
    const uint64_t one = 1;
    (void)!write(event_.Get(), &one, sizeof one);
}

bool StopSignal::RaisedBefore(std::chrono::steady_clock::time_point deadline) const {
    using std::chrono::nanoseconds;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<nanoseconds>(deadline - std::chrono::steady_clock::now());
        if (raised_ || left <= nanoseconds::zero()) {
            return raised_;
        }
        timespec wait{};
        wait.tv_sec = left / std::chrono::seconds(1);
        wait.tv_nsec = (left % std::chrono::seconds(1)).count();
        pollfd event{event_.Get(), POLLIN, 0};
        (void)ppoll(&event, 1, &wait, nullptr);
    }
}

std::thread StartServiceThread(const char* name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread([name, body = std::move(body)] {
        (void)prctl(PR_SET_NAME, name);
        body();
    });
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace vboard
