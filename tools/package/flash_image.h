// Calculates what a device's flash contains after a package, and compares dumps with it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/package/check.h"
#include "tools/package/compare.h"

namespace kvtool {

// Dumps of one partition, one for each device that it spans. One dump may contain the boot loader's
// three devices if each device is a multiple of the transfer unit.
struct PartitionDump {
    std::string name;  // of the partition
    std::vector<Bytes> devices;
};

struct DumpVerdict {
    std::string name;
    uint64_t size = 0;    // bytes compared
    uint64_t image = 0;   // how many of them belong to the image
    uint64_t behind = 0;  // bytes of the package written after the image
    ByteDifference difference;
};

// Handles the package as the device's writer does: takes the entries in order until a bad check
// code, skips what is larger than the partition, erases, then writes whole transfer units.
// The dumps give the sizes of the partitions. Throws ToolError: kUsage for a partition that does
// not exist or a wrong number of dumps; kRefused if the device would not write the partition, or if
// one dump does not show how the boot loader's devices were filled.
DumpVerdict VerifyDump(const Bytes& package, const Layout& layout, const PartitionDump& dump);

}  // namespace kvtool
