// The mini protocol's TCP server: every chunk that arrives is one request with a 32-byte header,
// answered from a table of six commands. mini/kv_mini_frame.h has the bytes.
#pragma once

// Starts to serve on `port` of every local address, over the acceptor and worker loops of the pool,
// which is created when there is none. Starts a new session and forgets the serial number. Does not
// block. Returns 0; -1 when the server is up already, which goes on, or when the port cannot be
// bound, after which it is down. From the thread that starts and stops the services.
int KV_MINI_ProtocolInit(int port);

// Closes the listening socket; it is closed on return. Accepted connections stay open until the
// pool ends, but are no longer answered. Before KV_HV_LoopPoolDeInit, from the thread that starts
// and stops the services, never from a thread of the pool. Blocks until each loop of the pool has
// finished the callback it is in. Returns 0; -1 when the server is not up.
int KV_MINI_ProtocolDeInit(void);
