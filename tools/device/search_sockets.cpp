#include "tools/device/search_sockets.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

// Receive buffer to ask for. A reply takes about 1.3 kB of it. The default limit of a system is
// 416 KiB, which holds 330 replies that arrive while this process does not run.
constexpr int kReceiveRoom = 1 << 20;
constexpr size_t kSockets = 4;
constexpr int kAtOnce = 64;

UniqueFd OpenSocket() {
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!fd || setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot create a search socket");
    }
    const int room = kReceiveRoom;
    (void)setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    return fd;
}

void Share(int fd) {
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot share the port of the searches");
    }
}

void Bind(int fd, sockaddr_in* address) {
    socklen_t length = sizeof *address;
    auto* const plain = reinterpret_cast<sockaddr*>(address);
    if (bind(fd, plain, length) != 0 || getsockname(fd, plain, &length) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot bind a search socket");
    }
}

}  // namespace

SearchSockets::SearchSockets() : waiting_(epoll_create1(EPOLL_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    while (sockets_.size() < kSockets) {
        UniqueFd fd = OpenSocket();
        // Bind the first socket before it shares its port. Otherwise the system could give it a
        // port that another kvtool of the same user shares.
        if (sockets_.empty()) {
            Bind(fd.Get(), &address);
            Share(fd.Get());
        } else {
            Share(fd.Get());
            Bind(fd.Get(), &address);
        }
        epoll_event event{};
        event.events = EPOLLIN;
        if (epoll_ctl(waiting_.Get(), EPOLL_CTL_ADD, fd.Get(), &event) != 0) {
            throw ToolError(ExitCode::kInternal, "cannot wait for the search sockets");
        }
        sockets_.push_back(std::move(fd));
    }
}

bool SearchSockets::Drain(const Take& take) const {
    std::array<uint8_t, 2048> buffer{};
    for (const UniqueFd& fd : sockets_) {
        for (int i = 0; i < kAtOnce; ++i) {
            sockaddr_in from{};
            socklen_t length = sizeof from;
            const ssize_t n = recvfrom(fd.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr*>(&from), &length);
            // An error may be the ICMP refusal of an earlier search, which is not an answer.
            if (n < 0) {
                break;
            }
            if (!take(buffer.data(), static_cast<size_t>(n), from.sin_addr)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace kvtool
