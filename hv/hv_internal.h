// Shared by the files of the bundled event loop.
//
// One rule keeps it free of races: only a loop's own thread touches its event base and the ios
// registered with it. Other threads put a node on the loop's queue. The queue's lock also publishes
// what they have written to the io. libevent therefore runs without locks, and its thread support
// is not linked.
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
constexpr size_t kHvOutputMax = size_t{512} << 10;  // for all ios together
constexpr uint32_t kHvLingerMs = 60000;
constexpr uint32_t kHvAcceptRetryMs = 200;

// Work for a loop's thread: a posted event, or a request embedded in an io.
struct HvNode {
    HvNode* next = nullptr;
    hevent_t event{};
    bool queued = false;
    bool owned = false;  // allocated by hloop_post_event, freed by the loop
};

enum class HvKind : uint8_t { kListener, kStream, kDatagram };

// The hevent_t comes first, because hevent_loop() and hevent_userdata() must also accept an io.
struct hio_s {
    hevent_t base{};
    hio_s* prev = nullptr;
    hio_s* next = nullptr;
    HvNode readRequest;
    HvNode closeRequest;
    int fd = -1;
    HvKind kind = HvKind::kStream;
    bool assigned = false;  // the three events below are set up on the loop's base
    bool closing = false;   // closed by its user, still sending its queue
    bool closed = false;
    bool broken = false;   // a send failed: nothing more can go out
    bool starved = false;  // a listener whose last accept failed
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

    // A semaphore that counts the queued nodes. Cancelled nodes leave a harmless surplus.
    int wakeFd = -1;
    event wakeEvent{};

    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;  // guards the queue and the list of ios
    HvNode* head = nullptr;
    HvNode* tail = nullptr;
    HvNode spare;  // for an event posted when memory has run out
    hio_s* ios = nullptr;

    htimer_s* timers = nullptr;
    hio_s* dead = nullptr;  // closed ios, kept until the current callback returns
    // Uninitialised, because a loop that never reads then touches no memory for it. The last byte
    // is for the NUL after a full read.
    char readBuffer[kHvReadMax + 1];
};

// loop.cpp
bool HvOnLoopThread(const hloop_t* loop);
// (Re)starts a timer event. Counts from now, not from when the current callback began.
int HvStartTimer(hloop_t* loop, event* timer, uint32_t ms);

// post.cpp: the queue. Any thread, except HvOnWake: libevent calls it on the loop's thread.
void HvPost(hloop_t* loop, HvNode* node);
void HvCancel(hloop_t* loop, HvNode* node);
void HvOnWake(evutil_socket_t fd, short what, void* loop);
void HvDropQueue(hloop_t* loop);

// timer.cpp
void HvFreeTimers(hloop_t* loop);

// io.cpp: life of an io. On the loop's thread only, except HvNewIo. HvNewIo takes over fd. If it
// fails, it closes fd and returns null.
hio_t* HvNewIo(hloop_t* loop, int fd, HvKind kind);
int HvAssign(hio_t* io);
int HvStartRead(hio_t* io);
void HvCloseNow(hio_t* io);
// Frees the ios that the last callback closed.
void HvReap(hloop_t* loop);

// stream.cpp: the output queue, and libevent's callbacks for an io.
void HvDropOutput(hio_t* io);
void HvOnReadable(evutil_socket_t fd, short what, void* io);
void HvOnWritable(evutil_socket_t fd, short what, void* io);
void HvOnIoTimer(evutil_socket_t fd, short what, void* io);
