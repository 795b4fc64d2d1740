#include "tools/device/tcp.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

std::string EndpointText(const addrinfo& info) {
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    if (getnameinfo(info.ai_addr, info.ai_addrlen, host, sizeof host, service, sizeof service,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return "?";
    }
    const std::string text = host;
    return (text.find(':') == std::string::npos ? text : "[" + text + "]") + ":" + service;
}

Connection Failed(int error) {
    Connection connection;
    connection.state = error == ECONNREFUSED ? ConnectState::kRefused
                       : error == ETIMEDOUT  ? ConnectState::kTimedOut
                                             : ConnectState::kUnreachable;
    connection.error = strerror(error);
    return connection;
}

}  // namespace

std::vector<Endpoint> Resolve(const std::string& host, uint16_t port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    ThrowIfInterrupted();
    if (rc != 0) {
        throw ToolError(ExitCode::kUnreachable,
                        "cannot resolve '" + Printable(host) + "': " + gai_strerror(rc));
    }
    std::vector<Endpoint> endpoints;
    for (const addrinfo* info = list; info != nullptr; info = info->ai_next) {
        Endpoint endpoint;
        memcpy(&endpoint.address, info->ai_addr, info->ai_addrlen);
        endpoint.length = info->ai_addrlen;
        endpoint.text = EndpointText(*info);
        endpoints.push_back(std::move(endpoint));
    }
    freeaddrinfo(list);
    return endpoints;
}

Connection Connect(const Endpoint& endpoint, Clock::time_point deadline) {
    Connection connection;
    connection.fd.Reset(
        socket(endpoint.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection.fd) {
        return Failed(errno);
    }
    const int fd = connection.fd.Get();
    // Each request must leave as one segment at once: the device does not put pieces together.
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            return Failed(errno);
        }
        if (WaitFor(fd, POLLOUT, deadline) == 0) {
            return Failed(ETIMEDOUT);
        }
        int error = 0;
        socklen_t size = sizeof error;
        (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            return Failed(error);
        }
    }
    connection.state = ConnectState::kConnected;
    return connection;
}

Received ReceiveNow(int fd, uint8_t* data, size_t size) {
    const ssize_t n = recv(fd, data, size, MSG_DONTWAIT);
    if (n > 0) {
        return {ReceiveState::kData, static_cast<size_t>(n), ""};
    }
    if (n == 0) {
        return {ReceiveState::kClosed, 0, "the device closed the connection"};
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        return {};
    }
    return {ReceiveState::kClosed, 0, strerror(errno)};
}

size_t SendNow(int fd, const uint8_t* data, size_t size) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
        return static_cast<size_t>(n);
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        return 0;
    }
    throw ToolError(ExitCode::kLost, std::string("the connection broke: ") + strerror(errno));
}

size_t Unacknowledged(int fd) {
    int pending = 0;
    if (ioctl(fd, SIOCOUTQ, &pending) != 0 || pending < 0) {
        return 0;
    }
    return static_cast<size_t>(pending);
}

}  // namespace kvtool
