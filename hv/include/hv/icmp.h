// ICMP echo, as libhv offers it.
#pragma once

// Sends `cnt` echo requests to `host` (numeric address) one second apart and waits at most one
// second for each answer. Returns the number of answers from that host; 0 when none came, -1 when
// the process may not open the socket or the address is not one. Any thread but a loop's: it
// blocks.
int ping(const char* host, int cnt = 4);
