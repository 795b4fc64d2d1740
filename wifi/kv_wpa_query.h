// Queries to the supplicant: status, signal, nearby networks. Each call opens and closes its own
// control connection. Any thread; blocks like wifi_run_cmd. This program uses only
// KV_WIFI_WPA_Status; the debug handler also scans.
#pragma once

#include <cstdint>

// The result of "SIGNAL_POLL". A value missing in the reply is 0.
struct KV_WIFI_SIGNAL_INFO {
    char acReply[1024];  // the reply, cut to 1023 characters
    int32_t iRssi;       // dBm
    int32_t iLinkSpeed;
    int32_t iNoise;
    int32_t iFrequency;  // MHz
};
static_assert(sizeof(KV_WIFI_SIGNAL_INFO) == 1040, "size of the signal record");

// The result of "STATUS". Texts are terminated and cut to their field. A text missing in the reply
// is empty, a number 0.
struct KV_WIFI_STATUS_INFO {
    char acReply[1024];  // the reply, cut to 1023 characters
    char acBssid[18];
    int32_t iFreq;
    char acSsid[128];
    int32_t iId;
    char acMode[16];
    char acPairwiseCipher[16];
    char acGroupCipher[16];
    char acKeyMgmt[16];
    char acWpaState[32];
    char acIpAddress[16];
    char acAddress[18];
    char acUuid[64];
};
static_assert(sizeof(KV_WIFI_STATUS_INFO) == 1376, "size of the status record");

// Clear the record, ask and fill it. Return 0, also after a "FAIL" answer, which is logged and
// fills only the reply. Return -1 with a log line if there was no answer or an empty one.
int KV_WIFI_WPA_Status(KV_WIFI_STATUS_INFO* status);
int KV_WIFI_SignalPoll(KV_WIFI_SIGNAL_INFO* signal);

// Starts a scan and searches the results that exist at once, without waiting for that scan. Returns
// 1 if one of their lines contains `ssid`, 0 if none does or the scan was refused, -1 with a log
// line if an exchange failed.
int KV_WIFI_GetNearApList(const char* ssid);

// Returns the signal strength in dBm; 0 after a failed query. A value is reused for two to three
// seconds; then the call asks the supplicant and blocks like wifi_run_cmd. Any thread.
int32_t KV_WIFI_GetRssi();

// Returns the last value of KV_WIFI_GetRssi, 0 before the first. Any thread; never blocks.
int32_t KV_WIFI_GetLastRssi();
