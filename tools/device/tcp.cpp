#include "tools/device/tcp.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

const sockaddr* Generic(const sockaddr_storage* address) {
    return reinterpret_cast<const sockaddr*>(address);
}

bool NumericText(const sockaddr* address, socklen_t length, std::string* host,
                 std::string* service) {
    char hostText[NI_MAXHOST];
    char serviceText[NI_MAXSERV];
    if (getnameinfo(address, length, hostText, sizeof hostText, serviceText, sizeof serviceText,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return false;
    }
    *host = hostText;
    *service = serviceText;
    return true;
}

void FillText(Endpoint* endpoint) {
    std::string service;
    if (!NumericText(Generic(&endpoint->address), endpoint->length, &endpoint->host, &service)) {
        endpoint->host = endpoint->text = "?";
        return;
    }
    const bool plain = endpoint->host.find(':') == std::string::npos;
    endpoint->text = (plain ? endpoint->host : "[" + endpoint->host + "]") + ":" + service;
}

// Errors that come from this PC itself, not from the network.
bool IsOwnTrouble(int error) {
    switch (error) {
        case ENETUNREACH:
        case ENETDOWN:
        case EADDRNOTAVAIL:
        case ENODEV:
        case EACCES:
        case EPERM:
        case ENOBUFS:
        case ENOMEM:
        case EMFILE:
        case ENFILE:
            return true;
        default:
            return false;
    }
}

// The error if the kernel has no route to the peer, else 0. Connecting a datagram socket sends
// nothing.
int RouteError(const Endpoint& peer) {
    const UniqueFd fd(socket(peer.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd || connect(fd.Get(), Generic(&peer.address), peer.length) != 0) {
        return errno;
    }
    return 0;
}

// What is wrong with the interface of the address; empty: nothing.
std::string InterfaceTrouble(const Endpoint& local) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return "";
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
    for (const ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
        std::string host;
        std::string service;
        if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != local.address.ss_family ||
            !NumericText(item->ifa_addr, local.length, &host, &service) || host != local.host) {
            continue;
        }
        if ((item->ifa_flags & IFF_UP) == 0) {
            return std::string("its interface ") + item->ifa_name + " is down";
        }
        if ((item->ifa_flags & IFF_RUNNING) == 0) {
            return std::string("its interface ") + item->ifa_name + " has no link";
        }
        return "";
    }
    return "it no longer has the address " + local.host;
}

Connection Failed(int error) {
    Connection connection;
    connection.state = error == ECONNREFUSED ? ConnectState::kRefused
                       : error == ETIMEDOUT  ? ConnectState::kTimedOut
                       : IsOwnTrouble(error) ? ConnectState::kOwnTrouble
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
        FillText(&endpoint);
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
    // The device does not join pieces, so each request must leave at once as one segment.
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, Generic(&endpoint.address), endpoint.length) != 0) {
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

Endpoint WithPort(const Endpoint& endpoint, uint16_t port) {
    Endpoint other = endpoint;
    const uint16_t value = htons(port);
    // Both address families have the port at the same offset.
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port), "");
    memcpy(reinterpret_cast<char*>(&other.address) + offsetof(sockaddr_in, sin_port), &value,
           sizeof value);
    FillText(&other);
    return other;
}

Endpoint LocalEnd(int fd) {
    Endpoint local;
    local.length = sizeof local.address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local.address), &local.length) != 0) {
        local.length = 0;
        return local;
    }
    FillText(&local);
    return local;
}

std::string OwnTrouble(const Endpoint& peer, const Endpoint& local) {
    const int error = RouteError(peer);
    if (error != 0) {
        return std::string("it cannot reach the device: ") + strerror(error);
    }
    return local.length == 0 ? "" : InterfaceTrouble(local);
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

void DropUnsentAtEnd(int fd, bool drop) {
    const linger atOnce{drop ? 1 : 0, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

size_t Unacknowledged(int fd) {
    int pending = 0;
    if (ioctl(fd, SIOCOUTQ, &pending) != 0 || pending < 0) {
        return 0;
    }
    return static_cast<size_t>(pending);
}

}  // namespace kvtool
