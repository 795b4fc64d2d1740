// TCP server of the mini protocol. Each chunk that arrives is one request with a 32-byte header; a
// table of six commands answers it. mini/kv_mini_frame.h defines the bytes.
#pragma once

// Serves `port` on every local address, over the pool's acceptor and worker loops. Creates the pool
// if there is none. Clears the session and the serial number. Returns 0. Returns -1 if the server
// is already up, and changes nothing then. Also returns -1 if the port cannot be bound or memory
// runs out; the server is down then. Call it from the thread that starts and stops the services.
// Blocks until the acceptor loop has finished its current callback.
int KV_MINI_ProtocolInit(int port);

// Closes the listening socket before it returns. Accepted connections stay open until the pool
// ends, but get no more answers, except from the upgrade receiver. Call it before
// KV_HV_LoopPoolDeInit, from the thread that starts and stops the services. Blocks until each loop
// of the pool has finished its current callback. Returns 0, or -1 if the server is not up.
int KV_MINI_ProtocolDeInit(void);
