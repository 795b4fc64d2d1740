// Writes the supplicant's configuration file.
#pragma once

// The names under which a write is logged: the caller's module and function.
struct KV_WIFI_REPORTER {
    const char* trace;
    const char* function;
};

// Writes the configuration of network `ssid` into `workDir`. An empty pass phrase makes an open
// network. Both texts are written as given; quotes and newlines are not escaped. Returns 0. Returns
// -1 with a log line if the file cannot be opened or its name is longer than 63 characters; nothing
// is changed then. A failed write is not reported. Any thread; blocks only while it writes the
// file.
int KV_WIFI_WriteConf(const KV_WIFI_REPORTER& reporter, const char* ssid, const char* passphrase,
                      const char* workDir);

// The same, but logs under its own name. For the Wi-Fi debug command.
int __KV_WIFI_StaSupplicantDebug(const char* ssid, const char* passphrase, const char* workDir);
