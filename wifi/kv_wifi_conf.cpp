#include "wifi/kv_wifi_conf.h"

#include <cstdio>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"

namespace {

// Only the debug writer makes open networks; the service network has a pass phrase.
void WriteNetwork(FILE* file, const KV_WIFI_REPORTER& reporter, const char* passphrase) {
    if (passphrase[0] == '\0') {
        (void)KV_Trace(KV_LEVEL_DEBUG, reporter.trace, __LINE__, reporter.function,
                       "no passwd!! Dot_WIFI_MODE_OPEN\n");
        (void)fputs("\tkey_mgmt=NONE\n", file);
        return;
    }
    (void)KV_Trace(KV_LEVEL_DEBUG, reporter.trace, __LINE__, reporter.function,
                   "need passwd!! default WPA-PSK\n");
    (void)fputs("\tkey_mgmt=WPA-PSK WPA-EAP IEEE8021X NONE\n", file);
    (void)fputs("\tpairwise=TKIP CCMP\n", file);
    (void)fputs("\tgroup=CCMP TKIP WEP104 WEP40\n", file);
    (void)fprintf(file, "\tpsk=\"%s\"\n", passphrase);
}

}  // namespace

int KV_WIFI_WriteConf(const KV_WIFI_REPORTER& reporter, const char* ssid, const char* passphrase,
                      const char* workDir) {
    char name[64] = {};
    const int length = snprintf(name, sizeof(name), "%s/%s", workDir, kv::kWpaConfName);
    // A truncated name would name another file, so it counts as a file that cannot be opened.
    const bool fits = length > 0 && static_cast<size_t>(length) < sizeof(name);
    const UniqueFile file(fits ? fopen(name, "wte") : nullptr);
    if (!file) {
        (void)KV_Trace(KV_LEVEL_FAILED, reporter.trace, __LINE__, reporter.function,
                       "open file :%s failed!", name);
        return -1;
    }
    (void)fprintf(file.Get(), "ctrl_interface=%s/wpa_supplicant\n", workDir);
    (void)fputs("update_config=1\n", file.Get());
    (void)fputs("ap_scan=1\n", file.Get());
    (void)fputs("network={\n", file.Get());
    (void)fprintf(file.Get(), "\tssid=\"%s\"\n", ssid);
    (void)fputs("\tscan_ssid=1\n", file.Get());
    WriteNetwork(file.Get(), reporter, passphrase);
    // Kept: no newline after the brace.
    (void)fputs("}", file.Get());
    return 0;
}

int __KV_WIFI_StaSupplicantDebug(const char* ssid, const char* passphrase, const char* workDir) {
    return KV_WIFI_WriteConf({"kv_wifi_sta", __func__}, ssid, passphrase, workDir);
}
