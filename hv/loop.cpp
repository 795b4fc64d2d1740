#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "hv_internal.h"

namespace {

// Without locks, because only the loop's thread uses the base. Ignores the environment, which must
// not choose the polling method of a resident program. Uses the precise clock, because the coarse
// one lags, and a loop would wake up twice for a timer. Avoids epoll, which needs one more
// descriptor with the precise clock; the loops poll only a few.
event_base* NewBase() {
    event_config* config = event_config_new();
    if (config == nullptr) {
        return nullptr;
    }
    event_base* base = nullptr;
    constexpr int kFlags =
        EVENT_BASE_FLAG_NOLOCK | EVENT_BASE_FLAG_IGNORE_ENV | EVENT_BASE_FLAG_PRECISE_TIMER;
    if (event_config_set_flag(config, kFlags) == 0 &&
        event_config_avoid_method(config, "epoll") == 0) {
        base = event_base_new_with_config(config);
    }
    event_config_free(config);
    return base;
}

void Destroy(hloop_t* loop) {
    if (loop->wakeFd >= 0) {
        (void)close(loop->wakeFd);
    }
    if (loop->base != nullptr) {
        event_base_free(loop->base);
    }
    (void)pthread_mutex_destroy(&loop->lock);
    delete loop;
}

void StopOwnLoop(hevent_t* ev) {
    (void)hloop_stop(hevent_loop(ev));
}

}  // namespace

bool HvOnLoopThread(const hloop_t* loop) {
    return loop->runner.load(std::memory_order_acquire) == pthread_self();
}

int HvStartTimer(hloop_t* loop, event* timer, uint32_t ms) {
    const timeval delay = {static_cast<time_t>(ms / 1000),
                           static_cast<suseconds_t>(ms % 1000) * 1000};
    (void)event_base_update_cache_time(loop->base);
    return event_add(timer, &delay);
}

hloop_t* hloop_new(int flags) {
    auto* loop = new (std::nothrow) hloop_s;
    if (loop == nullptr) {
        return nullptr;
    }
    loop->flags = flags;
    loop->base = NewBase();
    loop->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    if (loop->base == nullptr || loop->wakeFd < 0 ||
        event_assign(&loop->wakeEvent, loop->base, loop->wakeFd, EV_READ | EV_PERSIST, HvOnWake,
                     loop) != 0 ||
        event_add(&loop->wakeEvent, nullptr) != 0) {
        Destroy(loop);
        return nullptr;
    }
    return loop;
}

void hloop_free(hloop_t** pp) {
    if (pp == nullptr || *pp == nullptr) {
        return;
    }
    hloop_t* loop = *pp;
    *pp = nullptr;
    // The caller stands in for the loop's thread, so close callbacks may use their io as usual.
    loop->runner.store(pthread_self(), std::memory_order_release);
    while (loop->ios != nullptr) {
        HvCloseNow(loop->ios);
    }
    HvReap(loop);
    HvFreeTimers(loop);
    // Takes the lock: the thread that posted the final stop may still hold it.
    HvDropQueue(loop);
    (void)event_del(&loop->wakeEvent);
    Destroy(loop);
}

int hloop_run(hloop_t* loop) {
    if (loop == nullptr) {
        errno = EINVAL;
        return -1;
    }
    pthread_t nobody{};
    if (!loop->runner.compare_exchange_strong(nobody, pthread_self())) {
        errno = EBUSY;
        return -1;
    }
    const int result = event_base_dispatch(loop->base) < 0 ? -1 : 0;
    loop->runner.store(pthread_t{}, std::memory_order_release);
    if ((loop->flags & HLOOP_FLAG_AUTO_FREE) != 0) {
        hloop_free(&loop);
    }
    return result;
}

int hloop_stop(hloop_t* loop) {
    if (loop == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (HvOnLoopThread(loop)) {
        return event_base_loopbreak(loop->base);
    }
    hevent_t stop{};
    stop.cb = StopOwnLoop;
    hloop_post_event(loop, &stop);
    return 0;
}

uint32_t hloop_nios(hloop_t* loop) {
    return loop->nios.load(std::memory_order_acquire);
}
