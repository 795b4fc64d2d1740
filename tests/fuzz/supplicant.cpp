// The supplicant's control interface: replies, events, silence and errors at any moment.
#include <pthread.h>

#include <algorithm>

#include "tests/fuzz/world.h"
#include "wifi/kv_wpa_ctrl.h"
#include "wifi/kv_wpa_query.h"

using namespace fuzz;

namespace {

std::string g_reply;  // the last message that the program got
void* (*g_listener)(void*);

// What the program should find in the reply, found in another way.
std::string Value(const std::string& key, size_t size) {
    const std::string reply = g_reply.substr(0, kWpaReplySize).c_str();
    const size_t found = reply.find(key);
    const size_t at = found == reply.npos ? found : reply.find('=', found);
    return at == reply.npos ? ""
                            : reply.substr(at + 1, reply.find('\n', at) - at - 1).substr(0, size);
}

template <size_t size>
void RequireField(const char (&field)[size], const char* key) {
    Require(std::string(field, strnlen(field, size)) == Value(key, size - 1));
}

void Status() {
    const auto status = std::make_unique<KV_WIFI_STATUS_INFO>();
    const bool known = KV_WIFI_WPA_Status(status.get()) == 0;
    if (known && g_reply.compare(0, 4, "FAIL") != 0) {
        RequireField(status->acBssid, "\nbssid");
        RequireField(status->acSsid, "\nssid");
        RequireField(status->acMode, "mode");
        RequireField(status->acWpaState, "wpa_state");
        RequireField(status->acAddress, "address");
        RequireField(status->acUuid, "uuid");
    }
}

void Signal() {
    KV_WIFI_SIGNAL_INFO signal;
    if (KV_WIFI_SignalPoll(&signal) == 0 && g_reply.compare(0, 4, "FAIL") != 0) {
        const long value = strtol(Value("RSSI", 511).c_str(), nullptr, 10);
        Require(signal.iRssi == std::clamp<long>(value, INT32_MIN, INT32_MAX));
    }
    g_nowMs += g_world.in->Byte() * 64;
    (void)KV_WIFI_GetRssi();
    (void)KV_WIFI_GetLastRssi();
}

void Connection() {
    wpa_ctrl* const ctrl = wpa_ctrl_open(std::string(g_world.in->Byte() % 128, 'p').c_str());
    if (ctrl != nullptr) {
        size_t size = g_world.in->Below(64) + size_t{2};
        const std::unique_ptr<char[]> reply(new char[size]);
        const auto onEvent = [](char* message, size_t length) {
            Require(message[0] == '<' && message[length] == '\0');
        };
        const int result = wpa_ctrl_request(ctrl, "PING", 4, reply.get(), &size, onEvent);
        Require(result != 0 || size == 0 || reply[0] != '<');
        Require(wpa_ctrl_attach(ctrl) != 0 || g_reply == "OK\n");
        (void)wpa_ctrl_detach(ctrl);
        (void)wpa_ctrl_get_fd(ctrl);
    }
    wpa_ctrl_close(ctrl);
}

// The listener ends when the debug command comes again, here at one of its sleeps.
void Listen() {
    bool listening = true;
    g_world.pause = [&listening] {
        if (listening && g_world.in->Below(4) == 0) {
            listening = false;
            (void)KV_WIFI_CtrlListen();
        }
    };
    (void)KV_WIFI_CtrlListen();
    (void)g_listener(nullptr);
    g_world.pause = [] {};
}

}  // namespace

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*run)(void*), void* argument) {
    return IsInside() ? (g_listener = run, 0)
                      : __real_pthread_create(thread, attributes, run, argument);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    Input& in = scope.in;
    g_world.receive = [&in](size_t) { return g_reply = in.LongPiece(); };
    KV_WIFI_SetRunPath(in.Below(4) == 3 ? "/param" : nullptr);
    while (!in.Empty()) {
        switch (in.Below(8)) {
            case 0:
                Signal();
                break;
            case 1:
                (void)KV_WIFI_GetNearApList(in.Piece().c_str());
                break;
            case 2:
                Connection();
                break;
            case 3:
                Listen();
                break;
            default:
                Status();
        }
    }
    return 0;
}
