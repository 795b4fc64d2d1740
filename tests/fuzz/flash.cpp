// The flash writer, compared with what kvtool predicts: writes a package to devices with the rules
// of NOR flash, then compares each partition with kvtool's expectation.
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>

#include "flash/kv_fullhan_flash.h"
#include "flash/kv_fullhan_watdog.h"
#include "tests/fuzz/package_input.h"
#include "tests/fuzz/tool.h"
#include "tools/package/flash_image.h"

using namespace fuzz;

namespace {

constexpr uint32_t kEraseSize = 0x2000;
constexpr size_t kSizes[] = {0, kEraseSize, 0x6000, 0x10000, 0x18000, 0x22000};
const kvtool::Bytes kOld(0x22000, 0xA5);
const kvtool::Bytes kErased(0x22000, 0xFF);

std::array<kvtool::Bytes, 8> g_devices;
size_t g_position;

// kvtool may refuse to predict only a partition that was not written.
void RequirePredicted(const std::string& package) {
    const kvtool::Bytes bytes(package.begin(), package.end());
    const kvtool::Layout layout = kvtool::Layout::Default();
    for (const kvtool::LayoutRow& row : layout.Rows()) {
        const auto first = g_devices.begin() + (row.device.back() - '0');
        const kvtool::PartitionDump dump{row.name, {first, first + (row.IsBoot() ? 3 : 1)}};
        const bool untouched =
            std::all_of(dump.devices.begin(), dump.devices.end(), [](const kvtool::Bytes& device) {
                return std::equal(device.begin(), device.end(), kOld.begin());
            });
        // The comparison takes long, so it is left out where no entry can select the partition.
        if (untouched && package.find(row.name) == package.npos) {
            continue;
        }
        const bool written =
            Try([&] { Require(kvtool::VerifyDump(bytes, layout, dump).difference.count == 0); });
        Require(written || untouched);
    }
}

int Control(kvtool::Bytes* device, unsigned long request, void* argument) {
    if (request == MEMGETINFO) {
        static_cast<mtd_info_user*>(argument)->size = static_cast<uint32_t>(device->size());
        static_cast<mtd_info_user*>(argument)->erasesize = kEraseSize;
        return 0;
    }
    const auto* block = static_cast<const erase_info_user*>(argument);
    Require(request == MEMERASE && block->start % kEraseSize == 0 && block->length == kEraseSize);
    Require(block->start < device->size());
    memset(device->data() + block->start, 0xFF, kEraseSize);
    return 0;
}

// Programming needs erased flash, and stops at the end of the device.
ssize_t Program(kvtool::Bytes* device, const uint8_t* bytes, size_t size) {
    if (Refuses(64) || g_position >= device->size()) {
        return -1;
    }
    size = std::min(size, device->size() - g_position);
    uint8_t* const to = device->data() + g_position;
    Require(g_world.refusals > 0 || memcmp(to, kErased.data(), size) == 0);
    memcpy(to, bytes, size);
    return static_cast<ssize_t>(size);
}

}  // namespace

int KV_FH_WDT_IsStarving() {
    return Refuses(64) ? 1 : 0;
}
int KV_FH_WDT_Reboot() {
    return 0;
}

extern "C" {
int __real_open64(const char* path, int flags, int mode);
int __wrap_open64(const char* path, int flags, int mode) {
    if (!IsInside() || strncmp(path, "/dev/mtd", 8) != 0) {
        return __real_open64(path, flags, mode);
    }
    kvtool::Bytes* const device = &g_devices.at(static_cast<size_t>(path[8] - '0'));
    g_world.control = [device](unsigned long request, void* argument) {
        return Control(device, request, argument);
    };
    return Refuses(64) ? -1 : kFd + (path[8] - '0');
}
off64_t __real_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
    g_position = static_cast<size_t>(offset);
    return fd < kFd ? __real_lseek64(fd, offset, whence) : offset;
}
ssize_t __real_write(int fd, const void* bytes, size_t size);
ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    return fd < kFd ? __real_write(fd, bytes, size)
                    : Program(&g_devices.at(static_cast<size_t>(fd - kFd)),
                              static_cast<const uint8_t*>(bytes), size);
}
// No digest matters here, and kvtool would compute one for each partition.
void __wrap_MD5Update(void*, const uint8_t*, size_t) {}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    for (kvtool::Bytes& device : g_devices) {
        device.assign(kOld.begin(),
                      kOld.begin() + static_cast<ptrdiff_t>(kSizes[scope.in.Below(6)]));
    }
    // Bytes that differ everywhere, so that a misplaced one is seen.
    static const std::string images = kv_test::Noise(size_t{256} << 10, 1);
    const std::string package = MakePackage(&scope.in, images);
    Put(kv::kPackagePath, package);
    KV_UPGRADE_Proc(0);
    Require(KV_UPGRADE_IsUpgrading() == 1 || g_world.refusals > 0);
    Require(KV_UPGRADE_SystemCmd(nullptr) == -1);
    if (g_world.refusals == 0 && package.size() >= 24) {
        RequirePredicted(package);
    }
    return 0;
}
