// Flash writer: writes the package in "/tmp/upGradeFile.FLS" to flash and reboots the device. Once
// started, the procedure ends in a reboot whatever fails.
//
// One writer at a time. Any thread may call KV_UPGRADE_IsUpgrading and KV_UPGRADE_SystemCmd; the
// other functions belong to the thread that runs KV_UPGRADE_Proc. Failures are logged where they
// are found.
#pragma once

#include <cstdint>
#include <cstdio>

// Size of a device that cannot be queried. Kept: it compares as larger than any image, so the erase
// reports the fault.
constexpr uint32_t kUnknownPartitionSize = 0xFFFFFFFF;

// The whole procedure, run on its own thread by SIGUSR2; ignores its argument. Blocks for 2 s of
// pauses, for erasing and writing all images, and for KV_UPGRADE_Reboot. Does nothing if the
// watchdog is already starved for a reboot: the reset would leave the flash half erased.
void KV_UPGRADE_Proc(int signal);

// Returns 1 once KV_UPGRADE_Proc has begun its work, and from then on; 0 before. Any thread; does
// not block.
int KV_UPGRADE_IsUpgrading(void);

// Runs `cmd` through the shell without echo and waits for it. Returns 0 if it exited with status 0,
// else -1.
int KV_UPGRADE_SystemCmd(const char* cmd);

// Logs the partition table.
void KV_UPGRADE_PartitionInfo(void);

// Kills the applications that must not run during flashing.
void KV_UPGRADE_KillallApp(void);

// Return the size in bytes of a device, or of the whole boot-loader region; kUnknownPartitionSize
// on failure.
uint32_t KV_UPGRADE_GetPartitionSize(const char* mtd);
uint32_t KV_UPGRADE_GetUbootPartitionSize(void);

// Erase a whole device, or the three boot-loader devices in order until one fails. Block while the
// chip erases. Return 0 or -1; blocks erased before a failure stay erased.
int KV_UPGRADE_ErasePartition(const char* mtd);
int KV_UPGRADE_EraseUbootPartition(void);

// Copy an image of `dataLen` bytes from the package's current position into flash, in chunks of 64
// KiB. The last chunk includes the bytes that follow the image in the package. Return 0, or -1 if a
// device cannot be opened or, for the boot loader, queried. Failed writes are not reported.
int KV_UPGRADE_WritePartition(FILE* pkg, uint32_t dataLen, const char* mtd);
int KV_UPGRADE_WriteUbootPartition(FILE* pkg, uint32_t dataLen);

// Runs "reboot -f", waits up to 10 s for it, then stops feeding the watchdog. The watchdog
// therefore resets the device if the reboot fails or hangs. Returns once nothing feeds the
// watchdog.
void KV_UPGRADE_Reboot(void);
