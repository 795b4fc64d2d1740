#define KV_TRACE_NAME "kv_hvloop_pool"
#include "mini/kv_hvloop_pool.h"

#include <pthread.h>
#include <semaphore.h>
#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <new>

#include "common/kv_mini_trace.h"
#include "common/kv_thread.h"

namespace {

constexpr size_t kThreadStackSize = 0x20000;

struct LoopSlot {
    hloop_t* loop;
    // Stored for the join, because libhv's hloop_tid returns a kernel thread ID.
    pthread_t thread;
    // Connections on their way to this loop, not yet counted by hloop_nios.
    std::atomic<uint32_t> pending;
};

struct LoopPool {
    std::atomic<int> inited;
    std::atomic<bool> ending;
    LoopSlot slots[4];
};

LoopPool g_pool;

void* __KV_HV_LoopProc(void* loop) {
    (void)prctl(PR_SET_NAME, "__KV_HV_LoopProc");
    (void)hloop_run(static_cast<hloop_t*>(loop));
    return nullptr;
}

void StopOwnLoop(hevent_t* event) {
    (void)hloop_stop(hevent_loop(event));
}

void EmptySlot(LoopSlot* slot) {
    // A posted stop also reaches a loop whose thread has not entered hloop_run. It runs after every
    // hand-over that was posted before it.
    hevent_t stop{};
    stop.cb = StopOwnLoop;
    hloop_post_event(slot->loop, &stop);
    (void)pthread_join(slot->thread, nullptr);
    hloop_free(&slot->loop);
}

uint32_t Load(const LoopSlot* slot) {
    return hloop_nios(slot->loop) + slot->pending.load();
}

LoopSlot* LeastLoadedWorker() {
    LoopSlot* chosen = &g_pool.slots[1];
    uint32_t least = Load(chosen);
    for (LoopSlot* slot : {&g_pool.slots[2], &g_pool.slots[3]}) {
        const uint32_t load = Load(slot);
        if (load < least) {
            chosen = slot;
            least = load;
        }
    }
    return chosen;
}

struct Errand {
    void (*procedure)(hloop_t* loop, void* arg);
    void* arg;
    sem_t done;
};

void RunErrand(hevent_t* event) {
    auto* errand = static_cast<Errand*>(hevent_userdata(event));
    errand->procedure(hevent_loop(event), errand->arg);
    (void)sem_post(&errand->done);
}

#ifdef KV_HV_SYSTEM
struct Passage {
    hio_t* io;
    LoopSlot* slot;
    void (*serve)(hio_t* io);
};

void Arrive(hevent_t* event) {
    Passage* passage = static_cast<Passage*>(hevent_userdata(event));
    hio_attach(hevent_loop(event), passage->io);
    passage->serve(passage->io);
    // Last, so the acceptor always finds the connection in one of the counts.
    passage->slot->pending.fetch_sub(1);
    delete passage;
}
#endif

}  // namespace

int KV_HV_LoopPoolInit(void) {
    g_pool.ending = false;
    for (LoopSlot& slot : g_pool.slots) {
        if (slot.loop != nullptr) {
            // Left running by a call that failed at a later slot.
            continue;
        }
        // No HLOOP_FLAG_AUTO_FREE: EmptySlot frees the loop after joining its thread.
        slot.loop = hloop_new(0);
        if (slot.loop == nullptr) {
            KV_FAILED("loop new failed!");
            return -1;
        }
        const int error =
            KV_ThreadStart(&slot.thread, kThreadStackSize, __KV_HV_LoopProc, slot.loop);
        if (error != 0) {
            KV_ASSERT_FAIL("pthread create failed:%s", strerror(error));
        }
    }
    KV_DEBUG("LoopPoolInit Init Success!");
    g_pool.inited = 1;
    // A running libhv loop counts its own wake-up descriptor. Without the wait, the threads'
    // start-up times would decide which workers get the first connections.
    KV_HV_LoopPoolSettle();
    return 0;
}

int KV_HV_LoopPoolStart(void) {
    return g_pool.inited == 1 ? -1 : KV_HV_LoopPoolInit();
}

int KV_HV_LoopPoolDeInit(void) {
    if (g_pool.inited != 1) {
        KV_FAILED("Event not Inited!");
        return -1;
    }
    g_pool.inited = 0;
    // The acceptor ends first: it must not hand a connection to a worker that is gone.
    for (LoopSlot& slot : g_pool.slots) {
        EmptySlot(&slot);
    }
    KV_DEBUG("LoopPoolInit DeInit Success!");
    return 0;
}

void KV_HV_LoopPoolAnnounceEnd(void) {
    g_pool.ending = true;
}

bool KV_HV_LoopPoolIsEnding(void) {
    return g_pool.ending;
}

hloop_t* KV_HV_GetAcceptLoop(void) {
    if (g_pool.inited != 1 && KV_HV_LoopPoolInit() != 0) {
        return nullptr;
    }
    return g_pool.slots[0].loop;
}

hloop_t* KV_HV_GetWorkLoop(void) {
    if (g_pool.inited != 1 && KV_HV_LoopPoolInit() != 0) {
        return nullptr;
    }
    return LeastLoadedWorker()->loop;
}

// Does not use KV_HV_GetWorkLoop: an accept during removal must not create a new pool. The workers
// outlive the acceptor's thread, so the choice stays valid.
void KV_HV_HandOver(hio_t* io, void (*serve)(hio_t* io)) {
#ifdef KV_HV_SYSTEM
    // libhv's hio_attach must run on the worker's thread.
    Passage* passage = new (std::nothrow) Passage{io, nullptr, serve};
    if (passage == nullptr) {
        (void)hio_close(io);
        return;
    }
    hio_detach(io);
    passage->slot = LeastLoadedWorker();
    passage->slot->pending.fetch_add(1);
    hevent_t arrival{};
    arrival.cb = Arrive;
    arrival.userdata = passage;
    hloop_post_event(passage->slot->loop, &arrival);
#else
    hio_detach(io);
    hio_attach(LeastLoadedWorker()->loop, io);
    serve(io);
#endif
}

void KV_HV_RunOnLoop(hloop_t* loop, void (*procedure)(hloop_t* loop, void* arg), void* arg) {
    Errand errand{procedure, arg, {}};
    (void)sem_init(&errand.done, 0, 0);
    hevent_t event{};
    event.cb = RunErrand;
    event.userdata = &errand;
    hloop_post_event(loop, &event);
    while (sem_wait(&errand.done) != 0 && errno == EINTR) {
    }
    (void)sem_destroy(&errand.done);
}

void KV_HV_LoopPoolSettle(void) {
    if (g_pool.inited != 1) {
        return;
    }
    for (const LoopSlot& slot : g_pool.slots) {
        KV_HV_RunOnLoop(
            slot.loop, [](hloop_t*, void*) {}, nullptr);
    }
}
