#define KV_TRACE_NAME "kv_wpa_ctrl"
#include "wifi/kv_wpa_ctrl.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_text.h"
#include "common/kv_thread.h"
#include "common/kv_time.h"

struct wpa_ctrl {
    int s;
    sockaddr_un local;  // An empty path: no name is bound.
    sockaddr_un dest;
};

namespace {

constexpr char kClientDir[] = "/tmp";
constexpr char kClientPrefix[] = "wpa_ctrl_";
constexpr int64_t kSendRetryMilliseconds = 5000;
constexpr int kReplyWaitMilliseconds = 10000;
constexpr int kNoReply = -2;

std::atomic<int> g_openCount{0};
std::atomic<const char*> g_workPath{nullptr};

// Each listener thread takes a number. `wanted` holds the number of the one that should run (0:
// none), so a stopped thread cannot mistake its successor's start for its own.
struct Listener {
    pthread_mutex_t lock;  // for starting and stopping
    std::atomic<uint32_t> wanted;
    std::atomic<uint32_t> taken;
    uint32_t created;
};
Listener g_listener = {PTHREAD_MUTEX_INITIALIZER, {0}, {0}, 0};

bool BindLocal(wpa_ctrl* ctrl) {
    ctrl->local.sun_family = AF_UNIX;
    char* path = ctrl->local.sun_path;
    const int length = snprintf(path, sizeof(ctrl->local.sun_path), "%s/%s%d-%d", kClientDir,
                                kClientPrefix, static_cast<int>(getpid()), ++g_openCount);
    if (length > 0 && static_cast<size_t>(length) < sizeof(ctrl->local.sun_path)) {
        const auto* address = reinterpret_cast<const sockaddr*>(&ctrl->local);
        if (bind(ctrl->s, address, sizeof(ctrl->local)) == 0) {
            return true;
        }
        // A dead process with the same ID may have left the name behind.
        if (errno == EADDRINUSE) {
            (void)unlink(path);
            if (bind(ctrl->s, address, sizeof(ctrl->local)) == 0) {
                return true;
            }
        }
    }
    path[0] = '\0';
    return false;
}

bool ConnectTo(wpa_ctrl* ctrl, const char* path) {
    const size_t length = strlen(path);
    if (length >= sizeof(ctrl->dest.sun_path)) {
        return false;
    }
    ctrl->dest.sun_family = AF_UNIX;
    memcpy(ctrl->dest.sun_path, path, length + 1);
    return connect(ctrl->s, reinterpret_cast<const sockaddr*>(&ctrl->dest), sizeof(ctrl->dest)) ==
           0;
}

int SendCommand(const wpa_ctrl* ctrl, const char* command, size_t length) {
    int64_t firstRefusal = -1;
    while (send(ctrl->s, command, length, 0) < 0) {
        if (errno != EBUSY && errno != EAGAIN) {
            return -1;
        }
        const int64_t now = kv::MonotonicMilliseconds();
        if (firstRefusal < 0) {
            firstRefusal = now;
        } else if (now - firstRefusal > kSendRetryMilliseconds) {
            return -1;
        }
        kv::SleepMilliseconds(1000);
    }
    return 0;
}

void DeliverEvent(WpaEventCallback onEvent, char* message, size_t length, size_t capacity) {
    const size_t end = length < capacity ? length : capacity - 1;
    message[end] = '\0';
    onEvent(message, end);
}

int RequestOk(wpa_ctrl* ctrl, const char* command) {
    char reply[10];
    size_t length = sizeof(reply);
    const int result = wpa_ctrl_request(ctrl, command, strlen(command), reply, &length, nullptr);
    if (result != 0) {
        return result;
    }
    return length == 3 && memcmp(reply, "OK\n", 3) == 0 ? 0 : -1;
}

wpa_ctrl* OpenRunPath() {
    const char* runPath = g_workPath;
    wpa_ctrl* ctrl = nullptr;
    if (runPath != nullptr) {
        char path[128];
        (void)snprintf(path, sizeof(path), "%s/wpa_supplicant/%s", runPath, kv::kWifiInterface);
        ctrl = wpa_ctrl_open(path);
    }
    return ctrl != nullptr ? ctrl : wpa_ctrl_open(kv::kWpaControlSocket);
}

bool IsWanted(uint32_t number) {
    return g_listener.wanted == number;
}

// Logs the messages that have arrived. Checks between messages whether this listener is still
// wanted: a supplicant that floods the socket must not keep a stopped listener alive.
void TraceEvents(wpa_ctrl* ctrl, uint32_t number) {
    char message[2048] = {};
    size_t length = sizeof(message) - 1;
    while (IsWanted(number) && wpa_ctrl_recv(ctrl, message, &length) == 0) {
        KV_DEBUG_IN("__KV_wifi_ctrlProc", "Data:%s", kv::LogText(message).Get());
        memset(message, 0, sizeof(message));
        length = sizeof(message) - 1;
    }
}

void Listen(uint32_t number) {
    wpa_ctrl* ctrl = wpa_ctrl_open(kv::kWpaControlSocket);
    if (ctrl == nullptr) {
        KV_ERROR_IN("__KV_wifi_ctrlProc", "Err: wpa_ctrl_open():%s", kv::kWpaControlSocket);
        return;
    }
    char reply[kWpaReplySize + 1];
    size_t length = kWpaReplySize;
    (void)wpa_ctrl_request(ctrl, "ATTACH", strlen("ATTACH"), reply, &length, nullptr);
    while (IsWanted(number)) {
        TraceEvents(ctrl, number);
        if (IsWanted(number)) {
            kv::SleepMilliseconds(1000);
        }
    }
    wpa_ctrl_close(ctrl);
}

void* __KV_wifi_ctrlProc(void* argument) {
    (void)argument;
    (void)prctl(PR_SET_NAME, "__KV_wifi_ctrlProc");
    uint32_t number = ++g_listener.taken;
    Listen(number);
    // A listener that could not start withdraws its number, so the next call starts another.
    (void)g_listener.wanted.compare_exchange_strong(number, 0);
    KV_DEBUG("__KV_wifi_ctrlProc Exit");
    return nullptr;
}

}  // namespace

wpa_ctrl* wpa_ctrl_open(const char* path) {
    auto* ctrl = new (std::nothrow) wpa_ctrl{};
    if (ctrl == nullptr) {
        return nullptr;
    }
    ctrl->s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (ctrl->s < 0 || !BindLocal(ctrl) || !ConnectTo(ctrl, path)) {
        wpa_ctrl_close(ctrl);
        return nullptr;
    }
    const int flags = fcntl(ctrl->s, F_GETFL);
    if (flags < 0 || fcntl(ctrl->s, F_SETFL, flags | O_NONBLOCK) < 0) {
        perror("fcntl(ctrl->s, O_NONBLOCK)");
    }
    return ctrl;
}

void wpa_ctrl_close(wpa_ctrl* ctrl) {
    if (ctrl == nullptr) {
        return;
    }
    if (ctrl->local.sun_path[0] != '\0') {
        (void)unlink(ctrl->local.sun_path);
    }
    if (ctrl->s >= 0) {
        (void)close(ctrl->s);
    }
    delete ctrl;
}

void wpa_ctrl_cleanup() {
    DIR* dir = opendir(kClientDir);
    if (dir == nullptr) {
        return;
    }
    for (const dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        if (strncmp(entry->d_name, kClientPrefix, sizeof(kClientPrefix) - 1) == 0) {
            char path[4096];
            (void)snprintf(path, sizeof(path), "%s/%s", kClientDir, entry->d_name);
            (void)unlink(path);
        }
    }
    (void)closedir(dir);
}

int wpa_ctrl_request(wpa_ctrl* ctrl, const char* command, size_t commandLength, char* reply,
                     size_t* replyLength, WpaEventCallback onEvent) {
    if (SendCommand(ctrl, command, commandLength) != 0) {
        return -1;
    }
    for (;;) {
        pollfd waited = {ctrl->s, POLLIN, 0};
        const int ready = poll(&waited, 1, kReplyWaitMilliseconds);
        if (ready <= 0) {
            return ready < 0 ? ready : kNoReply;
        }
        const ssize_t received = recv(ctrl->s, reply, *replyLength, 0);
        if (received < 0) {
            return static_cast<int>(received);
        }
        const auto length = static_cast<size_t>(received);
        if (length == 0 || reply[0] != '<') {
            *replyLength = length;
            return 0;
        }
        if (onEvent != nullptr) {
            DeliverEvent(onEvent, reply, length, *replyLength);
        }
    }
}

int wpa_ctrl_attach(wpa_ctrl* ctrl) {
    return RequestOk(ctrl, "ATTACH");
}

int wpa_ctrl_detach(wpa_ctrl* ctrl) {
    return RequestOk(ctrl, "DETACH");
}

int wpa_ctrl_recv(wpa_ctrl* ctrl, char* buffer, size_t* length) {
    const ssize_t received = recv(ctrl->s, buffer, *length, 0);
    if (received < 0) {
        return static_cast<int>(received);
    }
    *length = static_cast<size_t>(received);
    return 0;
}

int wpa_ctrl_get_fd(const wpa_ctrl* ctrl) {
    return ctrl->s;
}

int wifi_run_cmd(const char* command, char* reply, size_t* replyLength) {
    int result = -1;
    wpa_ctrl* ctrl = OpenRunPath();
    if (ctrl == nullptr) {
        const char* runPath = g_workPath;
        KV_ERROR("Err: wpa_ctrl_open():%s", runPath != nullptr ? runPath : "(null)");
    } else {
        result = wpa_ctrl_request(ctrl, command, strlen(command), reply, replyLength, nullptr);
        wpa_ctrl_close(ctrl);
    }
    if (result != 0) {
        *replyLength = 0;
    }
    reply[*replyLength] = '\0';
    return result;
}

void KV_WIFI_SetRunPath(const char* path) {
    g_workPath = path;
    KV_DEBUG("gpWorkPath:%s", path != nullptr ? path : "(null)");
}

int KV_WIFI_CtrlListen() {
    const MutexGuard guard(&g_listener.lock);
    if (g_listener.wanted.exchange(0) != 0) {
        return 0;
    }
    g_listener.wanted = ++g_listener.created;
    const int error = KV_ThreadStart(nullptr, 0, __KV_wifi_ctrlProc, nullptr);
    if (error != 0) {
        KV_ASSERT_FAIL("pthread create failed:%s", strerror(error));
    }
    return 0;
}
