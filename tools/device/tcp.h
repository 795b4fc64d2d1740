// TCP connections with deadlines.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "tools/base/text.h"
#include "tools/base/wait.h"

namespace kvtool {

struct Endpoint {
    sockaddr_storage address{};
    socklen_t length = 0;
    std::string host;  // "192.168.1.10"
    std::string text;  // "192.168.1.10:80"
};

// Addresses of a name or of a numeric address. A name goes through the system's resolver, whose
// own time-outs apply. Throws ToolError(kUnreachable).
std::vector<Endpoint> Resolve(const std::string& host, uint16_t port);

enum class ConnectState {
    kConnected,
    kRefused,
    kUnreachable,
    kTimedOut,
    kOwnTrouble,  // this PC could not even try: no route, no address, interface down
};

struct Connection {
    UniqueFd fd;  // non-blocking, no delay, close-on-exec; open only when kConnected
    ConnectState state = ConnectState::kTimedOut;
    std::string error;  // why not connected
};
Connection Connect(const Endpoint& endpoint, Clock::time_point deadline);

// The same host, another port.
Endpoint WithPort(const Endpoint& endpoint, uint16_t port);

// The address of this PC's end of the connection; length 0 if it is not known.
Endpoint LocalEnd(int fd);

// Why this PC cannot judge `peer` now: it has no route to it, has lost the address `local` (length
// 0: not known), or the interface of that address is down or has no link. Empty: nothing is wrong.
std::string OwnTrouble(const Endpoint& peer, const Endpoint& local);

enum class ReceiveState { kData, kNothing, kClosed };
struct Received {
    ReceiveState state = ReceiveState::kNothing;
    size_t size = 0;    // bytes stored, when kData
    std::string error;  // how the peer closed, when kClosed
};
// Reads what has arrived, at most `size` bytes, without waiting.
Received ReceiveNow(int fd, uint8_t* data, size_t size);

// Gives bytes to the socket without waiting. Returns how many it took (0: its buffer is full).
// Throws ToolError(kLost) if the connection is broken.
size_t SendNow(int fd, const uint8_t* data, size_t size);

// Sets whether closing the connection, even by the end of this process, discards what the peer has
// not received yet. Otherwise the system continues to send it.
void DropUnsentAtEnd(int fd, bool drop);

// Number of bytes given to the socket that the peer has not acknowledged yet.
size_t Unacknowledged(int fd);

}  // namespace kvtool
