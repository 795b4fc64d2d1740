#include "tools/package/flash_time.h"

#include <chrono>
#include <optional>

#include "flash/kv_upgrade_package.h"
#include "tools/base/nor_times.h"

namespace kvtool {

namespace {

using Seconds = std::chrono::duration<double>;

uint64_t Units(uint64_t bytes, uint64_t unit) {
    return (bytes + unit - 1) / unit;
}

double EraseSeconds(uint64_t bytes) {
    const kv::NorEraseTime& block = kv::kNorLargestErase;
    return Seconds(block.typical).count() * static_cast<double>(Units(bytes, block.bytes));
}

double ProgramSeconds(uint64_t bytes) {
    return Seconds(kv::kNorPageProgram).count() *
           static_cast<double>(Units(bytes, kv::kNorPageBytes));
}

std::optional<CutRisk> RiskOf(const LayoutRow& row) {
    if (row.IsBoot()) {
        return CutRisk::kDead;
    }
    if (row.name == "kernel" || row.name == "rootfs") {
        return CutRisk::kRescue;
    }
    return row.name == "app" ? std::make_optional(CutRisk::kDamage) : std::nullopt;
}

void AddImage(const EntryReport& entry, const LayoutRow& row, FlashTime* time) {
    const double erased = EraseSeconds(row.size);
    const std::optional<CutRisk> risk = RiskOf(row);
    if (risk) {
        const double seconds =
            *risk == CutRisk::kDamage ? EraseSeconds(1) : erased + ProgramSeconds(entry.inFile);
        time->windows.push_back({*risk, row.name, time->seconds, seconds});
    }
    time->seconds += erased + ProgramSeconds(entry.inFile + entry.behind);
}

const char* Consequence(CutRisk risk) {
    switch (risk) {
        case CutRisk::kDead:
            return "a cut kills the device";
        case CutRisk::kRescue:
            return "a cut needs a rescue";
        case CutRisk::kDamage:
            break;
    }
    return "after a cut the application may start damaged";
}

}  // namespace

const char* CutRiskName(CutRisk risk) {
    switch (risk) {
        case CutRisk::kDead:
            return "dead";
        case CutRisk::kRescue:
            return "rescue";
        case CutRisk::kDamage:
            break;
    }
    return "damage";
}

std::string PowerWindowText(const PowerWindow& window) {
    return "must hold for " + SecondsText(window.seconds) + ", from " + SecondsText(window.from) +
           " on: " + Consequence(window.risk);
}

FlashTime PredictFlashTime(const PackageReport& report) {
    FlashTime time;
    if (report.totalLen == 0) {
        return time;  // the device refuses the package before it erases anything
    }
    for (const EntryReport& entry : report.entries) {
        if (entry.checkCode != kv::kEntryCheckCode) {
            break;
        }
        for (const LayoutRow& row : entry.targets) {
            if (entry.dataLen > row.size) {
                break;
            }
            AddImage(entry, row, &time);
        }
    }
    return time;
}

}  // namespace kvtool
