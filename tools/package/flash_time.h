// Predicts how long a device writes a package, and when a power cut does harm.
#pragma once

#include <string>
#include <vector>

#include "tools/package/check.h"

namespace kvtool {

enum class CutRisk {
    kDamage,  // the application may start although a part of it is lost
    kRescue,  // the device does not boot until its boot loader, or a programmer, writes the image
    kDead,    // the boot loader is torn: only a programmer helps
};
const char* CutRiskName(CutRisk risk);

// A time in which the power must hold. From the first erasure of an image's partition until the
// image's last page, the partition holds neither the old image nor the new one. The application's
// window is the erasure of its first block: if the block loses only a part of its bytes, the old
// file system may still mount. Once that block is erased, nothing mounts until the new image is
// complete.
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

// For a chip that erases blocks of 64 KiB in the times of tools/base/nor_times.h. Takes the
// partition sizes from the layout that the report was made with, and assumes that every image
// differs from the one on the device. At any other time a cut does no lasting harm: if the
// application does not mount, the device comes up in recovery mode.
FlashTime PredictFlashTime(const PackageReport& report);

}  // namespace kvtool
