// The event loops of the mini services: four loops, each on its own thread. Slot 0 accepts TCP
// connections. Slots 1 to 3, the workers, carry the connections and the discovery socket.
//
// Unless its comment says otherwise, call a function from the thread that starts and stops the
// services, one call at a time, and never from a thread of the pool.
#pragma once

#include "hv/hloop.h"

// Creates the loops and their threads (stacks of 128 KiB) and waits until all loops run. Returns 0.
// Returns -1 when a loop cannot be created: the pool then does not count as created, its existing
// loops keep running, and the next call adds the missing ones. Aborts the process when a thread
// cannot be created.
int KV_HV_LoopPoolInit(void);

// The same, but returns -1 and does nothing if the pool exists.
int KV_HV_LoopPoolStart(void);

// Stops, joins and frees the loops, slot by slot, and closes their connections. Every socket left
// on a loop is closed and freed, so modules must close theirs first. Blocks until each loop has
// finished its current callback. Returns 0, or -1 without a pool.
int KV_HV_LoopPoolDeInit(void);

// Marks the pool as ending. Callbacks that serve requests then return at once, so a stop does not
// wait for queued requests. The mark stays until the pool is created again. Any thread; does not
// block.
void KV_HV_LoopPoolAnnounceEnd(void);
bool KV_HV_LoopPoolIsEnding(void);

// Returns the loop that accepts connections. Creates the pool if there is none; null if that fails.
hloop_t* KV_HV_GetAcceptLoop(void);

// Returns the worker loop with the fewest ios, the lowest slot among equals. Creates the pool if
// there is none; null if that fails.
hloop_t* KV_HV_GetWorkLoop(void);

// Moves a newly accepted connection to the least loaded worker and calls `serve`, which sets the
// callbacks and starts reading. Closes a connection that it cannot move. Call it only from accept
// callbacks on the acceptor loop. Does not block. The bundled loop runs `serve` before this
// function returns; libhv runs it later, on the worker's thread.
void KV_HV_HandOver(hio_t* io, void (*serve)(hio_t* io));

// Runs `procedure(loop, arg)` on the thread of a loop of the pool and waits until it is done. It
// runs after the loop's current callback and after everything posted before. All access to a loop's
// sockets from other threads goes this way. Any thread but those of the pool.
void KV_HV_RunOnLoop(hloop_t* loop, void (*procedure)(hloop_t* loop, void* arg), void* arg);

// Waits until every loop has finished its current callback and everything posted to it before.
// Returns at once without a pool. Any thread but those of the pool.
void KV_HV_LoopPoolSettle(void);
