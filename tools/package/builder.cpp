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

bool IsComment(const std::string& text) {
    return !text.empty() && text.size() <= kv::kMaxSignatureComment &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<uint8_t>(c) >= ' ' && c != '\x7F'; });
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
    if (request.signatureComment && !IsComment(*request.signatureComment)) {
        problems.push_back("a comment has 1 to " + std::to_string(kv::kMaxSignatureComment) +
                           " bytes and no control characters");
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

void PutEntry(uint8_t* at, const std::string& name, uint64_t size, uint64_t offset) {
    using Entry = kv::UpgradeFileEntryBytes;
    std::copy(name.begin(), name.end(), at + offsetof(Entry, fileName));
    kv::PutLe32(at + offsetof(Entry, dataLen), static_cast<uint32_t>(size));
    kv::PutLe32(at + offsetof(Entry, dataOffset), static_cast<uint32_t>(offset));
    kv::PutLe32(at + offsetof(Entry, checkCode), kv::kEntryCheckCode);
}

void PutHeader(uint8_t* at, const BuildRequest& request, size_t entries, uint64_t total) {
    using Header = kv::UpgradeFileHeaderBytes;
    std::copy(request.ic.begin(), request.ic.end(), at + offsetof(Header, icType));
    std::copy(request.sensor.begin(), request.sensor.end(), at + offsetof(Header, sensorType));
    kv::PutLe32(at + offsetof(Header, upgrateDataLen), static_cast<uint32_t>(total));
    kv::PutLe32(at + offsetof(Header, fileNum), static_cast<uint32_t>(entries));
}

size_t SignatureSize(const BuildRequest& request) {
    return request.signatureComment
               ? sizeof(kv::PackageSignatureBytes) + request.signatureComment->size()
               : 0;
}

uint8_t* EntryAt(uint8_t* package, size_t index) {
    return package + kv::kPackageHeaderSize + index * kv::kPackageEntrySize;
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

    const size_t first = request.signatureComment ? 1 : 0;  // entry of the first image
    const size_t entries = first + order.size();
    const size_t tableEnd = kv::kPackageHeaderSize + entries * kv::kPackageEntrySize;
    const size_t dataStart = tableEnd + SignatureSize(request);
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
    uint8_t* const package = result.bytes.data();
    std::fill_n(package, dataStart, uint8_t{0});
    PutHeader(package, request, entries, total);
    if (request.signatureComment) {
        PutEntry(EntryAt(package, 0), kv::kSignatureName, SignatureSize(request), tableEnd);
        std::copy(request.signatureComment->begin(), request.signatureComment->end(),
                  package + tableEnd + sizeof(kv::PackageSignatureBytes));
    }
    for (size_t i = 0; i < order.size(); ++i) {
        const ImageSpec& image = *order[i];
        PutEntry(EntryAt(package, first + i), image.name, image.bytes.size(), offsets[i]);
        std::copy(image.bytes.begin(), image.bytes.end(), package + offsets[i]);
    }
    return result;
}

}  // namespace kvtool
