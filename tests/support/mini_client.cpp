#include "tests/support/mini_client.h"

#include <md5.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/kv_le.h"

namespace kv_test {

std::string Frame(uint16_t command, uint32_t dataLen, uint32_t count, uint16_t kind,
                  uint32_t session) {
    uint8_t bytes[32] = {};
    kv::PutLe16(bytes, kind);
    kv::PutLe16(bytes + 4, command);
    kv::PutLe32(bytes + 8, session);
    kv::PutLe32(bytes + 12, dataLen);
    kv::PutLe32(bytes + 16, count);
    return std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes));
}

std::string UpgradeFrame(uint32_t packageSize) {
    return Frame(0x2002, packageSize + 37, 1);
}

std::string Trailer(const std::string& package) {
    char hex[33];
    (void)MD5Data(reinterpret_cast<const uint8_t*>(package.data()), package.size(), hex);
    return std::string("MD5:") + hex + "\n";
}

bool SendAll(int socket, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<size_t>(count);
    }
    return true;
}

std::string Receive(int socket, size_t size, int timeoutMs) {
    std::string bytes;
    while (bytes.size() < size) {
        struct pollfd readable = {socket, POLLIN, 0};
        if (poll(&readable, 1, timeoutMs) != 1) {
            break;
        }
        char block[65536];
        const ssize_t got = recv(socket, block, std::min(size - bytes.size(), sizeof(block)), 0);
        if (got <= 0) {
            break;
        }
        bytes.append(block, static_cast<size_t>(got));
    }
    return bytes;
}

std::string Exchange(int socket, const std::string& request, size_t size) {
    return SendAll(socket, request) ? Receive(socket, size) : std::string();
}

bool PeerCloses(int socket, int timeoutMs) {
    struct pollfd readable = {socket, POLLIN, 0};
    char byte = 0;
    return poll(&readable, 1, timeoutMs) == 1 && recv(socket, &byte, 1, 0) <= 0;
}

uint16_t StatusOf(const std::string& reply) {
    return reply.size() < 32 ? uint16_t{0xEEEE}
                             : kv::GetLe16(reinterpret_cast<const uint8_t*>(reply.data()) + 6);
}

uint32_t SessionOf(const std::string& reply) {
    return reply.size() < 32 ? 0 : kv::GetLe32(reinterpret_cast<const uint8_t*>(reply.data()) + 8);
}

}  // namespace kv_test
