#include <unistd.h>

#include <cstdlib>
#include <new>

#include "common/kv_raii.h"
#include "hv_internal.h"

#define KV_TRACE_NAME "hv/post"
#include "common/kv_mini_trace.h"

namespace {

HvNode* TakeFirst(hloop_t* loop) {
    const MutexGuard guard(&loop->lock);
    HvNode* node = loop->head;
    if (node != nullptr) {
        loop->head = node->next;
        if (loop->head == nullptr) {
            loop->tail = nullptr;
        }
        node->queued = false;
    }
    return node;
}

}  // namespace

void HvPost(hloop_t* loop, HvNode* node) {
    const MutexGuard guard(&loop->lock);
    if (node->queued) {
        return;
    }
    node->queued = true;
    node->next = nullptr;
    (loop->tail != nullptr ? loop->tail->next : loop->head) = node;
    loop->tail = node;
    // Under the lock: once it is let go, the event may have run and the loop may be gone.
    const uint64_t one = 1;
    (void)write(loop->wakeFd, &one, sizeof(one));
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

// One node a wake-up: a callback that stops the loop ends it here, and what is still queued keeps
// its wake-up.
void HvOnWake(evutil_socket_t fd, short /*what*/, void* arg) {
    auto* loop = static_cast<hloop_t*>(arg);
    uint64_t one = 0;
    (void)read(fd, &one, sizeof(one));
    HvNode* node = TakeFirst(loop);
    if (node == nullptr) {
        return;
    }
    hevent_t ev = node->event;
    ev.loop = loop;
    if (node->owned) {
        delete node;
    }
    if (ev.cb != nullptr) {
        ev.cb(&ev);
    }
    HvReap(loop);
}

void HvDropQueue(hloop_t* loop) {
    for (HvNode* node = TakeFirst(loop); node != nullptr; node = TakeFirst(loop)) {
        if (node->owned) {
            delete node;
        }
    }
}

void hloop_post_event(hloop_t* loop, hevent_t* ev) {
    auto* node = new (std::nothrow) HvNode;
    if (node == nullptr) {
        KV_ERROR("no memory for a posted event, it is lost");
        return;
    }
    node->event = *ev;
    node->owned = true;
    HvPost(loop, node);
}
