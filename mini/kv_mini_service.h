// The mini services as a whole: the loop pool, discovery and the protocol server.
#pragma once

// Starts the services: pool, discovery, protocol server, in this order. A service that cannot start
// reports it in the log and does not keep the others from starting. Any thread but those of the
// pool; waits for a stop in progress. Always 0.
int KV_MINI_ServiceStart(void);

// Stops them: discovery, protocol server, pool. Open connections end without a goodbye. Requests
// that wait to be served are dropped. Blocks until each loop has finished the callback it is in,
// which is seconds when that one runs a shell command. Any thread but those of the pool; waits for
// a start in progress. Always 0.
int KV_MINI_ServiceStop(void);

// 1 from the call of KV_MINI_ServiceStart to that of KV_MINI_ServiceStop, else 0; says nothing
// about the success of either. Any thread.
int KV_MINI_ServiceIsStarted(void);
