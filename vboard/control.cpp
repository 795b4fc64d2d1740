#include "vboard/control.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>

#include "vboard/process.h"

namespace vboard {

using nlohmann::json;

namespace {

sockaddr_un Address(const StateDir& state, const std::string& suffix = "") {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = state.ControlAddress() + suffix;
    (void)path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

UniqueFd UnixSocket() {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        throw SysError("cannot create a socket");
    }
    return fd;
}

}  // namespace

ControlServer::ControlServer(Loop* loop, const StateDir& state, Handler handle, Closed closed)
    : loop_(loop),
      handle_(std::move(handle)),
      closed_(std::move(closed)),
      socketFile_(state.Path() / "control"),
      listener_(UnixSocket()) {
    // The name appears only when connections are possible: others wait for it.
    const std::string unfinished = socketFile_ + ".new";
    (void)unlink(unfinished.c_str());
    const sockaddr_un address = Address(state, ".new");
    if (bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener_.Get(), 16) != 0 || rename(unfinished.c_str(), socketFile_.c_str()) != 0) {
        throw SysError("cannot listen on " + socketFile_);
    }
    loop_->Add(listener_.Get(), [this] { Accept(); });
}

ControlServer::~ControlServer() {
    (void)unlink(socketFile_.c_str());
    loop_->Remove(listener_.Get());
    for (const auto& connection : connections_) {
        loop_->Remove(connection.first);
    }
}

void ControlServer::Accept() {
    const int fd = accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
        connections_[fd].socket.Reset(fd);
        loop_->Add(fd, [this, fd] { Read(fd); });
    }
}

void ControlServer::Read(int fd) {
    char buffer[4096];
    const ssize_t length = recv(fd, buffer, sizeof(buffer), 0);
    if (length <= 0) {
        closed_(fd);
        loop_->Remove(fd);
        connections_.erase(fd);
        return;
    }
    std::string& pending = connections_[fd].pending;
    pending.append(buffer, static_cast<size_t>(length));
    for (size_t end = 0; (end = pending.find('\n')) != std::string::npos;) {
        const std::string line = pending.substr(0, end);
        pending.erase(0, end + 1);
        Answer(fd, line);
    }
}

void ControlServer::Answer(int fd, const std::string& line) {
    json reply;
    try {
        reply = handle_(fd, json::parse(line));
        reply["ok"] = true;
    } catch (const std::exception& error) {
        reply = {{"ok", false}, {"error", error.what()}};
    }
    const std::string text = reply.dump() + "\n";
    // A requester that has gone or does not read loses its reply.
    (void)send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

void ControlServer::HangUp(int connection) {
    (void)shutdown(connection, SHUT_WR);
}

ControlClient::ControlClient(const StateDir& state, Runner runner)
    : name_(runner == Runner::kSite ? "site" : "board"), socket_(UnixSocket()) {
    const sockaddr_un address = Address(state);
    if (connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const char* const start = runner == Runner::kSite ? "site run" : "run -- PROGRAM";
        throw std::runtime_error(std::string("no ") + name_ + " is running with the state folder " +
                                 state.Path().string() + " (start one with: vboard " + start + ")");
    }
}

json ControlClient::Request(const json& request) {
    const std::string text = request.dump() + "\n";
    if (send(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        throw std::runtime_error(std::string("the ") + name_ + " has been stopped");
    }
    std::string line;
    while (line.empty() || line.back() != '\n') {
        char buffer[4096];
        const ssize_t length = recv(socket_.Get(), buffer, sizeof(buffer), 0);
        if (length <= 0) {
            throw std::runtime_error(std::string("the ") + name_ + " has been stopped");
        }
        line.append(buffer, static_cast<size_t>(length));
    }
    json reply = json::parse(line);
    if (!reply.at("ok")) {
        throw std::runtime_error(reply.at("error").get<std::string>());
    }
    reply.erase("ok");
    return reply;
}

}  // namespace vboard
