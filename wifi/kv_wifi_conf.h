// Writes the supplicant's configuration file.
#pragma once

// The names under which a write reports in the log: that of the caller's module and the caller's
// own.
struct KV_WIFI_REPORTER {
    const char* trace;
    const char* function;
};

// Writes the configuration of network `ssid` into `workDir`; an empty pass phrase makes it an open
// network. Both texts stand in the file as given: a quote or a line end in them is not escaped.
// Returns 0, or -1, traced, when the file could not be opened (nothing changed) or its name has
// more than 63 characters. Any thread; blocks for the file's writing only.
int KV_WIFI_WriteConf(const KV_WIFI_REPORTER& reporter, const char* ssid, const char* passphrase,
                      const char* workDir);

// The same, reported under its own name: for the Wi-Fi debug command.
int __KV_WIFI_StaSupplicantDebug(const char* ssid, const char* passphrase, const char* workDir);
