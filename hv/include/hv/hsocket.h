// Socket addresses as text, as libhv formats them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#define SOCKADDR_STRLEN 64

typedef union {
    struct sockaddr sa;
    struct sockaddr_in sin;
    struct sockaddr_in6 sin6;
} sockaddr_u;

// Writes "address:port" into the `len` bytes of buf and returns buf. Writes "?" for an address that
// is not IPv4. Any thread.
const char* sockaddr_str(sockaddr_u* addr, char* buf, int len);
