// The Wi-Fi station: one thread that joins "wlan0" to a network through the supplicant, gives the
// interface its address, and guards the link by pinging the gateway.
//
// Start, stop and replacement may be called from different threads at once; they take turns, and
// the thread is joined exactly once.
#pragma once

#include <cstdint>

// How to start. The two texts are not copied: they must outlive the station.
struct KV_WIFI_STA_PARAM {
    const char* pcScriptPath;  // connect script, run as "<script> sta <work directory>/<file>"
    const char* pcWorkPath;    // where "wpa_supplicant.conf" lies
    uint8_t aucReserved[128];  // not read
    uint8_t ucGuardEnable;     // non-zero: time-out of the connection, and ping guard
    uint8_t ucDhcp;            // non-zero: address by udhcpc, else the static one below
    char acIpAddr[16];
    char acNetmask[16];
    char acGateway[16];
};

// Starts the station, in place of one that runs. The record is copied. Returns 0, or -1, traced,
// when one of the two texts is null (a running station goes on). Any thread but the station's own.
// Blocks while a running station is stopped, otherwise not. Aborts the process when no thread can
// be created.
int KV_WIFI_StaConnect(const KV_WIFI_STA_PARAM* param);

// Writes the configuration of the service network into the service work directory and starts the
// station on it, also when the file could not be written (traced): an older file may be there.
// Returns what KV_WIFI_StaConnect returns, and blocks like it. Any thread but the station's.
int __KV_WIFI_StaSupplicant();

// Stops the station and waits for its thread; nothing is touched afterwards, and nothing is undone:
// the supplicant goes on, and a stop between the connect sequence's "ifconfig wlan0 down" and "up"
// leaves the interface down. Returns 0, or -1,
// traced, when none runs. Any thread but the station's own. Blocks for up to a second, or as long
// as the shell command in flight, or up to 16 s while a hung supplicant is asked. A DHCP client
// that gets no lease is ended after 15 s.
int KV_WIFI_StaStop();

// Returns 3 once the link is verified, 0 while connecting, -1, traced, when no station runs. Any
// thread; does not block. Nothing in this program calls it.
int KV_WIFI_StaGetState();

// Switches the running station to static mode with address `ip` (dotted quad, cut at 15
// characters); it is applied when the station next gives the interface its address. Netmask and
// gateway stay as they are. Returns 0, or -1, traced, when no station runs. Any thread; does not
// block. Nothing in this program calls it.
int KV_WIFI_StaSetStaticIP(const char* ip);

// Debug handler in the form of the console's command handlers; acts on argv[0]:
//   CMD text            sends `text` to the supplicant
//   CONNECT ssid [psk]  joins that network, with "/param" as work directory
//   RECV text           starts or stops the tracing of the supplicant's events
//   SCAN                scans
// Adds nothing to `reply` and returns 0. Any thread but the station's own; blocks like what it
// calls. Nothing in this program calls it, and so nothing starts the tracing of events.
int KV_WIFI_STA_DebugCmd(int argc, const char* command, char* const* argv, char* reply);
