#define KV_TRACE_NAME "kv_wpa_ctrl"
#include "wifi/kv_wpa_query.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_time.h"
#include "wifi/kv_wpa_ctrl.h"

namespace {

constexpr int64_t kRssiAgeSeconds = 2;
constexpr size_t kNumberSize = 512;

struct RssiCache {
    std::atomic<int64_t> polledAt;
    std::atomic<int32_t> last;
};
RssiCache g_rssi{};

// The longest reply fills kWpaReplySize bytes; the NUL follows them.
struct Reply {
    char text[kWpaReplySize + 1];
    size_t length;
};

bool Ask(const char* command, Reply* reply) {
    reply->length = kWpaReplySize;
    return wifi_run_cmd(command, reply->text, &reply->length) == 0 && reply->length > 0;
}

bool StartsWith(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Kept: a key is found anywhere in the reply, so "id" is found inside "bssid" and "address" inside
// "ip_address" if those come first.
void CopyValue(const char* reply, const char* key, char* out, size_t outSize) {
    const char* found = strstr(reply, key);
    const char* equals = found != nullptr ? strchr(found, '=') : nullptr;
    if (equals == nullptr) {
        return;
    }
    const char* value = equals + 1;
    size_t length = strcspn(value, "\n");
    if (length > outSize - 1) {
        length = outSize - 1;
    }
    memcpy(out, value, length);
    out[length] = '\0';
}

// Saturates at 32 bits even if long has 64. On the device long has 32, and strtol saturates there.
int32_t NumberOf(const char* reply, const char* key) {
    char text[kNumberSize] = {};
    CopyValue(reply, key, text, sizeof(text));
    const long value = strtol(text, nullptr, 10);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

enum class Query { kFilled, kRefused, kFailed };

// The common part of status and signal: asks, keeps the raw reply, logs failures under the caller's
// name.
Query Run(const char* command, const char* caller, Reply* reply, char* raw, size_t rawSize) {
    if (!Ask(command, reply)) {
        KV_ERROR_IN(caller, "Err: %s\n", command);
        return Query::kFailed;
    }
    memcpy(raw, reply->text, rawSize - 1);
    if (StartsWith(reply->text, "FAIL")) {
        KV_ERROR_IN(caller, "Err: %s (FAIL)\n", command);
        return Query::kRefused;
    }
    return Query::kFilled;
}

}  // namespace

int KV_WIFI_WPA_Status(KV_WIFI_STATUS_INFO* status) {
    memset(status, 0, sizeof(*status));
    Reply reply{};
    const Query query = Run("STATUS", __func__, &reply, status->acReply, sizeof(status->acReply));
    if (query == Query::kFailed) {
        return -1;
    }
    if (query == Query::kFilled) {
        const char* text = reply.text;
        CopyValue(text, "\nbssid", status->acBssid, sizeof(status->acBssid));
        status->iFreq = NumberOf(text, "freq");
        CopyValue(text, "\nssid", status->acSsid, sizeof(status->acSsid));
        status->iId = NumberOf(text, "id");
        CopyValue(text, "mode", status->acMode, sizeof(status->acMode));
        CopyValue(text, "pairwise_cipher", status->acPairwiseCipher,
                  sizeof(status->acPairwiseCipher));
        CopyValue(text, "group_cipher", status->acGroupCipher, sizeof(status->acGroupCipher));
        CopyValue(text, "key_mgmt", status->acKeyMgmt, sizeof(status->acKeyMgmt));
        CopyValue(text, "wpa_state", status->acWpaState, sizeof(status->acWpaState));
        CopyValue(text, "ip_address", status->acIpAddress, sizeof(status->acIpAddress));
        CopyValue(text, "address", status->acAddress, sizeof(status->acAddress));
        CopyValue(text, "uuid", status->acUuid, sizeof(status->acUuid));
    }
    return 0;
}

int KV_WIFI_SignalPoll(KV_WIFI_SIGNAL_INFO* signal) {
    memset(signal, 0, sizeof(*signal));
    Reply reply{};
    const Query query =
        Run("SIGNAL_POLL", __func__, &reply, signal->acReply, sizeof(signal->acReply));
    if (query == Query::kFailed) {
        return -1;
    }
    if (query == Query::kFilled) {
        signal->iRssi = NumberOf(reply.text, "RSSI");
        signal->iLinkSpeed = NumberOf(reply.text, "LINKSPEED");
        signal->iFrequency = NumberOf(reply.text, "FREQUENCY");
        signal->iNoise = NumberOf(reply.text, "NOISE");
    }
    return 0;
}

int KV_WIFI_GetNearApList(const char* ssid) {
    Reply reply{};
    if (!Ask("SCAN", &reply)) {
        KV_FAILED("Err: %s", "SCAN");
        return -1;
    }
    if (!StartsWith(reply.text, "OK")) {
        KV_ERROR("Err: %s (FAIL)\n", "SCAN");
        return 0;
    }
    if (!Ask("SCAN_RESULTS", &reply)) {
        KV_FAILED("Err: %s", "SCAN_RESULTS");
        return -1;
    }
    char* rest = nullptr;
    // The first line has the column names.
    (void)strtok_r(reply.text, "\r\n", &rest);
    for (const char* line = strtok_r(nullptr, "\r\n", &rest); line != nullptr;
         line = strtok_r(nullptr, "\r\n", &rest)) {
        if (strstr(line, ssid) != nullptr) {
            return 1;
        }
    }
    return 0;
}

int32_t KV_WIFI_GetRssi() {
    const int64_t now = kv::MonotonicSeconds();
    if (now > g_rssi.polledAt + kRssiAgeSeconds) {
        g_rssi.polledAt = now;
        KV_WIFI_SIGNAL_INFO signal;
        (void)KV_WIFI_SignalPoll(&signal);
        g_rssi.last = signal.iRssi;
    }
    return g_rssi.last;
}

int32_t KV_WIFI_GetLastRssi() {
    return g_rssi.last;
}
