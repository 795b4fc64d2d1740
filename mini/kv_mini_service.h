// Starts and stops the mini services together: the loop pool, discovery and the protocol server.
#pragma once

// Starts the pool, discovery and the protocol server, in this order. A service that cannot start
// logs the failure; the others still start. Any thread but those of the pool. Blocks until the
// sockets are open, and while a stop runs. Returns 0.
int KV_MINI_ServiceStart(void);

// Stops discovery, the protocol server and the pool, in this order. Open connections are closed and
// waiting requests dropped. Blocks until each loop has finished its current callback (seconds if
// that runs a shell command), and while a start runs. Any thread but those of the pool. Returns 0.
int KV_MINI_ServiceStop(void);

// Returns 1 from the call of KV_MINI_ServiceStart until the call of KV_MINI_ServiceStop, else 0,
// even if either failed. Any thread; does not block.
int KV_MINI_ServiceIsStarted(void);
