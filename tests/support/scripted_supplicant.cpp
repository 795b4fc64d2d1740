#include "tests/support/scripted_supplicant.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <utility>

namespace {

void Require(bool condition, const char* what) {
    if (!condition) {
        perror(what);
        abort();
    }
}

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

const sockaddr* Generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

ScriptedSupplicant::ScriptedSupplicant(Script script, std::string path)
    : path_(std::move(path)), script_(std::move(script)) {
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    (void)unlink(path_.c_str());
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = AddressOf(path_);
    Require(bind(socket_, Generic(address), sizeof(address)) == 0, path_.c_str());
    wake_ = eventfd(0, EFD_CLOEXEC);
    Require(wake_ >= 0, "eventfd");
    StartThread();
}

ScriptedSupplicant::~ScriptedSupplicant() {
    StopThread();
    (void)close(wake_);
    (void)close(socket_);
    (void)unlink(path_.c_str());
}

void ScriptedSupplicant::StartThread() {
    thread_ = std::thread([this] { Serve(); });
}

void ScriptedSupplicant::StopThread() {
    if (!thread_.joinable()) {
        return;
    }
    uint64_t one = 1;
    Require(write(wake_, &one, sizeof(one)) == sizeof(one), "wake");
    thread_.join();
    Require(read(wake_, &one, sizeof(one)) == sizeof(one), "wake");
}

void ScriptedSupplicant::SetScript(Script script) {
    const std::lock_guard<std::mutex> guard(lock_);
    script_ = std::move(script);
}

void ScriptedSupplicant::Push(const std::string& text) {
    const std::lock_guard<std::mutex> answered(answering_);
    const std::lock_guard<std::mutex> guard(lock_);
    (void)sendto(socket_, text.data(), text.size(), 0, Generic(client_), sizeof(client_));
}

int ScriptedSupplicant::Count(const std::string& command) {
    const std::lock_guard<std::mutex> guard(lock_);
    return commands_[command];
}

void ScriptedSupplicant::Stall() {
    StopThread();
    const int filler = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = AddressOf(path_);
    while (sendto(filler, "fill", 4, 0, Generic(address), sizeof(address)) == 4) {
    }
    (void)close(filler);
}

void ScriptedSupplicant::Resume() {
    StartThread();
}

bool ScriptedSupplicant::Wait(std::chrono::milliseconds time, bool forRequest) {
    pollfd waited[] = {{wake_, POLLIN, 0}, {socket_, POLLIN, 0}};
    (void)poll(waited, forRequest ? 2 : 1, static_cast<int>(time.count()));
    return (waited[0].revents & POLLIN) == 0;
}

void ScriptedSupplicant::Serve() {
    while (Wait(std::chrono::milliseconds(-1), true)) {
        char text[4096];
        sockaddr_un client{};
        socklen_t size = sizeof(client);
        const ssize_t length =
            recvfrom(socket_, text, sizeof(text), 0, reinterpret_cast<sockaddr*>(&client), &size);
        if (length < 0) {
            continue;
        }
        const std::string command(text, static_cast<size_t>(length));
        Script script;
        const std::lock_guard<std::mutex> answering(answering_);
        {
            const std::lock_guard<std::mutex> guard(lock_);
            ++commands_[command];
            client_ = client;
            script = script_;
        }
        Answer(script(command), client);
    }
}

void ScriptedSupplicant::Answer(const std::vector<Message>& messages, const sockaddr_un& client) {
    for (const Message& message : messages) {
        if (message.after.count() > 0 && !Wait(message.after, false)) {
            return;
        }
        (void)sendto(socket_, message.text.data(), message.text.size(), 0, Generic(client),
                     sizeof(client));
    }
}
