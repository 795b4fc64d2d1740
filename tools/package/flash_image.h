// What a device's flash holds after a package, byte by byte, and whether dumps of it agree.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/package/check.h"
#include "tools/package/compare.h"

namespace kvtool {

// Dumps of one partition, one for each device that it spans. The boot loader's three may also be
// given as one, provided that each device is a multiple of the transfer unit.
struct PartitionDump {
    std::string name;  // of the partition
    std::vector<Bytes> devices;
};

struct DumpVerdict {
    std::string name;
    uint64_t size = 0;    // bytes compared
    uint64_t image = 0;   // of these, bytes of the image
    uint64_t behind = 0;  // bytes of the package that follow the image and are written too
    ByteDifference difference;
};

// Does with the package what the device's writer does: takes the entries in order until a bad check
// code, passes over what is larger than the partition, erases, then writes whole transfer units.
// The sizes of partitions are those of the dumps. Throws ToolError: kUsage for a partition that
// does not exist or the wrong number of dumps; kRefused where the device would not write the
// partition, or one dump cannot tell how the boot loader's devices were filled.
DumpVerdict VerifyDump(const Bytes& package, const Layout& layout, const PartitionDump& dump);

}  // namespace kvtool
