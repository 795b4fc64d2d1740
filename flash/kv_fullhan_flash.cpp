#define KV_TRACE_NAME "kv_fullhan_flash"
#include "flash/kv_fullhan_flash.h"

#include <sys/wait.h>

#include <atomic>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_shell.h"
#include "common/kv_text.h"
#include "common/kv_time.h"
#include "flash/kv_fullhan_watdog.h"
#include "flash/kv_upgrade_package.h"

namespace {

// Function name in the log for the procedure and its helpers.
constexpr char kProc[] = "KV_UPGRADE_Proc";

// Longest wait for the reboot command before the watchdog is starved.
constexpr int kRebootMs = 10000;

std::atomic<uint8_t> g_upgrading = {0};

// KV_UPGRADE_SystemCmd with a limited wait; negative means no limit.
int Execute(const char* cmd, int timeoutMs) {
    int status = 0;
    const int result = KV_ShellRunFor(cmd, timeoutMs, &status);
    if (result == 1) {
        KV_ERROR_IN(kProc, "vfork process failed!!!");
    }
    return result == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

bool IsBootRow(const kv::PartitionRow& row) {
    return strcmp(row.device, kv::kBootDevices[0]) == 0;
}

// Checks the size, erases and writes one image. Returns false if no further row may be tried for
// this entry.
bool WriteImage(FILE* package, const UpgradeFileEntry& entry, const kv::PartitionRow& row) {
    const bool boot = IsBootRow(row);
    KV_INFO_IN(kProc, "upgrate mtd: %s, name: %s, start...", row.device, row.name);
    const uint32_t size =
        boot ? KV_UPGRADE_GetUbootPartitionSize() : KV_UPGRADE_GetPartitionSize(row.device);
    if (entry.dataLen > size) {
        KV_ERROR_IN(kProc, "update file is too big, %s failed!!", row.device);
        return false;
    }
    const int erased =
        boot ? KV_UPGRADE_EraseUbootPartition() : KV_UPGRADE_ErasePartition(row.device);
    if (erased != 0) {
        KV_ERROR_IN(kProc, "erase %s failed!!", row.device);
        return false;
    }
    (void)fseeko(package, static_cast<off_t>(entry.dataOffset), SEEK_SET);
    const int written = boot ? KV_UPGRADE_WriteUbootPartition(package, entry.dataLen)
                             : KV_UPGRADE_WritePartition(package, entry.dataLen, row.device);
    if (written != 0) {
        KV_ERROR_IN(kProc, "write data to %s failed!!!", row.device);
        return false;
    }
    KV_INFO_IN(kProc, "upgrate mtd: %s, name: %s, end...", row.device, row.name);
    return true;
}

void WriteEntry(FILE* package, const UpgradeFileEntry& entry) {
    for (const auto& row : kv::kPartitions) {
        if (KV_PACKAGE_NameSelects(entry.fileName, row.name) && !WriteImage(package, entry, row)) {
            return;
        }
    }
}

void WriteEntries(FILE* package, uint32_t fileNum) {
    for (uint32_t i = 0; i < fileNum; ++i) {
        UpgradeFileEntry entry;
        KV_PACKAGE_ReadEntry(package, i, &entry);
        KV_INFO_IN(kProc, "fileNum: %d, fileName: %s, dataLen: %d", static_cast<int>(i),
                   kv::LogText(entry.fileName).Get(), static_cast<int>(entry.dataLen));
        if (entry.checkCode != kv::kEntryCheckCode) {
            KV_ERROR_IN(kProc, "check code verify failed!!!, %d",
                        static_cast<int>(entry.checkCode));
            return;
        }
        WriteEntry(package, entry);
    }
}

void WritePackage() {
    const UniqueFile package(kv::kOpenPackage(kv::kPackagePath, "rbe"));
    if (!package) {
        KV_ERROR_IN(kProc, "open %s error", kv::kPackagePath);
        return;
    }
    UpgradeFileHeader header;
    const size_t got = KV_PACKAGE_ReadHeader(package.Get(), &header);
    if (got != kv::kPackageHeaderSize) {
        KV_ERROR_IN(kProc, "read upgrate header error return is %d", static_cast<int>(got));
        return;
    }
    KV_INFO_IN(kProc, "ic is %s", kv::LogText(header.icType).Get());
    KV_INFO_IN(kProc, "sensorType is %s", kv::LogText(header.sensorType).Get());
    KV_INFO_IN(kProc, "file total len is %d", static_cast<int>(header.upgrateDataLen));
    KV_INFO_IN(kProc, "update file number : %d", static_cast<int>(header.fileNum));
    WriteEntries(package.Get(), header.fileNum);
}

}  // namespace

void KV_UPGRADE_Proc(int signal) {
    (void)signal;
    // A starved watchdog resets the device within 30 s. Nothing may be erased before that.
    if (KV_FH_WDT_IsStarving() != 0) {
        return;
    }
    g_upgrading.store(1);
    KV_UPGRADE_PartitionInfo();
    kv::SleepMilliseconds(1000);
    KV_UPGRADE_KillallApp();
    (void)KV_UPGRADE_SystemCmd("sync");
    (void)KV_UPGRADE_SystemCmd("echo 1 > /proc/sys/vm/drop_caches");
    kv::SleepMilliseconds(1000);
    // The monitor may have started its reboot at the same moment as this procedure.
    if (KV_FH_WDT_IsStarving() == 0) {
        WritePackage();
    }
    KV_UPGRADE_Reboot();
}

int KV_UPGRADE_IsUpgrading(void) {
    return g_upgrading.load();
}

int KV_UPGRADE_SystemCmd(const char* cmd) {
    if (cmd == nullptr) {
        KV_ERROR_IN(kProc, "the cmd is NULL!!!");
        return -1;
    }
    return Execute(cmd, -1);
}

void KV_UPGRADE_PartitionInfo(void) {
    KV_INFO_IN(kProc, "Scalable partition:");
    for (const auto& row : kv::kPartitions) {
        KV_INFO_IN(kProc, "name: %6s, mtd: %s", row.name, row.device);
    }
}

void KV_UPGRADE_KillallApp(void) {
    for (const auto& name : kv::kKillList) {
        char command[128];
        (void)snprintf(command, sizeof(command), "killall -9 %s", name);
        KV_DEBUG_IN(kProc, "cmd:%s", command);
        (void)KV_UPGRADE_SystemCmd(command);
    }
}

void KV_UPGRADE_Reboot(void) {
    // A reboot that hangs is left running: it may finish before the watchdog resets the device.
    if (Execute("reboot -f", kRebootMs) != 0) {
        KV_ERROR("do reboot failed!!!");
    }
    (void)KV_FH_WDT_Reboot();
}
