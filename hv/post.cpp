#include <unistd.h>

#include <cstdlib>
#include <new>

#include "common/kv_raii.h"
#include "hv_internal.h"

#define KV_TRACE_NAME "hv/post"
#include "common/kv_mini_trace.h"

namespace {

// Removes the first node and copies its event. False if the queue is empty.
bool TakeFirst(hloop_t* loop, hevent_t* ev) {
    HvNode* node = nullptr;
    {
        const MutexGuard guard(&loop->lock);
        node = loop->head;
        if (node == nullptr) {
            return false;
        }
        loop->head = node->next;
        if (loop->head == nullptr) {
            loop->tail = nullptr;
        }
        *ev = node->event;
        node->queued = false;
    }
    if (node->owned) {
        delete node;
    }
    return true;
}

// The caller holds the loop's lock.
void Append(hloop_t* loop, HvNode* node) {
    node->queued = true;
    node->next = nullptr;
    (loop->tail != nullptr ? loop->tail->next : loop->head) = node;
    loop->tail = node;
    // Inside the lock: after unlocking, the event may have run and freed the loop.
    const uint64_t one = 1;
    (void)write(loop->wakeFd, &one, sizeof(one));
}

}  // namespace

void HvPost(hloop_t* loop, HvNode* node) {
    const MutexGuard guard(&loop->lock);
    if (!node->queued) {
        Append(loop, node);
    }
}

void HvCancel(hloop_t* loop, HvNode* node) {
    const MutexGuard guard(&loop->lock);
    if (!node->queued) {
        return;
    }
    HvNode* before = nullptr;
    for (HvNode* at = loop->head; at != node; at = at->next) {
        before = at;
    }
    (before != nullptr ? before->next : loop->head) = node->next;
    if (loop->tail == node) {
        loop->tail = before;
    }
    node->queued = false;
}

// One node for each wake-up. If its callback stops the loop, the remaining nodes keep their
// wake-ups.
void HvOnWake(evutil_socket_t fd, short /*what*/, void* arg) {
    auto* loop = static_cast<hloop_t*>(arg);
    uint64_t one = 0;
    (void)read(fd, &one, sizeof(one));
    hevent_t ev;
    if (!TakeFirst(loop, &ev)) {
        return;
    }
    ev.loop = loop;
    if (ev.cb != nullptr) {
        ev.cb(&ev);
    }
    HvReap(loop);
}

void HvDropQueue(hloop_t* loop) {
    hevent_t dropped;
    while (TakeFirst(loop, &dropped)) {
    }
}

void hloop_post_event(hloop_t* loop, hevent_t* ev) {
    auto* node = new (std::nothrow) HvNode;
    const MutexGuard guard(&loop->lock);
    if (node != nullptr) {
        node->owned = true;
    } else if (!loop->spare.queued) {
        node = &loop->spare;
    } else {
        KV_ERROR("no memory for a posted event, it is lost");
        return;
    }
    node->event = *ev;
    Append(loop, node);
}
