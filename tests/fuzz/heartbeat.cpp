// Heartbeats and silences: which datagrams count, and what the monitor may do.
#include "common/kv_platform.h"
#include "flash/kv_fullhan_flash.h"
#include "flash/kv_fullhan_watdog.h"
#include "main/hardware_reset.h"
#include "main/kv_monitor.h"
#include "main/kv_recovery.h"
#include "mini/kv_mini_service.h"
#include "tests/fuzz/world.h"

using namespace fuzz;

namespace {

bool g_upgrading;
bool g_serving;
int64_t g_heardMs;

// A heartbeat that counts removes the marker.
void Hear(const std::string& bytes) {
    const bool quiet = g_upgrading || g_serving;
    const bool counts = std::string(bytes.c_str()).find("cameraMain") != std::string::npos;
    Put(kv::kRebootMarker, "");
    const std::unique_ptr<char[]> copy(new char[bytes.size()]);
    memcpy(copy.get(), bytes.data(), bytes.size());
    __KV_cameraMainHeartbeatRead(nullptr, copy.get(), static_cast<int>(bytes.size()));
    Require(g_world.commands.empty() == (quiet || !counts));
    g_heardMs = counts ? g_nowMs : g_heardMs;
}

// No command runs in the first minute of a silence, or while flash is written.
void Check(bool marker) {
    const bool allowed = !g_upgrading && !g_serving && g_nowMs - g_heardMs > 60000;
    Put(marker ? kv::kRebootMarker : "/none", "");
    __KV_cameraMainCheckTimer(nullptr);
    Require(allowed || g_world.commands.empty());
}

}  // namespace

int KV_UPGRADE_IsUpgrading() {
    return g_upgrading ? 1 : 0;
}
int KV_MINI_ServiceIsStarted() {
    return g_serving ? 1 : 0;
}
void KV_RECOVERY_Start() {
    Require(!g_upgrading && !g_serving);
    g_serving = true;
}
int KV_FH_WDT_Reboot() {
    Require(!g_upgrading && !g_serving);
    return 0;
}
int HardwareResetStart() {
    return 0;
}
void HardwareResetStop() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    Input& in = scope.in;
    g_upgrading = g_serving = false;
    KV_MONITOR_Begin();
    g_heardMs = g_nowMs;
    // The flash writer may start during any command.
    g_world.pause = [&in] { g_upgrading = g_upgrading || in.Below(8) == 7; };
    while (!in.Empty()) {
        g_world.commands.clear();
        switch (in.Below(6)) {
            case 0:
                Hear(in.Piece());
                break;
            case 1:
                Hear(in.Piece() + "cameraMain" + in.Piece());
                break;
            case 2:
                g_upgrading = in.Below(2) == 1;
                g_serving = in.Below(2) == 1;
                break;
            case 3:
                g_nowMs += in.Short() * 4;
                break;
            default:
                Check(in.Below(2) == 1);
        }
    }
    return 0;
}
