// Network upgrade receiver: takes over a protocol connection, stores and checks the package that
// arrives on it, and signals the flash writer.
//
// All connections share one receive state. A second transfer resets it, and later bytes of the
// first connection then count for the second transfer.
#pragma once

#include <cstdint>

#include "flash/kv_upgrade_package.h"
#include "hv/hloop.h"

// Starts a transfer on `io`: `fileLength` bytes of package, then the trailer. `data` holds the
// first `dataLen` bytes. From now on every byte on the connection belongs to the transfer, and 20 s
// of silence close it. Call it on the loop thread of `io`, from its read callback. Blocks for 1.1 s
// plus the time that "sync" takes. Returns 0. While the start lock is set it does nothing and also
// returns 0. Returns -1 when the package file cannot be created; the connection then stays with the
// protocol.
int KV_KorvanUpgradeStart(hio_t* io, uint32_t fileLength, const uint8_t* data, int dataLen);

// Forgets the transfer and allows new ones. Closes the two files, which stay in "/tmp". Does not
// touch the connection. Any thread; does not block. Nothing in this program calls it.
void KV_KorvanUpgradeStop(void);

// Read callback of a transfer, on the loop thread of `io`. Blocks while it reads the package for
// the checks and while shell commands run. A failed transfer reboots the device after 2 s.
void __KV_KorvanUpgradeRead(hio_t* io, void* buf, int len);

// Compares the MD5 of the stored package with the stored trailer. Returns 0 if they are equal, else
// -1. Changes neither file. Blocks while it reads the package. Any thread.
int __KV_CheckUpgradeFileMd5(void);

// Checks whether the stored package is for this device. Returns 0; otherwise deletes the package
// and returns -1. Any thread; does not block.
int __KV_CheckUpgradeFileHeader(void);

// Checks whether a key that this program trusts has signed the stored package. Returns 0; otherwise
// -1. Only in a program with trusted keys. Changes no file. Blocks while it reads the package. Any
// thread.
int __KV_CheckUpgradeFileSignature(void);
