// Device access of the flash writer: size, erase and write, for a plain partition and for the
// boot-loader region. The two differ in their log texts and in the number of devices.
#define KV_TRACE_NAME "kv_fullhan_flash"
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "flash/kv_fullhan_flash.h"

namespace {

enum class Region { kPlain, kBoot };

void TraceOpenFailed(Region region, const char* function, const char* mtd) {
    if (region == Region::kBoot) {
        KV_ERROR_IN(function, "%s open partiton fail!!!", mtd);
    } else {
        KV_ERROR_IN(function, "open partiton:%s fail!!!", mtd);
    }
}

UniqueFd OpenDevice(Region region, const char* function, const char* mtd) {
    UniqueFd fd(open(mtd, O_RDWR | O_CLOEXEC));
    if (!fd) {
        TraceOpenFailed(region, function, mtd);
    }
    return fd;
}

bool QueryDevice(Region region, const char* function, const char* mtd, int fd,
                 struct mtd_info_user* info) {
    if (ioctl(fd, MEMGETINFO, info) == 0) {
        return true;
    }
    if (region == Region::kBoot) {
        KV_ERROR_IN(function, "%s ioctl memgetinfo fail!!!", mtd);
    } else {
        KV_ERROR_IN(function, "ioctl memgetinfo fail!!!");
    }
    return false;
}

bool DeviceSize(Region region, const char* function, const char* mtd, uint32_t* size) {
    const UniqueFd fd = OpenDevice(region, function, mtd);
    struct mtd_info_user info = {};
    if (!fd || !QueryDevice(region, function, mtd, fd.Get(), &info)) {
        return false;
    }
    *size = info.size;
    return true;
}

float Percent(uint32_t part, uint32_t whole) {
    return static_cast<float>(part) * 100.0F / static_cast<float>(whole);
}

int EraseDevice(Region region, const char* function, const char* mtd) {
    KV_INFO_IN(function, "erase mtd: %s%s", mtd, region == Region::kBoot ? " " : "");
    const UniqueFd fd = OpenDevice(region, function, mtd);
    struct mtd_info_user info = {};
    if (!fd || !QueryDevice(region, function, mtd, fd.Get(), &info)) {
        return -1;
    }
    struct erase_info_user block = {0, info.erasesize};
    while (block.start < info.size) {
        // A driver accepts an erase of zero bytes, so a block size of 0 would loop for ever.
        if (block.length == 0 || ioctl(fd.Get(), MEMERASE, &block) != 0) {
            KV_ERROR_IN(function, "ioctl MEMERASE fail!!!");
            return -1;
        }
        block.start += block.length;
        KV_INFO_IN(function, "Erase 64 Kibyte @ %x -- %.0f %% complete", block.start,
                   static_cast<double>(Percent(block.start, info.size)));
    }
    KV_INFO_IN(function, "%s", "");
    return 0;
}

// Writes chunks from the package's position until `wanted` bytes are written, the device of `size`
// bytes is full, or the package ends. Returns the end offset. Kept: every read asks for a whole
// chunk. The bytes that follow an image in the package are therefore written after it; packages are
// laid out for that. A failed write adds its result, -1, to the offset.
uint32_t WriteChunks(FILE* pkg, int fd, uint32_t wanted, uint32_t size, const char* function) {
    uint8_t buffer[kv::kFlashTransferUnit];
    uint32_t offset = 0;
    do {
        memset(buffer, 0, sizeof(buffer));
        const size_t got = fread(buffer, 1, sizeof(buffer), pkg);
        if (got == 0) {
            break;
        }
        (void)lseek(fd, static_cast<off_t>(offset), SEEK_SET);
        offset += static_cast<uint32_t>(write(fd, buffer, got));
        // Compared in this order, NaN also gives 100.
        const float done = Percent(offset, wanted);
        KV_INFO_IN(function, "Write 64 Kibyte @ %x -- %.0f %% complete", offset,
                   static_cast<double>(done < 100.0F ? done : 100.0F));
    } while (offset < wanted && offset < size);
    return offset;
}

}  // namespace

uint32_t KV_UPGRADE_GetPartitionSize(const char* mtd) {
    uint32_t size = 0;
    return DeviceSize(Region::kPlain, __func__, mtd, &size) ? size : kUnknownPartitionSize;
}

uint32_t KV_UPGRADE_GetUbootPartitionSize(void) {
    uint32_t total = 0;
    for (const auto& device : kv::kBootDevices) {
        uint32_t size = 0;
        if (!DeviceSize(Region::kBoot, __func__, device, &size)) {
            return kUnknownPartitionSize;
        }
        total += size;
    }
    return total;
}

int KV_UPGRADE_ErasePartition(const char* mtd) {
    return EraseDevice(Region::kPlain, __func__, mtd);
}

int KV_UPGRADE_EraseUbootPartition(void) {
    for (const auto& device : kv::kBootDevices) {
        if (EraseDevice(Region::kBoot, __func__, device) != 0) {
            return -1;
        }
    }
    return 0;
}

int KV_UPGRADE_WritePartition(FILE* pkg, uint32_t dataLen, const char* mtd) {
    KV_INFO("write mtd: %s", mtd);
    const UniqueFd fd(open(mtd, O_RDWR | O_CLOEXEC));
    if (!fd) {
        KV_ERROR("open mtd error ");
        return -1;
    }
    (void)WriteChunks(pkg, fd.Get(), dataLen, UINT32_MAX, __func__);
    return 0;
}

int KV_UPGRADE_WriteUbootPartition(FILE* pkg, uint32_t dataLen) {
    uint32_t remaining = dataLen;
    for (const auto& device : kv::kBootDevices) {
        KV_INFO("write mtd: %s ", device);
        const UniqueFd fd = OpenDevice(Region::kBoot, __func__, device);
        struct mtd_info_user info = {};
        if (!fd || !QueryDevice(Region::kBoot, __func__, device, fd.Get(), &info)) {
            return -1;
        }
        if (remaining == 0 || info.size == 0) {
            continue;
        }
        // Kept: a last chunk that overshoots leaves a huge remainder, and the next device gets the
        // bytes that follow in the package. Packages place the boot loader last, so the end of the
        // file limits this.
        remaining -= WriteChunks(pkg, fd.Get(), remaining, info.size, __func__);
    }
    return 0;
}
