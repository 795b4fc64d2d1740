// Socket address texts, as libhv gives them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#define SOCKADDR_STRLEN 64

typedef union {
    struct sockaddr sa;
    struct sockaddr_in sin;
    struct sockaddr_in6 sin6;
} sockaddr_u;

// Writes "address:port" into buf and returns buf; "?" for an address that is not IPv4.
const char* sockaddr_str(sockaddr_u* addr, char* buf, int len);
