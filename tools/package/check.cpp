#include "tools/package/check.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <map>

#include "common/kv_le.h"
#include "common/kv_platform.h"
#include "flash/kv_upgrade_package.h"

namespace kvtool {

namespace {

// Tells whether a range of the package is all 0xFF, without reading all of it again for each of
// many entries.
class BlankMap {
  public:
    explicit BlankMap(const Bytes& bytes) : bytes_(bytes) {
        const size_t blocks = bytes.size() / kBlock;
        nextWritten_.resize(blocks + 1, blocks);
        for (size_t i = blocks; i > 0; --i) {
            nextWritten_[i - 1] = Scan((i - 1) * kBlock, i * kBlock) ? nextWritten_[i] : i - 1;
        }
    }

    // The range must lie inside the package.
    bool IsBlank(uint64_t first, uint64_t end) const {
        const uint64_t firstBlock = (first + kBlock - 1) / kBlock;
        const uint64_t endBlock = end / kBlock;
        if (firstBlock >= endBlock) {
            return Scan(first, end);
        }
        return nextWritten_[firstBlock] >= endBlock && Scan(first, firstBlock * kBlock) &&
               Scan(endBlock * kBlock, end);
    }

  private:
    static constexpr uint64_t kBlock = 4096;

    bool Scan(uint64_t first, uint64_t end) const {
        return std::all_of(bytes_.begin() + static_cast<ptrdiff_t>(first),
                           bytes_.begin() + static_cast<ptrdiff_t>(end),
                           [](uint8_t byte) { return byte == 0xFF; });
    }

    const Bytes& bytes_;
    std::vector<uint64_t> nextWritten_;  // for each whole block: the next that is not blank
};

class Checker {
  public:
    Checker(const Bytes& package, const Layout& layout, const Identity& device)
        : package_(package),
          layout_(layout),
          device_(device),
          blank_(package),
          hashLeft_(kHashTimes * uint64_t{package.size()}) {}

    PackageReport Run() {
        report_.size = package_.size();
        report_.md5 = Md5Hex(package_.data(), package_.size());
        report_.signature = FindEmbeddedSignature(package_);
        if (CheckHeader()) {
            ReadEntries();
            CheckOverlaps();
            CheckTargets();
            CheckUnclaimed();
        }
        return std::move(report_);
    }

  private:
    void Find(Severity severity, const char* kind, int entry, std::string text) {
        report_.findings.push_back({severity, kind, entry, std::move(text)});
    }
    void Error(const EntryReport& entry, const char* kind, std::string text) {
        Find(Severity::kError, kind, static_cast<int>(entry.index), std::move(text));
    }
    void Warn(const EntryReport& entry, const char* kind, std::string text) {
        Find(Severity::kWarning, kind, static_cast<int>(entry.index), std::move(text));
    }

    bool CheckHeader();
    void CheckText(const char* kind, const char* what, const std::string& found,
                   const std::optional<std::string>& wanted);
    void ReadEntries();
    void CheckEntry(EntryReport* entry);
    void CheckSignatureEntry(const EntryReport& entry);
    void CheckImage(EntryReport* entry, const LayoutRow& target);
    void MeasureBehind(EntryReport* entry, const LayoutRow& target);
    void CheckOverlaps();
    void CheckTargets();
    void CheckUnclaimed();
    std::string Digest(uint64_t start, uint64_t size);

    // Images that do not overlap need one pass over the file.
    static constexpr uint64_t kHashTimes = 4;

    const Bytes& package_;
    const Layout& layout_;
    const Identity& device_;
    BlankMap blank_;
    uint64_t hashLeft_;  // bytes that may still be hashed
    std::map<std::pair<uint64_t, uint64_t>, std::string> digests_;
    PackageReport report_;
};

bool Checker::CheckHeader() {
    if (package_.size() < kv::kPackageHeaderSize) {
        Find(Severity::kError, "short_file", -1,
             "shorter than a package header: the device refuses it");
        return false;
    }
    kv::UpgradeFileHeaderBytes header;
    memcpy(&header, package_.data(), sizeof header);
    report_.headerComplete = true;
    report_.ic = ReadField(header.icType, sizeof header.icType).text;
    report_.sensor = ReadField(header.sensorType, sizeof header.sensorType).text;
    report_.totalLen = kv::GetLe32(header.upgrateDataLen);
    report_.fileNum = kv::GetLe32(header.fileNum);
    CheckText("chip_type", "chip type", report_.ic, device_.ic);
    CheckText("sensor_type", "sensor type", report_.sensor, device_.sensor);
    if (report_.totalLen == 0) {
        Find(Severity::kError, "total_length_zero", -1,
             "total data length is 0: the device refuses the package");
    } else if (report_.totalLen != report_.size) {
        Find(Severity::kNote, "total_length", -1,
             "total data length in the header is not the size of the file (the device only tests "
             "that it is not 0)");
    }
    if (report_.fileNum == 0) {
        Find(Severity::kError, "no_entries", -1,
             "number of entries is 0: the device refuses the package");
    }
    return true;
}

void Checker::CheckText(const char* kind, const char* what, const std::string& found,
                        const std::optional<std::string>& wanted) {
    if (wanted && found != *wanted) {
        Find(Severity::kError, kind, -1,
             std::string(what) + " is '" + Printable(found) + "', the device's is '" +
                 Printable(*wanted) + "': the device refuses the package");
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
            Find(Severity::kError, "table_cut", static_cast<int>(std::min<uint32_t>(i, 0x7FFFFFFF)),
                 "the table extends past the end of the file");
        }
        if (held == 0) {
            return;
        }
        // The device clears its buffer before reading, so missing bytes are zero there too.
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
            Error(entry, "name_unterminated", "the name is not terminated within its field");
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
    entry->md5 = Digest(start, entry->inFile);
    if (!entry->reached) {
        return;
    }
    if (entry->checkCode != kv::kEntryCheckCode) {
        Error(*entry, "check_code",
              "bad check code: the device stops here and reboots; earlier entries stay written");
        return;
    }
    if (entry->name == kv::kSignatureName) {
        CheckSignatureEntry(*entry);
    } else if (entry->targets.empty()) {
        Warn(*entry, "no_partition",
             "the name selects no partition: the device skips the entry silently");
    }
    if (entry->targets.size() > 1) {
        Error(*entry, "several_partitions",
              "the name selects more than one partition: the device writes each of them");
    }
    for (const LayoutRow& target : entry->targets) {
        CheckImage(entry, target);
    }
}

void Checker::CheckSignatureEntry(const EntryReport& entry) {
    if (entry.index != 0 || !report_.signature) {
        Warn(entry, "no_signature",
             "not a signature as a device looks for it: first in the table, its image directly "
             "after the table");
    }
}

void Checker::CheckImage(EntryReport* entry, const LayoutRow& target) {
    if (entry->dataLen > target.size) {
        Error(*entry, "too_large",
              "larger than the partition " + target.name + " (" + SizeText(target.size) +
                  "): the device skips the entry");
        return;
    }
    if (entry->dataLen == 0) {
        Error(*entry, "empty",
              target.IsBoot() ? "empty: the device erases the boot loader and writes nothing"
                              : "empty: the device erases the partition and writes whatever "
                                "is at the offset");
    }
    if (entry->inFile < entry->dataLen) {
        Error(*entry, "image_cut",
              "the image extends past the end of the file: the device erases the partition and "
              "writes only the " +
                  SizeText(entry->inFile) + " that exist");
    }
    MeasureBehind(entry, target);
}

// Once the boot-loader writer has read past the image, only the end of the file stops it: it
// continues on the next device of the region.
void Checker::MeasureBehind(EntryReport* entry, const LayoutRow& target) {
    const uint64_t end = uint64_t{entry->dataOffset} + entry->dataLen;
    const uint64_t rounded = RoundedLength(entry->dataLen, target.IsBoot());
    const uint64_t inFileBehind = end < package_.size() ? package_.size() - end : 0;
    uint64_t behind = std::min(rounded - entry->dataLen, target.size - entry->dataLen);
    if (target.IsBoot() && behind > 0) {
        behind = target.size - entry->dataLen;
    }
    behind = std::min(behind, inFileBehind);
    const bool blank = behind == 0 || blank_.IsBlank(end, end + behind);
    entry->behind = std::max(entry->behind, behind);
    entry->behindBlank = entry->behindBlank && blank;
    if (target.IsBoot() && behind > 0) {
        Error(*entry, "boot_unbounded",
              "the end of the file does not bound the boot loader: up to " + SizeText(behind) +
                  " after it are written too");
    } else if (!blank) {
        Warn(*entry, "behind_not_blank",
             SizeText(behind) +
                 " after the image in the package are written after it, and they "
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
            Warn(entry, "overlaps_table", "the image overlaps the header or the table");
        }
        sorted.push_back(&entry);
    }
    std::stable_sort(sorted.begin(), sorted.end(), [](const EntryReport* a, const EntryReport* b) {
        return a->dataOffset < b->dataOffset;
    });
    // Compare each image with the one that extends furthest so far. So a long image is compared
    // with all images inside it.
    const EntryReport* furthest = nullptr;
    uint64_t reach = 0;
    for (const EntryReport* entry : sorted) {
        if (furthest != nullptr && entry->dataOffset < reach) {
            Warn(*entry, "overlaps_image",
                 "the image overlaps that of entry " + std::to_string(furthest->index));
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
                Warn(entry, "written_twice",
                     "partition " + row.name + " is already written by entry " +
                         std::to_string(first->index));
            } else if (selects) {
                first = &entry;
            }
        }
    }
    if (!any && report_.fileNum != 0) {
        Find(Severity::kError, "nothing_written", -1,
             "no entry selects a partition: the device would only reboot");
    }
}

// Blank padding up to the transfer unit counts as part of the image.
void Checker::CheckUnclaimed() {
    const uint64_t tableEnd =
        kv::kPackageHeaderSize + uint64_t{report_.fileNum} * kv::kPackageEntrySize;
    std::vector<std::pair<uint64_t, uint64_t>> claimed;  // first byte and end
    for (const EntryReport& entry : report_.entries) {
        uint64_t end = uint64_t{entry.dataOffset} + entry.dataLen + entry.behind;
        const uint64_t padded =
            std::min(entry.dataOffset + RoundedLength(entry.dataLen, true), report_.size);
        if (end < padded && blank_.IsBlank(end, padded)) {
            end = padded;
        }
        claimed.emplace_back(entry.dataOffset, end);
    }
    claimed.emplace_back(report_.size, report_.size);
    std::sort(claimed.begin(), claimed.end());
    uint64_t reach = tableEnd;
    for (const auto& [first, end] : claimed) {
        const uint64_t gapEnd = std::min(first, report_.size);
        if (gapEnd > reach) {
            Find(Severity::kWarning, "unclaimed_bytes", -1,
                 SizeText(gapEnd - reach) + " at offset " + std::to_string(reach) +
                     " belong to no image" + (blank_.IsBlank(reach, gapEnd) ? ", all 0xFF" : ""));
        }
        reach = std::max(reach, end);
    }
}

// Entries that share an image share its digest. Many long overlapping images would take far too
// much time, so after a limit entries have no digest.
std::string Checker::Digest(uint64_t start, uint64_t size) {
    const auto [digest, fresh] = digests_.try_emplace({start, size});
    if (fresh && size <= hashLeft_) {
        hashLeft_ -= size;
        digest->second = Md5Hex(package_.data() + start, size);
    }
    return digest->second;
}

}  // namespace

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
