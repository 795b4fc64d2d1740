// A plain client on loopback, and a bounded wait for what the other side does in its own time.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "common/kv_raii.h"

namespace kv_test {

constexpr int kPatienceMs = 20000;

// True as soon as `condition` holds, false when it does not within the patience of a test.
template <typename Condition>
bool Await(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class TcpClient {
  public:
    explicit TcpClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        (void)setsockopt(fd_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        if (connect(fd_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            fd_.Reset();
        }
    }

    bool Connected() const { return static_cast<bool>(fd_); }

    bool Send(const std::string& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t sent =
                send(fd_.Get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }

    // Exactly `size` bytes; fewer when the connection ends or nothing comes any more.
    std::string Receive(size_t size) {
        std::string bytes;
        char block[4096];
        while (bytes.size() < size && Readable(kPatienceMs)) {
            const size_t want = size - bytes.size();
            const ssize_t got =
                recv(fd_.Get(), block, want < sizeof(block) ? want : sizeof(block), 0);
            if (got <= 0) {
                break;
            }
            bytes.append(block, static_cast<size_t>(got));
        }
        return bytes;
    }

    // Whether the other side closes the connection, with nothing more to read.
    bool EndsNow() {
        char byte = 0;
        return Readable(kPatienceMs) && recv(fd_.Get(), &byte, 1, 0) <= 0;
    }

    // Whether bytes or the end of the connection are there.
    bool Readable(int timeoutMs) {
        pollfd item = {fd_.Get(), POLLIN, 0};
        return poll(&item, 1, timeoutMs) == 1;
    }

  private:
    UniqueFd fd_;
};

}  // namespace kv_test
