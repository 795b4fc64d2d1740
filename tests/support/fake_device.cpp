#include "tests/support/fake_device.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace fake {

namespace {

uint32_t Word(const Bytes& bytes, size_t at) {
    return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
           static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}

void PutWord(Bytes* bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) {
        (*bytes)[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void PutText(Bytes* bytes, size_t at, const std::string& text) {
    std::copy(text.begin(), text.end(), bytes->begin() + static_cast<ptrdiff_t>(at));
}

sockaddr_in Address(const std::string& host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    (void)inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

// Binds and returns the port.
uint16_t Bind(int fd, const std::string& host, uint16_t port) {
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = Address(host, port);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("fake device cannot bind");
    }
    return ntohs(address.sin_port);
}

void Wake(int fd) {
    const uint64_t one = 1;
    if (write(fd, &one, sizeof one) != sizeof one) {
        abort();  // the join that follows would never end
    }
}

// Waits for input; false when told to stop.
bool AwaitInput(int fd, int stop) {
    pollfd entries[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
    return poll(entries, 2, -1) > 0 && entries[1].revents == 0;
}

Bytes DeviceRecord(const Script& script) {
    Bytes record(464);
    record[1] = 27;
    PutText(&record, 4, "PRT7K");
    PutText(&record, 68, "\x11\x22\x33\x44\x55\x66\x77\x88");
    PutText(&record, 168, "ZH8C4");
    PutText(&record, 368, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    PutText(&record, 432, script.ic);
    PutText(&record, 448, script.sensor);
    return record;
}

}  // namespace

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
    port_ = Bind(listener_.Get(), address_, port_);
    if (listen(listener_.Get(), 8) != 0) {
        throw std::runtime_error("fake device cannot listen");
    }
    session_ = 0;
}

Bytes Device::Stream() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return stream_;
}

Bytes Device::UpgradeRequest() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return request_;
}

std::vector<size_t> Device::Chunks() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return chunks_;
}

bool Device::Pause(std::chrono::milliseconds time) {
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
            if (!script_.back_after || !Pause(*script_.back_after)) {
                return;
            }
            Listen();
        }
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

// kEnd: the connection is over.
Device::Next Device::Command(int fd) {
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
            ++logins_;
            Reply(fd, command, 0, {});
            session_ = session_ == 0 ? 0x5A000001 : session_;
            return Next::kGoOn;
        case 0x0006:
            Reply(fd, command, 0, {});
            return Next::kGoOn;
        case 0x0101:
            Reply(fd, command, 0, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
            return Next::kGoOn;
        case 0x2003:
            Reply(fd, command, 0, DeviceRecord(script_));
            return Next::kGoOn;
        case 0x2002: {
            const std::lock_guard<std::mutex> lock(mutex_);
            request_.assign(chunk.begin(), chunk.begin() + 32);
            stream_.assign(chunk.begin() + 32, chunk.end());
            total_ = static_cast<uint32_t>(Word(chunk, 12) * Word(chunk, 16));
            break;
        }
        default:
            Reply(fd, command, 2, {});
            return Next::kGoOn;
    }
    return ReceiveStream(fd);
}

Device::Next Device::ReceiveStream(int fd) {
    Bytes chunk(script_.read_step);
    size_t held = Stream().size();
    for (;;) {
        if (script_.close_after && held >= *script_.close_after) {
            const linger at_once{1, 0};
            (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
            return Next::kEnd;
        }
        if (held >= total_) {
            return GiveVerdict(fd);
        }
        size_t room = std::min<uint64_t>(chunk.size(), total_ - held);
        for (const auto& limit : {script_.close_after, script_.stop_after}) {
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
        if (script_.busy_after && held >= *script_.busy_after && held < total_) {
            Reply(fd, 0x2002, 0xFFFF, {});
        }
        if (script_.read_pause.count() > 0 && !Pause(script_.read_pause)) {
            return Next::kEnd;
        }
    }
}

Device::Next Device::GiveVerdict(int fd) {
    switch (script_.verdict) {
        case Verdict::kSilent:
            return Next::kGoOn;
        case Verdict::kClose:
            return Next::kEnd;
        case Verdict::kStatus:
            Reply(fd, 0x2002, script_.verdict_status, {});
            return Next::kGoOn;
        case Verdict::kAccept:
            break;
    }
    Reply(fd, 0x2002, 0, {});
    return script_.leaves ? Next::kRestart : Next::kGoOn;
}

void Device::Reply(int fd, uint16_t command, uint16_t status, Bytes payload) {
    Bytes reply(32);
    reply[2] = 1;
    reply[3] = 1;
    reply[4] = static_cast<uint8_t>(command);
    reply[5] = static_cast<uint8_t>(command >> 8);
    reply[6] = static_cast<uint8_t>(status);
    reply[7] = static_cast<uint8_t>(status >> 8);
    PutWord(&reply, 8, session_);
    PutWord(&reply, 12, static_cast<uint32_t>(payload.size()));
    PutWord(&reply, 16, payload.empty() ? 0 : 1);
    reply.insert(reply.end(), payload.begin(), payload.end());
    if (script_.edit) {
        reply = script_.edit(command, reply);
    }
    const size_t piece = script_.reply_piece == 0 ? reply.size() : script_.reply_piece;
    for (size_t at = 0; at < reply.size(); at += piece) {
        if (at > 0 && !Pause(std::chrono::milliseconds(2))) {
            return;
        }
        (void)send(fd, reply.data() + at, std::min(piece, reply.size() - at), MSG_NOSIGNAL);
    }
}

Bytes SearchReply() {
    Bytes reply(544);
    PutText(&reply, 0, "searching..");
    reply[12] = 11;
    PutWord(&reply, 16, 190);
    reply[20] = 1;
    PutText(&reply, 24, "172.20.18.77");
    PutText(&reply, 40, "255.255.255.0");
    PutText(&reply, 56, "172.20.18.1");
    PutText(&reply, 72, "172.20.18.2");
    PutText(&reply, 104, "02:00:5E:10:20:30");
    PutWord(&reply, 140, 0x1302);
    PutText(&reply, 144, "IPC");
    reply[243] = 80;
    reply[246] = 0x02;
    reply[247] = 0x2A;
    reply[259] = 80;
    PutWord(&reply, 292, 44);
    PutWord(&reply, 300, 500);
    PutText(&reply, 304, "IPCAMERA");
    PutText(&reply, 384, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    PutText(&reply, 480, "admin");
    return reply;
}

Bytes Patched(Bytes datagram, size_t offset, const std::string& bytes) {
    PutText(&datagram, offset, bytes);
    return datagram;
}

Responder::Responder(std::vector<Bytes> replies, const std::string& address, uint16_t port)
    : replies_(std::move(replies)),
      fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
    port_ = Bind(fd_.Get(), address, port);
    thread_ = std::thread([this] { Serve(); });
}

Responder::~Responder() {
    Wake(stop_.Get());
    thread_.join();
}

std::vector<Bytes> Responder::Requests() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void Responder::Serve() {
    while (AwaitInput(fd_.Get(), stop_.Get())) {
        Bytes request(2048);
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t n = recvfrom(fd_.Get(), request.data(), request.size(), 0,
                                   reinterpret_cast<sockaddr*>(&from), &size);
        if (n < 0) {
            continue;
        }
        request.resize(static_cast<size_t>(n));
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(std::move(request));
        }
        for (const Bytes& reply : replies_) {
            (void)sendto(fd_.Get(), reply.data(), reply.size(), 0,
                         reinterpret_cast<sockaddr*>(&from), size);
        }
    }
}

}  // namespace fake
