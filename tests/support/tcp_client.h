// A plain client: connects on loopback, or uses a connected socket.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "common/kv_raii.h"
#include "tests/support/common.h"

namespace kv_test {

constexpr int kPatienceMs = static_cast<int>(kPatienceSeconds * 1000);

inline sockaddr_in Ipv4(const char* address, int port) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(static_cast<uint16_t>(port));
    ipv4.sin_addr.s_addr = inet_addr(address);
    return ipv4;
}

inline const sockaddr* Generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

class TcpClient {
  public:
    explicit TcpClient(int port, int type = SOCK_STREAM)
        : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        (void)setsockopt(fd_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        const sockaddr_in address = Ipv4("127.0.0.1", port);
        if (connect(fd_.Get(), Generic(address), sizeof(address)) != 0) {
            fd_.Reset();
        }
    }
    explicit TcpClient(UniqueFd connected) : fd_(std::move(connected)) {}

    bool Connected() const { return static_cast<bool>(fd_); }
    int Fd() const { return fd_.Get(); }
    void Close() { fd_.Reset(); }

    // Sends everything. Returns false if the peer is gone.
    bool Send(const std::string& bytes) const {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t sent = send(Fd(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }

    // Returns `size` bytes, or fewer if the connection ends or nothing more comes.
    std::string Receive(size_t size, int timeoutMs = kPatienceMs) const {
        std::string bytes(size, '\0');
        size_t done = 0;
        while (done < size && Readable(timeoutMs)) {
            const ssize_t got = recv(Fd(), &bytes[done], size - done, 0);
            if (got <= 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        bytes.resize(done);
        return bytes;
    }

    // Sends a request and reads a reply of `size` bytes.
    std::string Ask(const std::string& request, size_t size = 32) const {
        return Send(request) ? Receive(size) : "";
    }

    // Whether the peer closes the connection without sending more.
    bool Ends(int timeoutMs = kPatienceMs) const {
        char byte = 0;
        return Readable(timeoutMs) && recv(Fd(), &byte, 1, 0) <= 0;
    }

    // Whether bytes, or the end of the connection, have arrived.
    bool Readable(int timeoutMs) const {
        pollfd item = {Fd(), POLLIN, 0};
        return poll(&item, 1, timeoutMs) == 1;
    }

  private:
    UniqueFd fd_;
};

}  // namespace kv_test
