// Discovery responder: answers search datagrams, including broadcasts, on UDP port
// kv::kDiscoveryPort of every local address. Each search gets one datagram with the device's
// identity, network settings and account. It runs on a worker loop of the pool and keeps no state
// about clients.
#pragma once

#include "mini/kv_mini_discovery_frame.h"

// Opens the port on a worker loop and starts answering. Creates the pool if there is none. Returns
// 0. Returns -1 if already started or if the port cannot be opened; nothing is left open then. Any
// thread but those of the pool. Blocks until the worker has finished its current callback, and
// while a stop runs.
int KV_MINI_DiscoverInit(void);

// Stops answering. On return no search is being answered and the port is free. Returns 0, or -1 if
// not started. Call it before the pool is removed, on any thread but those of the pool. Blocks
// until the worker has finished its current callback.
int KV_MINI_DiscoverDeInit(void);

// Fills the reply with the current settings of eth0, or of wlan0 if eth0 has no usable address. A
// setting that cannot be read stays zero. Any thread; logs, does not block.
void KV_MINI_DiscoverFillReply(kv::DiscoveryReply* reply);

// Reads the version of the installed application from its version file: the text after "sofvar=" in
// the last line that starts with it, at most 64 characters. `out` is unchanged if there is none.
// Returns 0, or -1 with a line on standard output if the file cannot be opened. Nothing in the
// program calls it: the reply carries the compiled-in version. Any thread; blocks while it reads a
// small file.
int __KV_MINI_ReadVerIni(char (&out)[65]);
