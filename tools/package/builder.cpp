#include "tools/package/builder.h"

#include <algorithm>
#include <cstddef>
#include <map>

#include "common/kv_le.h"
#include "flash/kv_upgrade_package.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/package/check.h"

namespace kvtool {

namespace {

constexpr size_t kHeaderTextSize = sizeof(kv::UpgradeFileHeaderBytes::icType);
constexpr size_t kNameSize = sizeof(kv::UpgradeFileEntryBytes::fileName);

bool FitsField(const std::string& text, size_t field) {
    return !text.empty() && text.size() < field &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : "\n") + line;
    }
    return text;
}

// Refuses names and types that do not fit a package's fields, and a request without images.
void RequireExpressible(const BuildRequest& request) {
    std::vector<std::string> problems;
    for (const std::string* text : {&request.ic, &request.sensor}) {
        if (!FitsField(*text, kHeaderTextSize)) {
            problems.push_back("'" + Printable(*text) + "': a chip or sensor type has 1 to " +
                               std::to_string(kHeaderTextSize - 1) + " printable characters");
        }
    }
    for (const ImageSpec& image : request.images) {
        if (!FitsField(image.name, kNameSize)) {
            problems.push_back("'" + Printable(image.name) + "': a name has 1 to " +
                               std::to_string(kNameSize - 1) + " printable characters");
        }
    }
    if (request.images.empty()) {
        problems.emplace_back("no image given");
    }
    if (!problems.empty()) {
        throw ToolError(ExitCode::kRefused, Joined(problems));
    }
}

void CheckTarget(const ImageSpec& image, const LayoutRow& row, std::vector<std::string>* problems) {
    if (image.bytes.empty()) {
        problems->push_back(image.name + ": empty; the device would still erase " + row.name);
    }
    if (image.bytes.size() > row.size) {
        problems->push_back(image.name + ": " + SizeText(image.bytes.size()) +
                            ", but the partition " + row.name + " holds " + SizeText(row.size));
    }
}

// What the device would not install as intended.
std::vector<std::string> Objections(const BuildRequest& request) {
    std::vector<std::string> problems;
    std::map<std::string, std::string> taken;
    for (const ImageSpec& image : request.images) {
        const std::vector<LayoutRow> rows = request.layout.Select(image.name);
        if (rows.empty()) {
            problems.push_back(image.name +
                               ": selects no partition; the device would skip it silently");
        }
        if (rows.size() > 1) {
            problems.push_back(image.name + ": selects more than one partition (" + rows[0].name +
                               ", " + rows[1].name + "); the device would write each");
        }
        for (const LayoutRow& row : rows) {
            CheckTarget(image, row, &problems);
            const auto [other, fresh] = taken.emplace(row.name, image.name);
            if (!fresh) {
                problems.push_back(image.name + ": the partition " + row.name +
                                   " is already taken by " + other->second);
            }
        }
    }
    return problems;
}

bool IsBoot(const Layout& layout, const ImageSpec& image) {
    const std::vector<LayoutRow> rows = layout.Select(image.name);
    return std::any_of(rows.begin(), rows.end(), [](const LayoutRow& row) { return row.IsBoot(); });
}

void PutEntry(uint8_t* at, const ImageSpec& image, uint64_t offset) {
    using Entry = kv::UpgradeFileEntryBytes;
    std::copy(image.name.begin(), image.name.end(), at + offsetof(Entry, fileName));
    kv::PutLe32(at + offsetof(Entry, dataLen), static_cast<uint32_t>(image.bytes.size()));
    kv::PutLe32(at + offsetof(Entry, dataOffset), static_cast<uint32_t>(offset));
    kv::PutLe32(at + offsetof(Entry, checkCode), kv::kEntryCheckCode);
}

void PutHeader(uint8_t* at, const BuildRequest& request, uint64_t total) {
    using Header = kv::UpgradeFileHeaderBytes;
    std::copy(request.ic.begin(), request.ic.end(), at + offsetof(Header, icType));
    std::copy(request.sensor.begin(), request.sensor.end(), at + offsetof(Header, sensorType));
    kv::PutLe32(at + offsetof(Header, upgrateDataLen), static_cast<uint32_t>(total));
    kv::PutLe32(at + offsetof(Header, fileNum), static_cast<uint32_t>(request.images.size()));
}

}  // namespace

BuildResult BuildPackage(const BuildRequest& request) {
    RequireExpressible(request);
    BuildResult result;
    result.warnings = Objections(request);
    if (!result.warnings.empty() && !request.force) {
        throw ToolError(ExitCode::kRefused, Joined(result.warnings));
    }
    std::vector<const ImageSpec*> order;
    for (const ImageSpec& image : request.images) {
        order.push_back(&image);
    }
    const auto boot = std::stable_partition(
        order.begin(), order.end(),
        [&request](const ImageSpec* image) { return !IsBoot(request.layout, *image); });

    const size_t dataStart = kv::kPackageHeaderSize + order.size() * kv::kPackageEntrySize;
    uint64_t total = dataStart;
    std::vector<uint64_t> offsets;
    for (auto image = order.begin(); image != order.end(); ++image) {
        const uint64_t length = (*image)->bytes.size();
        offsets.push_back(total);
        // Padding after the boot loader would make its writer continue on the next device.
        total += image >= boot ? length : RoundedLength(length, false);
    }
    if (total > kMaxPackageSize) {
        throw ToolError(ExitCode::kRefused, "the package would be too large: " + SizeText(total));
    }
    result.bytes.assign(total, 0xFF);
    std::fill_n(result.bytes.begin(), dataStart, uint8_t{0});
    PutHeader(result.bytes.data(), request, total);
    for (size_t i = 0; i < order.size(); ++i) {
        PutEntry(result.bytes.data() + kv::kPackageHeaderSize + i * kv::kPackageEntrySize,
                 *order[i], offsets[i]);
        std::copy(order[i]->bytes.begin(), order[i]->bytes.end(),
                  result.bytes.begin() + static_cast<ptrdiff_t>(offsets[i]));
    }
    return result;
}

}  // namespace kvtool
