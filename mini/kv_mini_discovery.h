// Discovery responder: answers search datagrams on UDP port kv::kDiscoveryPort of every local
// address, broadcasts included, with one datagram that tells the device's identity, network
// settings and account. It runs on a worker loop of the pool and keeps nothing about its clients.
#pragma once

#include "mini/kv_mini_discovery_frame.h"

// Opens the port on a worker loop (the pool is created when there is none) and starts to answer.
// Returns 0; -1 when already started, or when the port cannot be opened, and then nothing is left
// open. Any thread; waits for a stop in progress.
int KV_MINI_DiscoverInit(void);

// Stops answering; no search is being answered and the port is free on return. -1 when not started.
// Before the pool is removed, from any thread but those of the pool. Blocks until each loop of the
// pool has finished the callback it is in.
int KV_MINI_DiscoverDeInit(void);

// Fills the reply with the device's present settings: those of eth0, or of wlan0 when eth0 has no
// address of use. A setting that cannot be read stays zero. Any thread; traces, does not block.
void KV_MINI_DiscoverFillReply(kv::DiscoveryReply* reply);

// Reads the version of the installed application: the text behind "sofvar=" in its version file,
// from the last line that has one, at most 64 characters; `out` is untouched when there is none.
// Returns -1, with a line on standard output, when the file cannot be opened. Nothing calls it, as
// the reply carries the compiled-in version; it stays for builds that report the installed one.
// Any thread; blocks for reading a small file.
int __KV_MINI_ReadVerIni(char (&out)[65]);
