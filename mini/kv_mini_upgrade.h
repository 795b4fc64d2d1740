// Network upgrade receiver: takes a protocol connection over, stores the package that comes on it,
// checks it and hands it to the flash writer.
//
// There is one receive state for all connections: a transfer that begins while another runs resets
// it, and what still arrives on the first connection then counts for the second transfer.
#pragma once

#include <cstdint>

#include "hv/hloop.h"

// Begins a transfer of `fileLength` package bytes and a trailer on `io`, whose first `dataLen`
// bytes are already here. From now on every byte of the connection is the transfer's; 20 s of
// silence close it. On the loop thread of `io`, from its read callback; blocks for 1.1 s and for as
// long as "sync" takes. Returns 0, also when the start lock made it do nothing; -1 when the package
// file cannot be created, and the connection stays with the protocol.
int KV_KorvanUpgradeStart(hio_t* io, uint32_t fileLength, const uint8_t* data, int dataLen);

// Abandons what was received and lets transfers begin again; the connection is not touched. Any
// thread; does not block.
void KV_KorvanUpgradeStop(void);

// The read callback of a transfer. On the loop thread of `io`; blocks while the checks digest the
// package and while shell commands run. A transfer that fails reboots the device, after 2 s.
void __KV_KorvanUpgradeRead(hio_t* io, void* buf, int len);

// Compares the digest of the stored package with the one in the stored trailer. 0 when equal, else
// -1; neither file is changed. Blocks while the package is read. Any thread.
int __KV_CheckUpgradeFileMd5(void);

// Checks whether the stored package is for this device. 0, or -1 with the package deleted. Any
// thread; does not block.
int __KV_CheckUpgradeFileHeader(void);
