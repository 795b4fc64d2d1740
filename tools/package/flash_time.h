// Foresees how long a device writes a package, and when a power cut does harm.
#pragma once

#include <string>
#include <vector>

#include "tools/package/check.h"

namespace kvtool {

enum class CutRisk {
    kRescue,  // the device does not boot until its boot loader, or a programmer, writes the image
    kDead,    // the boot loader is torn: only a programmer helps
};
const char* CutRiskName(CutRisk risk);

// A time in which the power must hold. From the first erasure of an image's partition until the
// image's last page, the partition holds neither the old image nor the new one.
struct PowerWindow {
    CutRisk risk;
    std::string partition;
    double from;  // seconds, counted from the package's first erasure
    double seconds;
};

// "must hold for 3.1 s, from 52.0 s on: a cut kills the device"
std::string PowerWindowText(const PowerWindow& window);

struct FlashTime {
    double seconds = 0;  // from the first erasure to the last page; 0: nothing is written
    std::vector<PowerWindow> windows;  // in the order of time
};

// For a chip with the times in tools/base/nor_times.h that erases blocks of 64 KiB. It takes the
// partition sizes from the layout that the report was made with, and supposes that every image
// differs from the one on the device. Partitions without a window do no harm to the boot: if the
// application is torn, the device comes up in recovery mode.
FlashTime ForeseeFlashTime(const PackageReport& report);

}  // namespace kvtool
