#define KV_TRACE_NAME "kv_wifi_sta"
#include "wifi/kv_wifi_sta.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_shell.h"
#include "common/kv_text.h"
#include "common/kv_thread.h"
#include "common/kv_time.h"
#include "hv/icmp.h"
#include "net/kv_net.h"
#include "wifi/kv_wifi_conf.h"
#include "wifi/kv_wifi_sta_step.h"
#include "wifi/kv_wpa_ctrl.h"
#include "wifi/kv_wpa_query.h"

using kv::StaGo;
using kv::StaLink;
using kv::StaState;
using kv::StaVerdict;

namespace {

constexpr size_t kStationStack = 131072;
constexpr int64_t kLeaseGraceMs = 15000;
constexpr useconds_t kLeasePollUs = 100000;
constexpr int32_t kPublicConnecting = 0;
constexpr int32_t kPublicGuarding = 3;
constexpr char kDebugScanSsid[] = "1111";
// Function names in the log, for the thread and for its status handling.
constexpr char kThreadName[] = "__KV_WIFI_STA_HandleProc";
constexpr char kStatusName[] = "handle_result";
constexpr char kEndDhcp[] = "killall -9 udhcpc";

// The one station.
struct KV_WIFI_STA_CTX {
    // Held during a whole start or stop, including the join.
    pthread_mutex_t control;
    // Only a stop clears it. 1 means that the thread must be joined.
    std::atomic<uint8_t> running;
    // Guarded by `control`.
    pthread_t thread;
    // Written only while no thread runs.
    uint8_t guardEnable;
    std::atomic<int32_t> publicState;
    // The DHCP client is running or about to start.
    std::atomic<bool> leasing;
    // Held only to copy in or out of `param`.
    pthread_mutex_t paramLock;
    KV_WIFI_STA_PARAM param;
};
KV_WIFI_STA_CTX g_station = {PTHREAD_MUTEX_INITIALIZER, {0}, {}, 0, {kPublicConnecting}, {false},
                             PTHREAD_MUTEX_INITIALIZER, {}};

// State of the station thread alone.
struct StaThread {
    kv::StaMachine machine;
    char pingTarget[kv::kNetAddressSize];
    char command[256];
    bool pingErrorSaid;
    KV_WIFI_STATUS_INFO status;
};

bool IsRunning() {
    return g_station.running == 1;
}

KV_WIFI_STA_PARAM Param() {
    const MutexGuard guard(&g_station.paramLock);
    return g_station.param;
}

// No new command starts after a stop request, so a stop waits for one command at most.
void RunCommand(const StaThread& sta) {
    if (IsRunning()) {
        KV_ShellEcho(sta.command);
    }
}

void RunCommand(StaThread* sta, const char* command) {
    (void)snprintf(sta->command, sizeof(sta->command), "%s", command);
    RunCommand(*sta);
}

void SleepSeconds(int seconds) {
    for (int i = 0; i < seconds && IsRunning(); ++i) {
        kv::SleepMilliseconds(1000);
    }
}

void Connect(StaThread* sta, StaGo from) {
    for (int resets = kv::StaPlanConnect(&sta->machine, from); resets > 0; --resets) {
        RunCommand(sta, kv::kWifiSoftReset);
    }
    SleepSeconds(2);
    RunCommand(sta, kEndDhcp);
    RunCommand(sta, "ifconfig wlan0 down");
    RunCommand(sta, "ifconfig wlan0 up");
    RunCommand(sta, "killall -9 wpa_supplicant");
    const KV_WIFI_STA_PARAM param = Param();
    (void)snprintf(sta->command, sizeof(sta->command), "%s sta %s/%s", param.pcScriptPath,
                   param.pcWorkPath, kv::kWpaConfName);
    RunCommand(*sta);
    kv::StaOnConnected(&sta->machine, kv::MonotonicSeconds());
    g_station.publicState = kPublicConnecting;
}

StaGo Associate(StaThread* sta, int64_t now) {
    const char* wpaState = nullptr;
    if (KV_WIFI_WPA_Status(&sta->status) == 0) {
        wpaState = sta->status.acWpaState;
        KV_DEBUG_IN(kStatusName, "state:%s", kv::LogText(wpaState).Get());
    }
    const bool guardEnable = g_station.guardEnable != 0;
    const StaGo go = kv::StaOnStatus(&sta->machine, wpaState, guardEnable, now);
    if (go == StaGo::kConnect) {
        KV_FAILED_IN(kThreadName, "connection timed out");
    }
    return go;
}

// Reads one address into the record. Changes nothing if the read fails. Does not replace a static
// address that was set while the lease was awaited.
void ReadBack(int (*reader)(const char*, char*), char* field) {
    char address[kv::kNetAddressSize] = {};
    if (reader(kv::kWifiInterface, address) == 0) {
        const MutexGuard guard(&g_station.paramLock);
        if (field != g_station.param.acIpAddr || g_station.param.ucDhcp != 0) {
            memcpy(field, address, sizeof(address));
        }
    }
}

void Address(StaThread* sta) {
    const KV_WIFI_STA_PARAM param = Param();
    if (param.ucDhcp != 0) {
        g_station.leasing = true;
        RunCommand(sta, "udhcpc -i wlan0");
        g_station.leasing = false;
        ReadBack(KV_NET_GetIpAddr, g_station.param.acIpAddr);
        ReadBack(KV_NET_GetNetmask, g_station.param.acNetmask);
        ReadBack(KV_NET_GetGateway, g_station.param.acGateway);
    } else {
        (void)KV_NET_SetIpAddr(kv::kWifiInterface, param.acIpAddr);
        (void)KV_NET_SetNetmask(kv::kWifiInterface, param.acNetmask);
        (void)KV_NET_SetGateway(kv::kWifiInterface, param.acGateway);
    }
    if (sta->pingTarget[0] == '\0') {
        (void)KV_NET_GetGateway(kv::kWifiInterface, sta->pingTarget);
    }
    kv::StaOnAddressed(&sta->machine);
}

StaGo Verify(StaThread* sta) {
    char ip[kv::kNetAddressSize] = {};
    (void)KV_NET_GetIpAddr(kv::kWifiInterface, ip);
    // Kept: the MAC is read into the command buffer. After a failed read the buffer still holds the
    // last command, so only a read that gave an empty text counts as a missing MAC.
    (void)KV_NET_GetMacAddr(kv::kWifiInterface, nullptr, sta->command);
    const KV_WIFI_STA_PARAM param = Param();
    const char* const wantedIp = param.ucDhcp != 0 ? nullptr : param.acIpAddr;
    switch (kv::StaOnVerify(&sta->machine, ip, wantedIp, sta->command)) {
        case StaVerdict::kNoAddress:
            KV_ERROR_IN(kThreadName, "No correct IP!!!!,SoftReset");
            return StaGo::kSoftReset;
        case StaVerdict::kNoMac:
            KV_ERROR_IN(kThreadName, "No correct MAC!!!!,SoftReset");
            return StaGo::kSoftReset;
        case StaVerdict::kGood:
            break;
    }
    KV_DEBUG_IN(kThreadName, "into wifi guard");
    g_station.publicState = kPublicGuarding;
    return StaGo::kStay;
}

// A ping that cannot be sent counts as a miss. Its log line is the same as for a silent gateway. So
// the reason is printed once on standard output, beside the echoed commands.
bool Ping(StaThread* sta) {
    const int replies = ping(sta->pingTarget, 1);
    if (replies < 0 && !sta->pingErrorSaid) {
        sta->pingErrorSaid = true;
        (void)printf("ping %s cannot be sent, counted as missed\n", sta->pingTarget);
    }
    return replies > 0;
}

StaLink ReadLink() {
    if (KV_NET_GetLinkStatus(kv::kWifiInterface) <= 0 || KV_NET_IsIfUp(kv::kWifiInterface) != 0) {
        return StaLink::kDead;
    }
    return KV_NET_IsIfRunning(kv::kWifiInterface) != 0 ? StaLink::kNotRunning : StaLink::kFine;
}

StaGo Guard(StaThread* sta, int64_t now) {
    if (g_station.guardEnable == 0) {
        return StaGo::kStay;
    }
    if (sta->pingTarget[0] == '\0' && KV_NET_GetGateway(kv::kWifiInterface, sta->pingTarget) != 0) {
        (void)snprintf(sta->pingTarget, sizeof(sta->pingTarget), "%s", kv::kDefaultPingTarget);
    }
    if (!kv::StaPingDue(sta->machine, now)) {
        return StaGo::kStay;
    }
    const bool reply = Ping(sta);
    const bool lookAtLink = kv::StaOnPing(&sta->machine, reply, now);
    if (!reply) {
        KV_INFO_IN(kThreadName, "NetWork ping failed cnt:%d %s", sta->machine.pingFailCount,
                   sta->pingTarget);
    }
    return lookAtLink ? kv::StaOnLink(&sta->machine, ReadLink()) : StaGo::kStay;
}

StaGo Pass(StaThread* sta, int64_t now) {
    switch (sta->machine.state) {
        case StaState::kAssociating:
            return Associate(sta, now);
        case StaState::kAddressing:
            Address(sta);
            break;
        case StaState::kVerifying:
            return Verify(sta);
        case StaState::kGuarding:
            return Guard(sta, now);
    }
    return StaGo::kStay;
}

void* __KV_WIFI_STA_HandleProc(void* argument) {
    (void)argument;
    (void)prctl(PR_SET_NAME, kThreadName);
    StaThread sta{};
    StaGo go = StaGo::kSoftReset;
    while (IsRunning()) {
        if (go != StaGo::kStay) {
            Connect(&sta, go);
            if (!IsRunning()) {
                break;
            }
        }
        go = Pass(&sta, kv::MonotonicSeconds());
        if (go == StaGo::kStay) {
            SleepSeconds(1);
        }
    }
    return nullptr;
}

// Without a DHCP server the client may stay in the foreground and ask for ever, and the process
// could not exit. So a stop gives it more time than a lease usually takes, then kills it.
void AwaitLease() {
    int64_t start = kv::MonotonicMilliseconds();
    while (g_station.leasing) {
        if (kv::MonotonicMilliseconds() - start > kLeaseGraceMs) {
            KV_ShellEcho(kEndDhcp);
            start = kv::MonotonicMilliseconds();
        }
        (void)usleep(kLeasePollUs);
    }
}

// The caller holds `control`.
int Stop() {
    const char* const function = "KV_WIFI_StaStop";
    if (!IsRunning()) {
        KV_FAILED_IN(function, "wifi sta is stop!");
        return -1;
    }
    KV_DEBUG_IN(function, "KV_WIFI_StaStop start");
    g_station.running = 0;
    g_station.publicState = kPublicConnecting;
    AwaitLease();
    (void)pthread_join(g_station.thread, nullptr);
    KV_DEBUG_IN(function, "KV_WIFI_StaStop success!");
    return 0;
}

const char* Argument(int argc, char* const* argv, int index) {
    return index < argc && argv[index] != nullptr ? argv[index] : "";
}

void DebugCommand(const char* command) {
    if (command[0] == '\0') {
        return;
    }
    char reply[kWpaReplySize + 1];
    size_t length = kWpaReplySize;
    (void)wifi_run_cmd(command, reply, &length);
}

void DebugConnect(const char* ssid, const char* passphrase) {
    KV_WIFI_STA_PARAM param{};
    param.pcScriptPath = kv::kWifiConnectScript;
    param.pcWorkPath = kv::kWifiDebugWorkDir;
    param.ucDhcp = 1;
    (void)__KV_WIFI_StaSupplicantDebug(ssid, passphrase, kv::kWifiDebugWorkDir);
    (void)KV_WIFI_StaConnect(&param);
}

}  // namespace

int KV_WIFI_StaConnect(const KV_WIFI_STA_PARAM* param) {
    if (param->pcScriptPath == nullptr) {
        KV_FAILED("wifi ScriptPath is NULL!");
        return -1;
    }
    if (param->pcWorkPath == nullptr) {
        KV_FAILED("wifi WorkPath is NULL!");
        return -1;
    }
    const MutexGuard guard(&g_station.control);
    (void)Stop();
    // Kept: the control sockets are looked for below "/tmp", whatever the work directory.
    KV_WIFI_SetRunPath(kv::kWifiWorkDir);
    {
        const MutexGuard copying(&g_station.paramLock);
        g_station.param = *param;
    }
    g_station.guardEnable = param->ucGuardEnable;
    g_station.publicState = kPublicConnecting;
    g_station.running = 1;
    const int error =
        KV_ThreadStart(&g_station.thread, kStationStack, __KV_WIFI_STA_HandleProc, nullptr);
    if (error != 0) {
        KV_ASSERT_FAIL("pthread create failed:%s", strerror(error));
    }
    return 0;
}

int __KV_WIFI_StaSupplicant() {
    KV_WIFI_STA_PARAM param{};
    param.pcScriptPath = kv::kWifiConnectScript;
    param.pcWorkPath = kv::kWifiWorkDir;
    param.ucGuardEnable = 1;
    param.ucDhcp = 1;
    // Logged under the trace name of start-up, where readers of the log expect it.
    (void)KV_WIFI_WriteConf({"upgrade_main", __func__}, kv::kServiceSsid, kv::kServicePassphrase,
                            kv::kWifiWorkDir);
    return KV_WIFI_StaConnect(&param);
}

int KV_WIFI_StaStop() {
    const MutexGuard guard(&g_station.control);
    return Stop();
}

int KV_WIFI_StaGetState() {
    if (!IsRunning()) {
        KV_FAILED("wifi sta is stop!");
        return -1;
    }
    return g_station.publicState;
}

int KV_WIFI_StaSetStaticIP(const char* ip) {
    if (!IsRunning()) {
        KV_FAILED("wifi sta is stop!");
        return -1;
    }
    const MutexGuard guard(&g_station.paramLock);
    g_station.param.ucDhcp = 0;
    (void)snprintf(g_station.param.acIpAddr, sizeof(g_station.param.acIpAddr), "%s", ip);
    return 0;
}

int KV_WIFI_STA_DebugCmd(int argc, const char* command, char* const* argv, char* reply) {
    (void)command;
    (void)reply;
    {
        // Kept: any use of the debug command moves a running station's next connect sequence to the
        // debug directory.
        const MutexGuard guard(&g_station.paramLock);
        g_station.param.pcWorkPath = kv::kWifiDebugWorkDir;
    }
    const char* const word = Argument(argc, argv, 0);
    const char* const text = Argument(argc, argv, 1);
    if (strcmp(word, "CMD") == 0) {
        DebugCommand(text);
    } else if (strcmp(word, "CONNECT") == 0) {
        DebugConnect(text, Argument(argc, argv, 2));
    } else if (strcmp(word, "RECV") == 0) {
        KV_DEBUG("RECV----:%s", kv::LogText(text).Get());
        (void)KV_WIFI_CtrlListen();
    } else if (strcmp(word, "SCAN") == 0) {
        (void)KV_WIFI_GetNearApList(kDebugScanSsid);
    }
    return 0;
}
