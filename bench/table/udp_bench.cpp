// udp_bench echo PORT: sends every datagram back to its sender until it is killed.
// udp_bench ask HOST PORT SECONDS WINDOW: sends discovery searches, keeping WINDOW of them in
// flight, and prints the answers per second. If no answer comes for 5 s, it exits with status 1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mini/kv_mini_discovery_frame.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAnswerMs = 5000;

sockaddr_in Address(const char* host, const char* port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(port)));
    (void)inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

int Echo(const char* port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in local = Address("0.0.0.0", port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        perror("bind");
        return 1;
    }
    for (;;) {
        char datagram[2048];
        sockaddr_in peer{};
        socklen_t size = sizeof(peer);
        const ssize_t got =
            recvfrom(fd, datagram, sizeof(datagram), 0, reinterpret_cast<sockaddr*>(&peer), &size);
        if (got >= 0) {
            (void)sendto(fd, datagram, static_cast<size_t>(got), 0,
                         reinterpret_cast<const sockaddr*>(&peer), size);
        }
    }
}

int Ask(const char* host, const char* port, double seconds, int window) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in peer = Address(host, port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) != 0) {
        perror("connect");
        return 1;
    }
    kv::DiscoveryRequest search{};
    memcpy(search.magic, kv::kDiscoveryMagic, sizeof(search.magic));
    search.type = kv::kDiscoverySearch;
    for (int i = 0; i < window; ++i) {
        (void)send(fd, &search, sizeof(search), 0);
    }
    long answers = 0;
    const auto start = Clock::now();
    double passed = 0;
    while (passed < seconds) {
        struct pollfd readable = {fd, POLLIN, 0};
        char reply[2048];
        if (poll(&readable, 1, kAnswerMs) != 1 || recv(fd, reply, sizeof(reply), 0) < 0) {
            (void)fputs("udp_bench: no answer to a search\n", stderr);
            return 1;
        }
        ++answers;
        (void)send(fd, &search, sizeof(search), 0);
        passed = std::chrono::duration<double>(Clock::now() - start).count();
    }
    (void)printf("%.0f\n", static_cast<double>(answers) / passed);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "echo") == 0) {
        return Echo(argv[2]);
    }
    if (argc == 6 && strcmp(argv[1], "ask") == 0) {
        return Ask(argv[2], argv[3], atof(argv[4]), atoi(argv[5]));
    }
    (void)fputs("usage: udp_bench echo PORT | ask HOST PORT SECONDS WINDOW\n", stderr);
    return 2;
}
