#include "tests/fuzz/loop_door.h"

#include <sanitizer/asan_interface.h>

#include <array>
#include <cerrno>

#include "hv/hv_internal.h"
#include "mini/kv_hvloop_pool.h"

namespace fuzz {

hio_t* g_server;
bool g_poolEnding;
size_t g_servedSlot;

namespace {

std::array<hloop_t*, kSlots> g_loops;
std::array<bool, kSlots> g_busy;

hloop_t* LoopOf(size_t slot) {
    hloop_t*& loop = g_loops.at(slot);
    if (loop == nullptr) {
        loop = hloop_new(0);
        loop->runner = pthread_self();
    }
    return loop;
}

// Runs an event of the slot's io, as the loop's thread would.
bool Run(size_t slot, hio_t* io, event hio_s::*which, short what,
         void (*callback)(evutil_socket_t, short, void*)) {
    if (io == nullptr || g_busy.at(slot) || !io->assigned ||
        event_pending(&(io->*which), what, nullptr) == 0) {
        return false;
    }
    hloop_t* const loop = LoopOf(slot);
    const size_t outer = g_servedSlot;
    g_servedSlot = slot;
    g_busy.at(slot) = g_world.poison = true;
    (void)(what == EV_TIMEOUT ? event_del(&(io->*which)) : 0);
    callback(io->fd, what, io);
    ASAN_UNPOISON_MEMORY_REGION(loop->readBuffer, sizeof(loop->readBuffer));
    while (loop->head != nullptr) {
        HvOnWake(loop->wakeFd, EV_READ, loop);
    }
    g_busy.at(slot) = false;
    g_servedSlot = outer;
    return true;
}

size_t g_arriving;

}  // namespace

hio_t* IoOf(size_t slot) {
    return slot == 0 ? g_server : LoopOf(slot)->ios;
}

void Connect(size_t slot) {
    g_arriving = slot;
    (void)Run(0, g_server, &hio_s::readEvent, EV_READ, HvOnReadable);
}

bool Readable(size_t slot) {
    return Run(slot, IoOf(slot), &hio_s::readEvent, EV_READ, HvOnReadable);
}

void Writable(size_t slot) {
    (void)Run(slot, IoOf(slot), &hio_s::writeEvent, EV_WRITE, HvOnWritable);
}

void Expire(size_t slot) {
    (void)Run(slot, IoOf(slot), &hio_s::timerEvent, EV_TIMEOUT, HvOnIoTimer);
}

void CloseAll() {
    for (hloop_t* loop : g_loops) {
        while (loop != nullptr && loop->ios != nullptr) {
            HvCloseNow(loop->ios);
        }
        (void)(loop != nullptr ? (HvReap(loop), HvDropQueue(loop), 0) : 0);
    }
    g_server = nullptr;
}

}  // namespace fuzz

using namespace fuzz;

extern "C" int __wrap_accept4(int, sockaddr* address, socklen_t*, int) {
    address->sa_family = AF_INET;
    errno = EMFILE;
    return Refuses(16) ? -1 : kFd;
}

hloop_t* KV_HV_GetAcceptLoop() {
    return LoopOf(0);
}
hloop_t* KV_HV_GetWorkLoop() {
    return LoopOf(0);
}
void KV_HV_HandOver(hio_t* io, void (*serve)(hio_t* io)) {
    hio_detach(io);
    hio_attach(LoopOf(g_arriving), io);
    serve(io);
}
void KV_HV_RunOnLoop(hloop_t* loop, void (*procedure)(hloop_t*, void*), void* argument) {
    procedure(loop, argument);
    g_server = loop->ios;
}
void KV_HV_LoopPoolSettle() {}
bool KV_HV_LoopPoolIsEnding() {
    return g_poolEnding;
}
