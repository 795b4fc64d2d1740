// The client's side of discovery, by the bytes on the wire.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/kv_raii.h"

namespace kv_test {

using Bytes = std::vector<uint8_t>;

// Puts a text, without its zero, at an offset.
inline void Put(Bytes* bytes, size_t offset, const std::string& text) {
    ASSERT_LE(offset + text.size(), bytes->size());
    memcpy(bytes->data() + offset, text.data(), text.size());
}

// A request of `size` bytes, all zero behind the message type.
inline Bytes Search(size_t size, uint8_t type = 10) {
    Bytes bytes(size);
    Put(&bytes, 0, "searching..");
    bytes[12] = type;
    return bytes;
}

// Sends searches from a socket of its own and takes the answers.
class DiscoveryClient {
  public:
    explicit DiscoveryClient(const char* address = "127.0.0.1")
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        (void)setsockopt(fd_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
        const sockaddr_in local = Address(address, 0);
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)), 0);
    }
    void Send(const Bytes& bytes, const char* to = "127.0.0.1") const {
        const sockaddr_in peer = Address(to, 6789);
        EXPECT_EQ(sendto(fd_.Get(), bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The next answer; empty when none comes in time.
    Bytes Receive(int timeoutMs = 10000) const {
        Bytes bytes(2048);
        struct pollfd ready = {fd_.Get(), POLLIN, 0};
        const bool came = poll(&ready, 1, timeoutMs) == 1;
        const ssize_t got = came ? recv(fd_.Get(), bytes.data(), bytes.size(), 0) : 0;
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }

  private:
    static sockaddr_in Address(const char* text, uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = inet_addr(text);
        return address;
    }
    UniqueFd fd_;
};

}  // namespace kv_test
