// What the files of the bundled event loop share.
//
// One rule keeps it free of races: the event base of a loop, and every io that is registered with
// it, are touched by the loop's own thread only. What another thread asks for travels as a node on
// the loop's queue, whose lock also publishes what that thread wrote into the io before. So
// libevent runs without locks, and its thread support is not linked.
#pragma once

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "hv/hloop.h"
#include "hv/hsocket.h"

constexpr size_t kHvReadMax = 8192;
constexpr size_t kHvOutputMax = size_t{512} << 10;  // of all ios together
constexpr uint32_t kHvLingerMs = 60000;
constexpr uint32_t kHvAcceptRetryMs = 200;

// A piece of work for a loop's thread: a posted event, or a request that is part of an io.
struct HvNode {
    HvNode* next = nullptr;
    hevent_t event{};
    bool queued = false;
    bool owned = false;  // allocated by hloop_post_event, freed by the loop
};

enum class HvKind : uint8_t { kListener, kStream, kDatagram };

// The hevent_t comes first, so that hevent_loop() and hevent_userdata() take an io as they take an
// event.
struct hio_s {
    hevent_t base{};
    hio_s* prev = nullptr;
    hio_s* next = nullptr;
    HvNode readRequest;
    HvNode closeRequest;
    int fd = -1;
    HvKind kind = HvKind::kStream;
    bool assigned = false;  // the three events below belong to the loop's event base
    bool closing = false;   // closed by its user, output still to be sent
    bool closed = false;
    bool broken = false;   // a send failed: nothing more can go out
    bool starved = false;  // a listener whose last accept found no descriptor
    int readTimeoutMs = 0;
    int64_t lastArrivalMs = 0;
    haccept_cb onAccept = nullptr;
    hread_cb onRead = nullptr;
    hwrite_cb onWrite = nullptr;
    hclose_cb onClose = nullptr;
    void* context = nullptr;
    evbuffer* output = nullptr;
    size_t outputMax = kHvOutputMax;
    sockaddr_u local{};
    sockaddr_u peer{};
    event readEvent{};
    event writeEvent{};
    event timerEvent{};
};

struct htimer_s {
    hevent_t base{};
    htimer_s* prev = nullptr;
    htimer_s* next = nullptr;
    htimer_cb onTimer = nullptr;
    uint32_t repeat = 0;
    event timerEvent{};
};

struct hloop_s {
    int flags = 0;
    event_base* base = nullptr;
    std::atomic<pthread_t> runner{};  // 0 while no thread runs the loop
    std::atomic<uint32_t> nios{0};

    // A semaphore that counts the nodes on the queue; cancelled ones leave a harmless surplus.
    int wakeFd = -1;
    event wakeEvent{};

    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;  // guards the queue and the list of ios
    HvNode* head = nullptr;
    HvNode* tail = nullptr;
    HvNode spare;  // for an event that is posted while there is no memory
    hio_s* ios = nullptr;

    htimer_s* timers = nullptr;
    hio_s* dead = nullptr;  // closed ios, kept until the callback in progress is over
    // Left uninitialised, so that a loop that never reads costs no memory for it. The last byte is
    // for the NUL behind a full read.
    char readBuffer[kHvReadMax + 1];
};

// loop.cpp
bool HvOnLoopThread(const hloop_t* loop);
// (Re)starts a timer event. Counts from this moment, not from when the callback in progress began.
int HvStartTimer(hloop_t* loop, event* timer, uint32_t ms);

// post.cpp: the queue. Any thread.
void HvPost(hloop_t* loop, HvNode* node);
void HvCancel(hloop_t* loop, HvNode* node);
void HvOnWake(evutil_socket_t fd, short what, void* loop);
void HvDropQueue(hloop_t* loop);

// timer.cpp
void HvFreeTimers(hloop_t* loop);

// io.cpp: life of an io. All but HvNewIo on the loop's thread.
// Takes over fd, also on failure (null).
hio_t* HvNewIo(hloop_t* loop, int fd, HvKind kind);
int HvAssign(hio_t* io);
int HvStartRead(hio_t* io);
void HvCloseNow(hio_t* io);
// Frees the ios that were closed by the callback that has just returned.
void HvReap(hloop_t* loop);

// stream.cpp: what is still to be sent, and what libevent calls for an io.
void HvDropOutput(hio_t* io);
void HvOnReadable(evutil_socket_t fd, short what, void* io);
void HvOnWritable(evutil_socket_t fd, short what, void* io);
void HvOnIoTimer(evutil_socket_t fd, short what, void* io);
