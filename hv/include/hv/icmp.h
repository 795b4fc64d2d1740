// ICMP echo, as libhv offers it.
#pragma once

// Sends `cnt` echo requests to `host` (a numeric IPv4 address), one second apart, and waits at most
// one second for each answer. Blocks for at most two seconds a request. Returns the number of
// answered requests. Returns a negative value if the address is invalid, or if a request cannot be
// sent (for example without permission for a raw socket) and none was answered before. Any thread
// but a loop's.
int ping(const char* host, int cnt = 4);
