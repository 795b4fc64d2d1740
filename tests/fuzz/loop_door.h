// The real event loop without threads and waiting: a fuzzer says which descriptor or timer is
// ready.
#pragma once

#include "hv/hloop.h"
#include "tests/fuzz/world.h"

namespace fuzz {

constexpr size_t kSlots = 5;  // loops; slot 0 has the servers, each other one a single connection

extern hio_t* g_server;      // the listener or datagram socket that was opened last
extern bool g_poolEnding;    // what the pool says
extern size_t g_servedSlot;  // of the callback that is running

// The io of a slot, null if there is none.
hio_t* IoOf(size_t slot);
// A connection arrives for the slot.
void Connect(size_t slot);
// Lets the slot's io find its descriptor readable or writable or its timer expired, and runs what
// was posted to its loop. Does nothing while a callback of the slot runs, and, for a readable
// descriptor, returns false if the io does not read.
bool Readable(size_t slot);
void Writable(size_t slot);
void Expire(size_t slot);
void CloseAll();

}  // namespace fuzz
