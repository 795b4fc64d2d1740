// The Wi-Fi station: one thread that joins "wlan0" to a network through the supplicant, gives the
// interface an address, and guards the link by pinging the gateway.
//
// Several threads may start, replace and stop it at the same time. The calls take turns, and each
// station thread is joined once.
#pragma once

#include <cstdint>

// How to start. The two texts are not copied and must outlive the station.
struct KV_WIFI_STA_PARAM {
    const char* pcScriptPath;  // connect script, run as "<script> sta <work directory>/<file>"
    const char* pcWorkPath;    // directory of "wpa_supplicant.conf"
    uint8_t aucReserved[128];  // not read
    uint8_t ucGuardEnable;     // non-zero: connection time-out and ping guard
    uint8_t ucDhcp;            // non-zero: address by udhcpc, else the static one below
    char acIpAddr[16];
    char acNetmask[16];
    char acGateway[16];
};

// Starts the station and replaces a running one. The record is copied. Returns 0. Returns -1 with a
// log line if one of the two texts is null; a running station continues. Any thread but the
// station's own. Blocks only while it stops a running station. Aborts the process if no thread can
// be created.
int KV_WIFI_StaConnect(const KV_WIFI_STA_PARAM* param);

// Writes the configuration of the service network into the service work directory and starts the
// station on it. If the file cannot be written, logs that and starts the station anyway: an older
// file may exist. Returns the result of KV_WIFI_StaConnect and blocks like it. Any thread
// but the station's own.
int __KV_WIFI_StaSupplicant();

// Stops the station and waits for its thread, which touches nothing afterwards. Nothing is undone:
// the supplicant keeps running, and a stop between the connect sequence's "ifconfig wlan0 down" and
// "up" leaves the interface down. Returns 0, or -1 with a log line if no station runs. Any thread
// but the station's own. Blocks for up to a second, or until the current shell command ends, or for
// up to 16 s if the supplicant hangs. A DHCP client that gets no lease is killed after 15 s.
int KV_WIFI_StaStop();

// Returns 3 once the link is verified, 0 while connecting, -1 with a log line if no station runs.
// Any thread; does not block. Nothing in this program calls it.
int KV_WIFI_StaGetState();

// Switches the running station to the static address `ip` (dotted quad, cut at 15 characters). It
// takes effect when the station next configures the interface. Netmask and gateway stay. Returns 0,
// or -1 with a log line if no station runs. Any thread; does not block. Nothing in this program
// calls it.
int KV_WIFI_StaSetStaticIP(const char* ip);

// Debug handler with the signature of the console's handlers. It acts on argv[0]:
//   CMD text            sends `text` to the supplicant
//   CONNECT ssid [psk]  joins that network, with "/param" as work directory
//   RECV text           starts or stops logging the supplicant's events
//   SCAN                scans
// Writes nothing to `reply` and returns 0. Any thread but the station's own; blocks like the
// functions it calls. Nothing in this program calls it, so nothing starts the logging of events.
int KV_WIFI_STA_DebugCmd(int argc, const char* command, char* const* argv, char* reply);
