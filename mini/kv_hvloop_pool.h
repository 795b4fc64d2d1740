// The event loops that carry the mini services: four loops, each on a thread of its own. Slot 0
// accepts TCP connections; slots 1 to 3, the workers, carry the connections and the discovery
// socket.
//
// Unless said otherwise the functions are for the thread that starts and stops the services, one
// call at a time, and never for a thread of the pool itself.
#pragma once

#include "hv/hloop.h"

// Creates the pool: loops and threads, each thread with a stack of 128 KiB, and waits until all
// loops run. Returns 0; -1 when a loop cannot be created, after which the pool does not count
// as created: loops made so far keep running, and the next call adds the missing ones. A thread
// that cannot be created aborts the process.
int KV_HV_LoopPoolInit(void);

// The same for a pool that must not exist yet: -1, and nothing happens, when it does.
int KV_HV_LoopPoolStart(void);

// Stops, joins and frees the loops, slot by slot, and closes every connection that they still hold.
// Sockets that a module opened on a loop of the pool are closed too, so the module must have let
// them go before. Blocks until each loop has finished the callback it is in. Returns 0; -1 without
// a pool.
int KV_HV_LoopPoolDeInit(void);

// Tells the callbacks on the loops that the pool is about to be removed: those that serve a request
// return at once from now on, so that a stop does not wait for the requests that have queued up.
// Holds until the pool is created again. Any thread; does not block.
void KV_HV_LoopPoolAnnounceEnd(void);
bool KV_HV_LoopPoolIsEnding(void);

// The loop that accepts connections; creates the pool when there is none. Null when that fails.
hloop_t* KV_HV_GetAcceptLoop(void);

// The worker loop with the fewest ios, the lower slot among equals; creates the pool when there is
// none. Null when that fails.
hloop_t* KV_HV_GetWorkLoop(void);

// Moves a connection that was just accepted to the least loaded worker and calls `serve`, which
// sets the callbacks and starts to read. For accept callbacks on the acceptor loop only. Does not
// block. `serve` has run on return with the bundled event loop, and runs on the worker's thread
// with libhv: it must suit both. A connection that cannot be moved is closed.
void KV_HV_HandOver(hio_t* io, void (*serve)(hio_t* io));

// Runs `procedure(loop, arg)` on the thread of one of the pool's loops and waits for its end:
// behind the callback that the loop is in, and behind what was posted to it before. Whatever
// touches a loop's sockets from outside goes this way. Any thread but those of the pool.
void KV_HV_RunOnLoop(hloop_t* loop, void (*procedure)(hloop_t* loop, void* arg), void* arg);

// Waits until every loop of the pool has finished the callback it is in now and has done what was
// posted to it before. Returns at once without a pool. Any thread but those of the pool.
void KV_HV_LoopPoolSettle(void);
