// ICMP echo, as libhv offers it.
#pragma once

// Sends `cnt` echo requests to `host` (numeric IPv4 address) one second apart and waits at most one
// second for each answer, so it takes at most two seconds a request. Returns the number of requests
// that were answered, or a negative value when none was and the process may not open a raw socket,
// the request could not be sent, or the address is not one. Any thread but a loop's: it blocks.
int ping(const char* host, int cnt = 4);
