// Questions to the supplicant: its status, the signal, networks nearby. Each call opens and closes
// a control connection of its own; any thread may call; blocks like wifi_run_cmd. Of these this
// program calls KV_WIFI_WPA_Status only; the debug handler scans, too.
#pragma once

#include <cstdint>

// What "SIGNAL_POLL" told. A value that was not in the reply is 0.
struct KV_WIFI_SIGNAL_INFO {
    char acReply[1024];  // the reply, cut to 1023 characters
    int32_t iRssi;       // dBm
    int32_t iLinkSpeed;
    int32_t iNoise;
    int32_t iFrequency;  // MHz
};
static_assert(sizeof(KV_WIFI_SIGNAL_INFO) == 1040, "size of the signal record");

// What "STATUS" told. Texts are terminated, cut to their field; one that was not in the reply is
// empty, a number 0.
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

// Clear the record, ask, fill it. Return 0, also when the supplicant answered "FAIL" (traced; only
// the reply is filled), -1, traced, when there was no answer or an empty one.
int KV_WIFI_WPA_Status(KV_WIFI_STATUS_INFO* status);
int KV_WIFI_SignalPoll(KV_WIFI_SIGNAL_INFO* signal);

// Starts a scan and looks at the results that are there at once, without waiting for that scan.
// Returns 1 when a line of them contains `ssid`, 0 when none does or the scan was refused, -1,
// traced, when an exchange failed.
int KV_WIFI_GetNearApList(const char* ssid);

// The signal strength in dBm; asks the supplicant at most once in 3 s, and gives 0 after a failed
// question. Any thread.
int32_t KV_WIFI_GetRssi();

// What KV_WIFI_GetRssi saw last, 0 before that. Never blocks.
int32_t KV_WIFI_GetLastRssi();
