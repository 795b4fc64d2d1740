#include "tools/package/check.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "common/kv_le.h"
#include "common/kv_platform.h"
#include "flash/kv_upgrade_package.h"

namespace kvtool {

namespace {

class Checker {
  public:
    Checker(const Bytes& package, const Layout& layout, const Identity& device)
        : package_(package), layout_(layout), device_(device) {}

    PackageReport Run() {
        report_.size = package_.size();
        report_.md5 = Md5Hex(package_.data(), package_.size());
        if (CheckHeader()) {
            ReadEntries();
            CheckOverlaps();
            CheckTargets();
        }
        return std::move(report_);
    }

  private:
    void Find(Severity severity, int entry, std::string text) {
        report_.findings.push_back({severity, entry, std::move(text)});
    }
    void Error(const EntryReport& entry, std::string text) {
        Find(Severity::kError, static_cast<int>(entry.index), std::move(text));
    }
    void Warn(const EntryReport& entry, std::string text) {
        Find(Severity::kWarning, static_cast<int>(entry.index), std::move(text));
    }

    bool CheckHeader();
    void CheckText(const char* what, const std::string& found, const std::string& wanted);
    void ReadEntries();
    void CheckEntry(EntryReport* entry);
    void CheckImage(EntryReport* entry, const LayoutRow& target);
    void MeasureBehind(EntryReport* entry, const LayoutRow& target);
    void CheckOverlaps();
    void CheckTargets();

    const Bytes& package_;
    const Layout& layout_;
    const Identity& device_;
    PackageReport report_;
};

bool Checker::CheckHeader() {
    if (package_.size() < kv::kPackageHeaderSize) {
        Find(Severity::kError, -1, "shorter than a package header: the device refuses it");
        return false;
    }
    kv::UpgradeFileHeaderBytes header;
    memcpy(&header, package_.data(), sizeof header);
    report_.headerComplete = true;
    report_.ic = ReadField(header.icType, sizeof header.icType).text;
    report_.sensor = ReadField(header.sensorType, sizeof header.sensorType).text;
    report_.totalLen = kv::GetLe32(header.upgrateDataLen);
    report_.fileNum = kv::GetLe32(header.fileNum);
    CheckText("chip type", report_.ic, device_.ic);
    CheckText("sensor type", report_.sensor, device_.sensor);
    if (report_.totalLen == 0) {
        Find(Severity::kError, -1, "total data length is 0: the device refuses the package");
    } else if (report_.totalLen != report_.size) {
        Find(Severity::kNote, -1,
             "total data length in the header is not the size of the file (the device only tests "
             "that it is not 0)");
    }
    if (report_.fileNum == 0) {
        Find(Severity::kError, -1, "number of entries is 0: the device refuses the package");
    }
    return true;
}

void Checker::CheckText(const char* what, const std::string& found, const std::string& wanted) {
    if (found != wanted) {
        Find(Severity::kError, -1,
             std::string(what) + " is '" + Printable(found) + "', the device's is '" +
                 Printable(wanted) + "': the device refuses the package");
    }
}

void Checker::ReadEntries() {
    bool reached = true;
    for (uint32_t i = 0; i < report_.fileNum; ++i) {
        const uint64_t start = kv::kPackageHeaderSize + uint64_t{i} * kv::kPackageEntrySize;
        const uint64_t held = start < package_.size() ? std::min<uint64_t>(package_.size() - start,
                                                                           kv::kPackageEntrySize)
                                                      : 0;
        if (held < kv::kPackageEntrySize && reached) {
            Find(Severity::kError, static_cast<int>(std::min<uint32_t>(i, 0x7FFFFFFF)),
                 "the table runs past the end of the file");
        }
        if (held == 0) {
            return;
        }
        // The device clears its buffer before it reads, so missing bytes are zero for it too.
        std::array<uint8_t, kv::kPackageEntrySize> raw{};
        memcpy(raw.data(), package_.data() + start, held);
        kv::UpgradeFileEntryBytes bytes;
        memcpy(&bytes, raw.data(), sizeof bytes);

        EntryReport entry;
        entry.index = i;
        const FieldText name = ReadField(bytes.fileName, sizeof bytes.fileName);
        entry.name = name.text;
        entry.dataLen = kv::GetLe32(bytes.dataLen);
        entry.dataOffset = kv::GetLe32(bytes.dataOffset);
        entry.checkCode = kv::GetLe32(bytes.checkCode);
        entry.reached = reached;
        if (reached && !name.terminated) {
            Error(entry, "the name is not terminated within its field");
        }
        CheckEntry(&entry);
        reached = reached && entry.checkCode == kv::kEntryCheckCode;
        report_.entries.push_back(std::move(entry));
    }
}

void Checker::CheckEntry(EntryReport* entry) {
    const uint64_t size = package_.size();
    entry->targets = layout_.Select(entry->name);
    entry->inFile =
        entry->dataOffset < size ? std::min<uint64_t>(entry->dataLen, size - entry->dataOffset) : 0;
    const uint64_t start = std::min<uint64_t>(entry->dataOffset, size);
    entry->md5 = Md5Hex(package_.data() + start, entry->inFile);
    if (!entry->reached) {
        return;
    }
    if (entry->checkCode != kv::kEntryCheckCode) {
        Error(*entry,
              "bad check code: the device stops here and reboots, entries before this one "
              "stay written");
        return;
    }
    if (entry->targets.empty()) {
        Warn(*entry, "the name selects no partition: the device skips the entry silently");
    }
    if (entry->targets.size() > 1) {
        Error(*entry, "the name selects more than one partition: each of them is written");
    }
    for (const LayoutRow& target : entry->targets) {
        CheckImage(entry, target);
    }
}

void Checker::CheckImage(EntryReport* entry, const LayoutRow& target) {
    if (entry->dataLen > target.size) {
        Error(*entry, "larger than the partition " + target.name + " (" + SizeText(target.size) +
                          "): the device passes the entry over");
        return;
    }
    if (entry->dataLen == 0) {
        Error(*entry, target.IsBoot()
                          ? "empty: the device erases the boot loader and writes nothing"
                          : "empty: the device erases the partition and writes whatever "
                            "stands at the offset");
    }
    if (entry->inFile < entry->dataLen) {
        Error(*entry,
              "the image runs past the end of the file: the device erases the partition and "
              "writes only the " +
                  SizeText(entry->inFile) + " that are there");
    }
    MeasureBehind(entry, target);
}

// Only the end of the file stops the boot-loader writer once it has read past the image: it then
// goes on into the next device of the region.
void Checker::MeasureBehind(EntryReport* entry, const LayoutRow& target) {
    const uint64_t end = uint64_t{entry->dataOffset} + entry->dataLen;
    const uint64_t rounded = RoundedLength(entry->dataLen, target.IsBoot());
    const uint64_t inFileBehind = end < package_.size() ? package_.size() - end : 0;
    uint64_t behind = std::min(rounded - entry->dataLen, target.size - entry->dataLen);
    if (target.IsBoot() && behind > 0) {
        behind = target.size - entry->dataLen;
    }
    behind = std::min(behind, inFileBehind);
    const auto first = package_.begin() + static_cast<ptrdiff_t>(end < package_.size() ? end : 0);
    const bool blank = std::all_of(first, first + static_cast<ptrdiff_t>(behind),
                                   [](uint8_t byte) { return byte == 0xFF; });
    entry->behind = std::max(entry->behind, behind);
    entry->behindBlank = entry->behindBlank && blank;
    if (target.IsBoot() && behind > 0) {
        Error(*entry, "the end of the file does not bound the boot loader: up to " +
                          SizeText(behind) + " that follow it are written too");
    } else if (!blank) {
        Warn(*entry, SizeText(behind) +
                         " that follow the image are written behind it, and they "
                         "are not blank (0xFF)");
    }
}

void Checker::CheckOverlaps() {
    const uint64_t tableEnd =
        kv::kPackageHeaderSize + uint64_t{report_.fileNum} * kv::kPackageEntrySize;
    std::vector<const EntryReport*> sorted;
    for (const EntryReport& entry : report_.entries) {
        if (entry.dataLen == 0 || !entry.reached) {
            continue;
        }
        if (entry.dataOffset < tableEnd) {
            Warn(entry, "the image overlaps the header or the table");
        }
        sorted.push_back(&entry);
    }
    std::stable_sort(sorted.begin(), sorted.end(), [](const EntryReport* a, const EntryReport* b) {
        return a->dataOffset < b->dataOffset;
    });
    // Against the one that reaches furthest so far, so that a long image is compared with all that
    // lie inside it.
    const EntryReport* furthest = nullptr;
    uint64_t reach = 0;
    for (const EntryReport* entry : sorted) {
        if (furthest != nullptr && entry->dataOffset < reach) {
            Warn(*entry, "the image overlaps that of entry " + std::to_string(furthest->index));
        }
        const uint64_t end = uint64_t{entry->dataOffset} + entry->dataLen;
        if (end > reach) {
            reach = end;
            furthest = entry;
        }
    }
}

void Checker::CheckTargets() {
    bool any = false;
    for (const LayoutRow& row : layout_.Rows()) {
        const EntryReport* first = nullptr;
        for (const EntryReport& entry : report_.entries) {
            const bool selects =
                entry.reached &&
                std::any_of(entry.targets.begin(), entry.targets.end(),
                            [&row](const LayoutRow& target) { return target.name == row.name; });
            any = any || selects;
            if (selects && first != nullptr) {
                Warn(entry, "partition " + row.name + " is written already by entry " +
                                std::to_string(first->index));
            } else if (selects) {
                first = &entry;
            }
        }
    }
    if (!any && report_.fileNum != 0) {
        Find(Severity::kError, -1, "no entry selects a partition: the device would only reboot");
    }
}

}  // namespace

Identity StandardIdentity() {
    return {kv::kIcType, kv::kSensorType};
}

const char* SeverityName(Severity severity) {
    switch (severity) {
        case Severity::kNote:
            return "note";
        case Severity::kWarning:
            return "warning";
        case Severity::kError:
            break;
    }
    return "error";
}

bool PackageReport::Acceptable() const {
    return std::none_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::kError;
    });
}

uint64_t RoundedLength(uint64_t dataLen, bool boot) {
    const uint64_t unit = kv::kFlashTransferUnit;
    if (dataLen == 0) {
        return boot ? 0 : unit;
    }
    return (dataLen + unit - 1) / unit * unit;
}

PackageReport CheckPackage(const Bytes& package, const Layout& layout, const Identity& device) {
    return Checker(package, layout, device).Run();
}

}  // namespace kvtool
