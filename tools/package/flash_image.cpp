#include "tools/package/flash_image.h"

#include <algorithm>
#include <iterator>

#include "common/kv_platform.h"
#include "flash/kv_upgrade_package.h"
#include "tools/base/errors.h"

namespace kvtool {

namespace {

constexpr uint64_t kUnit = kv::kFlashTransferUnit;

// Reads the package as the writer does.
struct Reader {
    const Bytes& package;
    uint64_t position;

    uint64_t Take() {
        const uint64_t size =
            position < package.size() ? std::min<uint64_t>(kUnit, package.size() - position) : 0;
        position += size;
        return size;
    }
};

// Fills one erased device until `wanted` bytes are written, the device is full or the package ends.
// Bytes of a unit beyond the end of the device are lost. Returns the number of bytes written.
uint64_t WriteDevice(Reader* reader, uint64_t wanted, Bytes* flash) {
    uint64_t offset = 0;
    do {
        const uint64_t start = reader->position;
        const uint64_t size = std::min(reader->Take(), flash->size() - offset);
        if (size == 0) {
            break;
        }
        std::copy_n(reader->package.begin() + static_cast<ptrdiff_t>(start), size,
                    flash->begin() + static_cast<ptrdiff_t>(offset));
        offset += size;
    } while (offset < wanted && offset < flash->size());
    return offset;
}

// Returns the number of bytes written to all devices together.
uint64_t WriteEntry(const Bytes& package, const EntryReport& entry, bool boot,
                    std::vector<Bytes>* flash) {
    Reader reader{package, entry.dataOffset};
    if (!boot) {
        return WriteDevice(&reader, entry.dataLen, &flash->front());
    }
    uint64_t written = 0;
    // If the image does not end the package, the remainder wraps below zero and counts as huge.
    auto remaining = entry.dataLen;
    for (Bytes& device : *flash) {
        if (remaining != 0 && !device.empty()) {
            const uint64_t size = WriteDevice(&reader, remaining, &device);
            remaining -= static_cast<uint32_t>(size);
            written += size;
        }
    }
    if (remaining != 0 && flash->size() == 1) {
        throw ToolError(ExitCode::kRefused,
                        "the device fills the boot loader's devices beyond the image; give a "
                        "dump of each device");
    }
    return written;
}

std::vector<Bytes> Erased(const PartitionDump& dump) {
    std::vector<Bytes> flash;
    for (const Bytes& device : dump.devices) {
        flash.emplace_back(device.size(), 0xFF);
    }
    return flash;
}

Bytes Joined(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

LayoutRow FindRow(const Layout& layout, const PartitionDump& dump) {
    const auto row =
        std::find_if(layout.Rows().begin(), layout.Rows().end(),
                     [&dump](const LayoutRow& other) { return other.name == dump.name; });
    if (row == layout.Rows().end()) {
        throw ToolError(ExitCode::kUsage, "no partition is called '" + Printable(dump.name) + "'");
    }
    const size_t devices = dump.devices.size();
    if (devices != 1 && !(row->IsBoot() && devices == std::size(kv::kBootDevices))) {
        throw ToolError(ExitCode::kUsage, dump.name + ": " + std::to_string(devices) +
                                              " dumps given; give one" +
                                              (row->IsBoot() ? ", or one for each device" : ""));
    }
    return *row;
}

}  // namespace

DumpVerdict VerifyDump(const Bytes& package, const Layout& layout, const PartitionDump& dump) {
    const LayoutRow row = FindRow(layout, dump);
    const Bytes found = Joined(dump.devices);
    const PackageReport report = CheckPackage(package, layout, {});
    std::optional<std::vector<Bytes>> flash;
    DumpVerdict verdict{dump.name, found.size(), 0, 0, {}};
    for (const EntryReport& entry : report.entries) {
        const bool selects =
            std::any_of(entry.targets.begin(), entry.targets.end(),
                        [&row](const LayoutRow& target) { return target.name == row.name; });
        if (!entry.reached || entry.checkCode != kv::kEntryCheckCode || report.totalLen == 0) {
            break;
        }
        if (selects && entry.dataLen <= found.size()) {
            flash = Erased(dump);
            const uint64_t written = WriteEntry(package, entry, row.IsBoot(), &*flash);
            verdict.image = std::min<uint64_t>(written, entry.dataLen);
            verdict.behind = written - verdict.image;
        }
    }
    if (!flash) {
        throw ToolError(ExitCode::kRefused, "the package writes nothing to partition " + row.name +
                                                " if it has " + SizeText(found.size()));
    }
    const Bytes expected = Joined(*flash);
    verdict.difference = CompareBytes(expected.data(), expected.size(), found.data(), found.size());
    return verdict;
}

}  // namespace kvtool
