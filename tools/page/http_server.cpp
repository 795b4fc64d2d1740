#include "tools/page/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tools/base/errors.h"
#include "tools/page/http_connection.h"

namespace kvtool::page {

namespace {

constexpr int kBacklog = 64;
constexpr int kPortTries = 20;
constexpr char kFull[] =
    "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

// A listening socket on the loopback address of the family. Sets *port if it is 0. Returns none and
// errno on failure.
UniqueFd Listen(int family, uint16_t* port) {
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    sockaddr_storage address{};
    socklen_t length = 0;
    if (family == AF_INET) {
        auto* const ipv4 = reinterpret_cast<sockaddr_in*>(&address);
        *ipv4 = {};
        ipv4->sin_family = AF_INET;
        ipv4->sin_port = htons(*port);
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof *ipv4;
    } else {
        auto* const ipv6 = reinterpret_cast<sockaddr_in6*>(&address);
        *ipv6 = {};
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_port = htons(*port);
        ipv6->sin6_addr = in6addr_loopback;
        length = sizeof *ipv6;
        (void)setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    (void)setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd.Get(), plain, length) != 0 || listen(fd.Get(), kBacklog) != 0 ||
        getsockname(fd.Get(), plain, &length) != 0) {
        return UniqueFd();
    }
    // Both families have the port at the same place.
    *port = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    return fd;
}

}  // namespace

std::string HttpCall::Body(size_t limit) {
    std::string body;
    ReadBody(limit, [&body](const uint8_t* data, size_t size) {
        body.append(reinterpret_cast<const char*>(data), size);
    });
    return body;
}

HttpServer::HttpServer(uint16_t port) {
    // A port that is free in one family may be taken in the other. Then another one is tried.
    for (int i = 0; i < kPortTries; ++i) {
        listeners_.clear();
        port_ = port;
        listeners_.push_back(Listen(AF_INET, &port_));
        if (!listeners_.front()) {
            break;
        }
        UniqueFd ipv6 = Listen(AF_INET6, &port_);
        if (ipv6) {
            listeners_.push_back(std::move(ipv6));
            return;
        }
        if (errno != EADDRINUSE) {
            return;  // this PC has no IPv6
        }
        if (port != 0) {
            break;
        }
    }
    const std::string why = strerror(errno);
    throw ToolError(ExitCode::kInternal,
                    port == 0 ? "cannot listen on 127.0.0.1: " + why
                              : "cannot listen on port " + std::to_string(port) + ": " + why +
                                    "; choose another one with --port, or leave out --port");
}

HttpServer::~HttpServer() {
    Stop();
}

void HttpServer::Start(HttpHandler handler) {
    handler_ = std::move(handler);
    for (const UniqueFd& listener : listeners_) {
        acceptors_.emplace_back([this, fd = listener.Get()] { Accept(fd); });
    }
}

void HttpServer::Stop() {
    stop_.Raise();
    for (std::thread& acceptor : acceptors_) {
        acceptor.join();
    }
    acceptors_.clear();
    for (Connection& connection : connections_) {
        connection.thread.join();
    }
    connections_.clear();
    listeners_.clear();
}

void HttpServer::Accept(int listener) {
    const InterruptedBy interrupted(stop_);
    try {
        for (;;) {
            (void)WaitFor(listener, POLLIN, Clock::time_point::max());
            UniqueFd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (fd) {
                Admit(std::move(fd));
            } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                // The connection stays in the queue. Do not ask for it again at once.
                WaitUntil(Clock::now() + Millis(200));
            }
        }
    } catch (const ToolError&) {
        // The server stops.
    }
}

void HttpServer::Admit(UniqueFd fd) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (auto connection = connections_.begin(); connection != connections_.end();) {
        if (connection->over) {
            connection->thread.join();
            connection = connections_.erase(connection);
        } else {
            ++connection;
        }
    }
    if (connections_.size() >= kMostConnections) {
        (void)send(fd.Get(), kFull, strlen(kFull), MSG_NOSIGNAL | MSG_DONTWAIT);
        return;
    }
    Connection& connection = connections_.emplace_back();
    try {
        connection.thread = std::thread([this, &connection, socket = std::move(fd)]() mutable {
            const InterruptedBy interrupted(stop_);
            ServeConnection(std::move(socket), handler_);
            connection.over = true;
        });
    } catch (const std::system_error&) {
        connections_.pop_back();  // no thread: the client sees the connection end
    }
}

}  // namespace kvtool::page
