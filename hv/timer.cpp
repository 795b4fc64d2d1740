#include <new>

#include "hv_internal.h"

namespace {

void Unlink(htimer_t* timer) {
    (void)event_del(&timer->timerEvent);
    (timer->prev != nullptr ? timer->prev->next : timer->base.loop->timers) = timer->next;
    if (timer->next != nullptr) {
        timer->next->prev = timer->prev;
    }
}

void OnTimer(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
    auto* timer = static_cast<htimer_t*>(arg);
    hloop_t* loop = timer->base.loop;
    const bool last = timer->repeat != INFINITE && --timer->repeat == 0;
    if (last) {
        Unlink(timer);
    }
    timer->onTimer(timer);
    if (last) {
        delete timer;
    }
    HvReap(loop);
}

}  // namespace

htimer_t* htimer_add(hloop_t* loop, htimer_cb cb, uint32_t timeoutMs, uint32_t repeat) {
    if (loop == nullptr || cb == nullptr || timeoutMs == 0 || repeat == 0) {
        return nullptr;
    }
    auto* timer = new (std::nothrow) htimer_s;
    if (timer == nullptr) {
        return nullptr;
    }
    timer->base.loop = loop;
    timer->onTimer = cb;
    timer->repeat = repeat;
    if (event_assign(&timer->timerEvent, loop->base, -1, EV_PERSIST, OnTimer, timer) != 0 ||
        HvStartTimer(loop, &timer->timerEvent, timeoutMs) != 0) {
        delete timer;
        return nullptr;
    }
    timer->next = loop->timers;
    if (timer->next != nullptr) {
        timer->next->prev = timer;
    }
    loop->timers = timer;
    return timer;
}

void HvFreeTimers(hloop_t* loop) {
    while (loop->timers != nullptr) {
        htimer_t* timer = loop->timers;
        loop->timers = timer->next;
        (void)event_del(&timer->timerEvent);
        delete timer;
    }
}
