// Packages as kvtool reads them: check, JSON, extraction, comparison, dumps, and a package built
// from what was extracted. The input is the package itself.
#include <algorithm>

#include "common/kv_platform.h"
#include "tests/fuzz/world.h"
#include "tests/support/wire.h"
#include "tools/base/errors.h"
#include "tools/package/builder.h"
#include "tools/package/compare.h"
#include "tools/package/extract.h"
#include "tools/package/flash_image.h"
#include "tools/package/package_json.h"

using namespace fuzz;
using namespace kvtool;
using kv_test::Little;

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

constexpr size_t kHeader = 24;
constexpr size_t kEntry = 256;

// The images packed again: the tool must accept its own work, and take the same images out of it.
void Rebuild(const Bytes& package, const PackageReport& report, const Layout& layout, bool force) {
    BuildRequest request{report.ic, report.sensor, {}, layout, force};
    for (const ImageFile& image : SelectImages(report, {}, true)) {
        request.images.push_back({image.name, ImageBytes(package, *image.entry)});
    }
    const BuildResult built = BuildPackage(request);
    const PackageReport again = CheckPackage(built.bytes, layout, {report.ic, report.sensor});
    Require(again.Acceptable() || !built.warnings.empty());
    Require(again.entries.size() == request.images.size());
    for (const ImageSpec& image : request.images) {
        const std::string md5 = Md5Hex(image.bytes.data(), image.bytes.size());
        Require(std::any_of(again.entries.begin(), again.entries.end(), [&](const auto& entry) {
            return entry.name == image.name && entry.md5 == md5;
        }));
    }
    RequireSafe(JsonLine(ComparisonJson(ComparePackages(package, built.bytes, layout))));
}

void Compare(const Bytes& package, const Layout& layout, size_t seed) {
    const PackageComparison same = ComparePackages(package, package, layout);
    Require(same.identical && same.header.empty());
    Require(std::all_of(same.images.begin(), same.images.end(), [](const ImageComparison& image) {
        return image.change == ImageChange::kSame;
    }));
    Bytes other = package;
    other[seed % other.size()] ^= 1;
    other.resize(other.size() - std::min(other.size() - kHeader, seed % 5 * 64));
    const PackageComparison changed = ComparePackages(package, other, layout);
    Require(!changed.identical);
    RequireSafe(JsonLine(ComparisonJson(changed)));
}

void Try(const std::function<void()>& action) {
    try {
        action();
    } catch (const ToolError& error) {
        Require(error.Code() == ExitCode::kRefused || error.Code() == ExitCode::kUsage);
    }
}

}  // namespace

// Keeps most inputs packages: repairs the header, a name, a check code or an image's place.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned seed) {
    size = LLVMFuzzerMutate(data, size, maxSize);
    std::string package(reinterpret_cast<const char*>(data), size);
    const auto put = [&package](size_t at, const std::string& bytes) {
        package.resize(std::max(package.size(), at + bytes.size()));
        (void)package.replace(at, bytes.size(), bytes);
    };
    const size_t entry = kHeader + kEntry * (seed / 64 % 4);
    const auto row = static_cast<size_t>(seed >> 8) % std::size(kv::kPartitions);
    if ((seed & 1) != 0) {
        put(0, std::string("PRT7K\0\0\0"
                           "38QX\0\0\0\0",
                           16) +
                   Little(seed >> 6) + Little(seed >> 3 & 7));
    }
    if ((seed & 2) != 0) {
        put(entry, std::string(kv::kPartitions[row].name) + '\0');
        put(entry + 140, Little(0x12345));
    }
    if ((seed & 4) != 0) {
        put(entry + 128, Little(seed >> 16 & 0xFFF) + Little((seed >> 4 & 0x3FF) + kHeader));
    }
    size = std::min(package.size(), maxSize);
    memcpy(data, package.data(), size);
    return size;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Bytes package(data, data + size);
    const size_t seed = size == 0 ? 0 : data[size - 1] + size;
    Layout layout = Layout::Default();
    if (seed % 3 == 0) {
        layout.SetSize("app=0x100");
        layout.SetSize("uboot=0x80");
    }
    const PackageReport report = CheckPackage(package, layout, {"PRT7K", "38QX"});
    RequireSafe(JsonLine(PackageJson(report)));
    RequireSafe(JsonLine(PackageSummaryJson(report)));
    for (const Finding& finding : report.findings) {
        RequireSafe(SeverityName(finding.severity) + finding.text);
    }
    for (const EntryReport& entry : report.entries) {
        Require(entry.inFile <= entry.dataLen && entry.inFile <= size);
        Require(ImageBytes(package, entry).size() == entry.inFile);
        Try([&] { (void)SelectImages(report, {entry.name}, seed % 2 == 0); });
    }
    Try([&] { (void)SelectImages(report, {"kernel", "none"}, true); });
    if (seed % 4 == 0) {
        Try([&] { Rebuild(package, report, layout, seed % 8 == 0); });
    }
    if (report.headerComplete) {
        Compare(package, layout, seed * 31);
    }
    for (const kv::PartitionRow& row : kv::kPartitions) {
        const size_t devices = row.name[0] == 'u' && seed % 2 == 0 ? 3 : 1 + seed % 16 / 15;
        Try([&] {
            const Bytes device(seed % 512, 0xFF);
            RequireSafe(JsonLine(VerdictJson(
                VerifyDump(package, layout, {row.name, std::vector<Bytes>(devices, device)}))));
        });
    }
    return 0;
}
