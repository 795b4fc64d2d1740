#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>

#include "common/kv_raii.h"
#include "hv_internal.h"

namespace {

bool MakeAddress(const char* host, int port, sockaddr_in* address) {
    *address = {};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_ANY);
    address->sin_port = htons(static_cast<uint16_t>(port));
    if (port < 0 || port > UINT16_MAX) {
        return false;
    }
    return host == nullptr || host[0] == '\0' || inet_pton(AF_INET, host, &address->sin_addr) == 1;
}

// SO_REUSEADDR makes a TCP port available while its last connections are still in TIME_WAIT. On a
// UDP port it would let two processes share the port unnoticed.
hio_t* CreateServer(hloop_t* loop, const char* host, int port, int type) {
    sockaddr_in address;
    if (loop == nullptr || !MakeAddress(host, port, &address)) {
        errno = EINVAL;
        return nullptr;
    }
    UniqueFd fd(socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    const bool stream = type == SOCK_STREAM;
    if (!fd || (stream && setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) ||
        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        (stream && listen(fd.Get(), SOMAXCONN) != 0)) {
        return nullptr;
    }
    return HvNewIo(loop, fd.Release(), stream ? HvKind::kListener : HvKind::kDatagram);
}

}  // namespace

hio_t* hloop_create_tcp_server(hloop_t* loop, const char* host, int port, haccept_cb cb) {
    hio_t* io = CreateServer(loop, host, port, SOCK_STREAM);
    if (io == nullptr) {
        return nullptr;
    }
    io->onAccept = cb;
    return hio_read(io) == 0 ? io : nullptr;
}

hio_t* hloop_create_udp_server(hloop_t* loop, const char* host, int port) {
    return CreateServer(loop, host, port, SOCK_DGRAM);
}

const char* sockaddr_str(sockaddr_u* addr, char* buf, int len) {
    const auto size = static_cast<size_t>(len);
    char text[INET_ADDRSTRLEN];
    if (addr->sa.sa_family == AF_INET &&
        inet_ntop(AF_INET, &addr->sin.sin_addr, text, sizeof(text)) != nullptr) {
        (void)snprintf(buf, size, "%s:%d", text, ntohs(addr->sin.sin_port));
    } else {
        (void)snprintf(buf, size, "?");
    }
    return buf;
}
