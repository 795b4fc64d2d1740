// A stand-in for cameraMain: sends what the supervisor watches for, and shows the faults of a real
// application when told to.
//
// Once a second it sends a heartbeat datagram: the process name as NUL-terminated text in 32 bytes,
// then the ready flag. It accepts connections on the video port, so that it can be seen from
// outside, and closes them. If the image contains bin/network, it runs that script once at the
// start, because an application sets up its own network. Before every beat it reads its mode from a
// file that `vboard app` writes:
//
//     beat         heartbeats with the ready flag set (the default, without a file)
//     not-ready    heartbeats with the ready flag clear
//     silent       keeps running but sends nothing
//     late N       sends nothing for its first N seconds
//     crash        aborts
//     never        ends at once with status 1
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_time.h"

namespace {

constexpr char kModeFile[] = "/run/board/app";
constexpr char kStartNetwork[] = "test ! -x /opt/app/bin/network || /opt/app/bin/network &";
constexpr uint16_t kVideoPort = 554;
constexpr size_t kReadyOffset = 32;
constexpr size_t kBeatSize = 33;

struct Mode {
    char word[16] = "beat";
    long seconds = 0;
};

Mode ReadMode() {
    Mode mode;
    const UniqueFile file(fopen(kModeFile, "re"));
    if (file && fscanf(file.Get(), "%15s %ld", mode.word, &mode.seconds) < 1) {
        return {};
    }
    return mode;
}

bool Is(const Mode& mode, const char* word) {
    return strcmp(mode.word, word) == 0;
}

void SendBeat(int socket, bool ready) {
    struct sockaddr_in supervisor = {};
    supervisor.sin_family = AF_INET;
    supervisor.sin_port = htons(kv::kHeartbeatPort);
    (void)inet_pton(AF_INET, kv::kHeartbeatHost, &supervisor.sin_addr);
    char beat[kBeatSize] = {};
    (void)snprintf(beat, kReadyOffset, "%s", kv::kAppName);
    beat[kReadyOffset] = ready ? 1 : 0;
    // Nobody listens until the supervisor has started. The next beat comes in a second.
    (void)sendto(socket, beat, sizeof(beat), 0, reinterpret_cast<struct sockaddr*>(&supervisor),
                 sizeof(supervisor));
}

// Opens the listening socket. If that fails, the application runs without it.
UniqueFd OpenVideoPort() {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    (void)setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    struct sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(kVideoPort);
    if (bind(fd.Get(), reinterpret_cast<struct sockaddr*>(&any), sizeof(any)) != 0 ||
        listen(fd.Get(), 8) != 0) {
        perror("cameraMain: video port");
    }
    return fd;
}

}  // namespace

int main() {
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)system(kStartNetwork);
    UniqueFd video;
    const int64_t started = kv::MonotonicSeconds();
    for (;;) {
        const Mode mode = ReadMode();
        if (Is(mode, "never")) {
            return 1;
        }
        if (Is(mode, "crash")) {
            abort();
        }
        if (!video) {
            video = OpenVideoPort();
        }
        while (UniqueFd(accept4(video.Get(), nullptr, nullptr, SOCK_CLOEXEC))) {
        }
        const bool late = Is(mode, "late") && kv::MonotonicSeconds() - started < mode.seconds;
        if (!Is(mode, "silent") && !late) {
            SendBeat(socket.Get(), !Is(mode, "not-ready"));
        }
        (void)sleep(1);
    }
}
