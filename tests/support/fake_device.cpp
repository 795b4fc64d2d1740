#include "tests/support/fake_device.h"

#include <sys/eventfd.h>

#include <stdexcept>

#include "tests/support/wire.h"

using namespace kv_test;

namespace fake {

namespace {

void Wake(int fd) {
    const uint64_t one = 1;
    if (write(fd, &one, sizeof one) != sizeof one) {
        abort();  // the following join would never end
    }
}

// Waits for input. Returns false when told to stop.
bool AwaitInput(int fd, int stop) {
    pollfd entries[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
    return poll(entries, 2, -1) > 0 && entries[1].revents == 0;
}

std::string Record(const Script& script) {
    return DeviceRecord("\x11\x22\x33\x44\x55\x66\x77\x88").substr(0, 432) + Padded(script.ic, 16) +
           Padded(script.sensor, 16);
}

}  // namespace

uint16_t Bind(int fd, const std::string& host, uint16_t port) {
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = Ipv4(host.c_str(), port);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("fake device cannot bind");
    }
    return ntohs(address.sin_port);
}

Device::Device(Script script, uint16_t port, std::string address)
    : script_(std::move(script)),
      port_(port),
      address_(std::move(address)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
    Listen();
    thread_ = std::thread([this] { Serve(); });
}

Device::~Device() {
    Wake(stop_.Get());
    thread_.join();
}

void Device::Listen() {
    listener_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // A small buffer like a camera's, so that a client is never far ahead.
    const int room = 65536;
    (void)setsockopt(listener_.Get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
    port_ = Bind(listener_.Get(), address_, port_);
    if (listen(listener_.Get(), 8) != 0) {
        throw std::runtime_error("fake device cannot listen");
    }
    session_ = 0;
    ++starts_;
}

bool Device::Pause(milliseconds time) {
    pollfd entry{stop_.Get(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(time.count())) == 0;
}

void Device::Serve() {
    std::vector<UniqueFd> clients;
    for (;;) {
        const Next next = Poll(&clients);
        if (next == Next::kEnd) {
            return;
        }
        if (next == Next::kRestart) {
            listener_.Reset();
            clients.clear();
            if (script_.aliveAfter) {
                RunApplication();
                return;
            }
            if (!script_.backAfter || !Pause(*script_.backAfter)) {
                return;
            }
            Listen();
        }
    }
}

void Device::RunApplication() {
    if (Pause(*script_.aliveAfter)) {
        const UniqueFd application(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        (void)Bind(application.Get(), address_, script_.alivePort);
        (void)listen(application.Get(), 8);
        (void)Pause(std::chrono::hours(1));
    }
}

Device::Next Device::Poll(std::vector<UniqueFd>* clients) {
    std::vector<pollfd> entries = {{stop_.Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}};
    for (const UniqueFd& client : *clients) {
        entries.push_back({client.Get(), POLLIN, 0});
    }
    (void)poll(entries.data(), entries.size(), -1);
    if (entries[0].revents != 0) {
        return Next::kEnd;
    }
    if (entries[1].revents != 0) {
        clients->emplace_back(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        return Next::kGoOn;
    }
    for (size_t i = 2; i < entries.size(); ++i) {
        if (entries[i].revents == 0) {
            continue;
        }
        const Next next = Command(entries[i].fd);
        if (next != Next::kEnd) {
            return next;
        }
        clients->erase(clients->begin() + static_cast<ptrdiff_t>(i) - 2);
        break;
    }
    return Next::kGoOn;
}

// Returns kEnd when the connection is over.
Device::Next Device::Command(int fd) {
    if (!Pause(script_.commandPause)) {
        return Next::kEnd;
    }
    Bytes chunk(8192);
    const ssize_t n = recv(fd, chunk.data(), chunk.size(), 0);
    if (n < 32) {
        return Next::kEnd;
    }
    chunk.resize(static_cast<size_t>(n));
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        chunks_.push_back(chunk.size());
    }
    const auto command = static_cast<uint16_t>(chunk[4] | chunk[5] << 8);
    switch (command) {
        case 0x0000:
            Reply(fd, command, 0);
            session_ = session_ == 0 ? 0x5A000000 + starts_ : session_;
            return Next::kGoOn;
        case 0x0001:
        case 0x0006:
            Reply(fd, command, 0);
            return Next::kGoOn;
        case 0x0101:
            Reply(fd, command, 0, "\x11\x22\x33\x44\x55\x66\x77\x88");
            return Next::kGoOn;
        case 0x2003:
            Reply(fd, command, 0, Record(script_));
            return Next::kGoOn;
        case 0x2002: {
            const std::lock_guard<std::mutex> lock(mutex_);
            request_.assign(chunk.begin(), chunk.begin() + 32);
            stream_.assign(chunk.begin() + 32, chunk.end());
            total_ = WordAt(request_, 12) * WordAt(request_, 16);
            break;
        }
        default:
            Reply(fd, command, 2);
            return Next::kGoOn;
    }
    return ReceiveStream(fd);
}

Device::Next Device::ReceiveStream(int fd) {
    Bytes chunk(script_.readStep);
    size_t held = Stream().size();
    for (;;) {
        if (script_.closeAfter && held >= *script_.closeAfter) {
            const linger atOnce{1, 0};
            (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            return Next::kEnd;
        }
        if (held >= total_) {
            return GiveVerdict(fd);
        }
        size_t room = std::min<uint64_t>(chunk.size(), total_ - held);
        for (const auto& limit : {script_.closeAfter, script_.stopAfter}) {
            room = limit ? std::min(room, *limit - held) : room;
        }
        if (room == 0) {
            (void)Pause(std::chrono::hours(1));
            return Next::kEnd;
        }
        if (!AwaitInput(fd, stop_.Get())) {
            return Next::kEnd;
        }
        const ssize_t n = recv(fd, chunk.data(), room, 0);
        if (n <= 0) {
            return Next::kEnd;
        }
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stream_.insert(stream_.end(), chunk.begin(), chunk.begin() + n);
            held = stream_.size();
        }
        if (script_.busyAfter && held >= *script_.busyAfter && held < total_) {
            Reply(fd, 0x2002, 0xFFFF);
        }
        if (script_.readPause.count() > 0 && !Pause(script_.readPause)) {
            return Next::kEnd;
        }
    }
}

Device::Next Device::GiveVerdict(int fd) {
    if (script_.verdict == Verdict::kAnswer) {
        accepted_ += script_.verdictStatus == 0 ? 1 : 0;
        Reply(fd, 0x2002, script_.verdictStatus);
    }
    if (script_.talks) {
        Talk(fd);
    }
    if (script_.verdict == Verdict::kClose) {
        return Next::kEnd;
    }
    return script_.leaves ? Next::kRestart : Next::kGoOn;
}

void Device::Talk(int fd) {
    std::string busy;
    while (busy.size() < 65536) {
        busy += ReplyHeader(0x2002, 0xFFFF, session_, 0);
    }
    size_t at = 0;
    while (Pause(milliseconds(0))) {
        pollfd entries[2] = {{fd, POLLOUT, 0}, {stop_.Get(), POLLIN, 0}};
        (void)poll(entries, 2, -1);
        const ssize_t n = send(fd, busy.data() + at, busy.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno != EAGAIN) {
            return;
        }
        at = (at + static_cast<size_t>(std::max<ssize_t>(n, 0))) % busy.size();
    }
}

void Device::Reply(int fd, uint16_t command, uint16_t status, const std::string& payload) {
    const std::string text =
        ReplyHeader(command, status, session_, static_cast<uint32_t>(payload.size())) + payload;
    Bytes reply(text.begin(), text.end());
    if (script_.edit) {
        reply = script_.edit(command, reply);
    }
    const size_t piece = script_.replyPiece == 0 ? reply.size() : script_.replyPiece;
    for (size_t at = 0; at < reply.size(); at += piece) {
        if (at > 0 && !Pause(milliseconds(2))) {
            return;
        }
        (void)send(fd, reply.data() + at, std::min(piece, reply.size() - at), MSG_NOSIGNAL);
    }
}

Responder::Responder(const std::string& address, uint16_t port, std::vector<Bytes> replies,
                     const std::string& at)
    : replies_(std::move(replies)),
      in_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      out_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      stop_(eventfd(0, EFD_CLOEXEC)),
      port_(Bind(in_.Get(), at, port)) {
    (void)Bind(out_.Get(), address, 0);
    (void)inet_pton(AF_INET, address.c_str(), &first_);
    thread_ = std::thread([this] {
        while (AwaitInput(in_.Get(), stop_.Get())) {
            char search[64];
            sockaddr_in from{};
            socklen_t size = sizeof from;
            if (recvfrom(in_.Get(), search, sizeof search, 0, reinterpret_cast<sockaddr*>(&from),
                         &size) > 0) {
                for (size_t i = 0; i < replies_.size(); ++i) {
                    Send(replies_[i], from, static_cast<uint32_t>(i));
                }
            }
        }
    });
}

void Responder::Send(const Bytes& reply, sockaddr_in to, uint32_t number) {
    iovec data{const_cast<uint8_t*>(reply.data()), reply.size()};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = htonl(ntohl(first_.s_addr) + number);
    memcpy(CMSG_DATA(header), &info, sizeof info);
    (void)sendmsg(out_.Get(), &message, 0);
}

Responder::~Responder() {
    Wake(stop_.Get());
    thread_.join();
}

}  // namespace fake
