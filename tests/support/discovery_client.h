// The client's side of discovery, in wire bytes.
#pragma once

#include "tests/support/tcp_client.h"

namespace kv_test {

using Bytes = std::vector<uint8_t>;

// Puts a text without its NUL at an offset.
inline void Put(Bytes* bytes, size_t offset, const std::string& text) {
    ASSERT_LE(offset + text.size(), bytes->size());
    memcpy(bytes->data() + offset, text.data(), text.size());
}

// A request of `size` bytes. All bytes after the message type are zero.
inline Bytes Search(size_t size, uint8_t type = 10) {
    Bytes bytes(size);
    Put(&bytes, 0, "searching..");
    bytes[12] = type;
    return bytes;
}

struct Settings {
    std::string address;
    std::string netmask;
    std::string gateway;
    std::string dns;
    std::string mac;
};

// The reply as clients know it, byte by byte.
inline Bytes ExpectedReply(const Settings& settings) {
    using std::string_literals::operator""s;
    Bytes reply(544);
    Put(&reply, 0, "searching..");
    Put(&reply, 12, "\x0B"s);
    Put(&reply, 16, "\xBE\0\0\0\x01"s);
    Put(&reply, 24, settings.address);
    Put(&reply, 40, settings.netmask);
    Put(&reply, 56, settings.gateway);
    Put(&reply, 72, settings.dns);
    Put(&reply, 104, settings.mac);
    Put(&reply, 140, "\x02\x13\0\0IPC"s);
    Put(&reply, 240, "\0\0\0\x50\0\0\x02\x2A"s);
    Put(&reply, 256, "\0\0\0\x50"s);
    Put(&reply, 292, "\x2C\0\0\0\0\0\0\0\xF4\x01\0\0IPCAMERA"s);
    Put(&reply, 292 + 92, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    Put(&reply, 480, "admin");
    // The 32 bytes as openssl encrypts them in single DES, block by block.
    Put(&reply, 512,
        "\xDA\x35\x08\x5C\x06\x73\x02\x68\xB0\x31\xE2\x00\x54\x05\x90\xA8"
        "\xDE\x88\x00\x3A\x00\xD3\x4F\x7E\xAF\x3E\xE9\x39\x01\x67\x5B\x9A"s);
    return reply;
}

// Sends searches and receives the answers.
class DiscoveryClient {
  public:
    // Uses a new socket bound to `address`, or a given one.
    explicit DiscoveryClient(const char* address = "127.0.0.1")
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        (void)setsockopt(fd_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
        const sockaddr_in local = Ipv4(address, 0);
        EXPECT_EQ(bind(fd_.Get(), Generic(local), sizeof(local)), 0);
    }
    explicit DiscoveryClient(UniqueFd socket) : fd_(std::move(socket)) {}
    void Send(const Bytes& bytes, const char* to = "127.0.0.1") const {
        const sockaddr_in peer = Ipv4(to, 6789);
        EXPECT_EQ(sendto(fd_.Get(), bytes.data(), bytes.size(), 0, Generic(peer), sizeof(peer)),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The next answer; empty if none comes in time.
    Bytes Receive(int timeoutMs = 60000) const {
        Bytes bytes(2048);
        struct pollfd ready = {fd_.Get(), POLLIN, 0};
        const bool came = poll(&ready, 1, timeoutMs) == 1;
        const ssize_t got = came ? recv(fd_.Get(), bytes.data(), bytes.size(), 0) : 0;
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    Bytes Ask(const Bytes& search, const char* to) const {
        Send(search, to);
        return Receive();
    }

  private:
    UniqueFd fd_;
};

}  // namespace kv_test
