// Flash writer: turns the package laid at "/tmp/upGradeFile.FLS" into flash contents and restarts
// the device. Whatever happens on the way, the procedure ends in a reboot.
//
// One writer at a time: except for KV_UPGRADE_IsUpgrading and KV_UPGRADE_SystemCmd, which any
// thread may call, these functions belong to the thread that runs KV_UPGRADE_Proc. Failures are
// traced where they are found.
#pragma once

#include <cstdint>
#include <cstdio>

// Size of what cannot be queried. Kept: it compares greater than any image, because an unreadable
// device is reported by the erase and not as an image that is too big.
constexpr uint32_t kUnknownPartitionSize = 0xFFFFFFFF;

// The whole procedure, started by SIGUSR2 on a thread of its own; the argument is not used. Blocks
// for 2 s of pauses, the erase and program times of all images and KV_UPGRADE_Reboot. Does nothing
// when the watchdog is already starved for a reboot: a reset would meet the flash half erased.
void KV_UPGRADE_Proc(int signal);

// 1 from the first step of KV_UPGRADE_Proc on, else 0. Does not block.
int KV_UPGRADE_IsUpgrading(void);

// Runs `cmd` through the shell, not echoed, and waits for it. 0 only if it exited with status 0,
// else -1.
int KV_UPGRADE_SystemCmd(const char* cmd);

// Logs the partition table.
void KV_UPGRADE_PartitionInfo(void);

// Kills the applications that must not run while flash is written.
void KV_UPGRADE_KillallApp(void);

// Bytes of a device, or of the whole boot-loader region; kUnknownPartitionSize on failure.
uint32_t KV_UPGRADE_GetPartitionSize(const char* mtd);
uint32_t KV_UPGRADE_GetUbootPartitionSize(void);

// Erases a whole device, or the three boot-loader devices in order up to the first that fails. 0 or
// -1.
int KV_UPGRADE_ErasePartition(const char* mtd);
int KV_UPGRADE_EraseUbootPartition(void);

// Copies an image of `dataLen` bytes from the package's current position into flash, in chunks of
// 64 KiB: the last chunk takes what follows the image in the package along. 0, or -1 when a device
// cannot be opened (boot loader: or queried). Failed writes go unnoticed here.
int KV_UPGRADE_WritePartition(FILE* pkg, uint32_t dataLen, const char* mtd);
int KV_UPGRADE_WriteUbootPartition(FILE* pkg, uint32_t dataLen);

// Runs "reboot -f" and waits up to 10 s for it, then stops feeding the watchdog, so that a reboot
// that failed or hangs still ends in a reset. Returns when nothing feeds it any more.
void KV_UPGRADE_Reboot(void);
