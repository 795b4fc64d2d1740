// Packages as kvtool reads them: check, JSON, extraction, comparison, dumps, and a package built
// from what was extracted.
#include <algorithm>

#include "tests/fuzz/package_input.h"
#include "tests/fuzz/tool.h"
#include "tools/package/builder.h"
#include "tools/package/compare.h"
#include "tools/package/extract.h"
#include "tools/package/flash_image.h"
#include "tools/package/package_json.h"

using namespace fuzz;
using namespace kvtool;

namespace {

// The images packed again: kvtool must accept its own work, and take the same images out of it.
void Rebuild(const Bytes& package, const PackageReport& report, const Layout& layout, bool force) {
    BuildRequest request{report.ic, report.sensor, {}, layout, force};
    for (const ImageFile& image : SelectImages(report, {}, true)) {
        request.images.push_back({image.name, ImageBytes(package, *image.entry)});
    }
    const BuildResult built = BuildPackage(request);
    const PackageReport again = CheckPackage(built.bytes, layout, {report.ic, report.sensor});
    Require(again.Acceptable() || !built.warnings.empty());
    for (const ImageSpec& image : request.images) {
        Require(std::any_of(again.entries.begin(), again.entries.end(), [&](const auto& entry) {
            return entry.name == image.name && ImageBytes(built.bytes, entry) == image.bytes;
        }));
    }
}

// A package is identical to itself and to no other.
void Compare(const Bytes& package, const Layout& layout, size_t choice) {
    for (const ImageComparison& image : ComparePackages(package, package, layout).images) {
        Require(image.change == ImageChange::kSame);
    }
    Bytes other = package;
    other[choice * 31 % other.size()] ^= 1;
    other.resize(other.size() - choice % (other.size() - 23));
    const PackageComparison changed = ComparePackages(package, other, layout);
    Require(!changed.identical);
    RequireSafe(JsonLine(ComparisonJson(changed)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string images = kv_test::Noise(2000, 1);
    Input in(data, size);
    const uint8_t choice = in.Byte();
    const std::string text = choice % 2 == 0 ? MakePackage(&in, images) : in.Rest();
    const Bytes package(text.begin(), text.end());
    Layout layout = Layout::Default();
    layout.SetSize(choice % 4 < 2 ? "app=0x100" : "uboot=0x80");
    const PackageReport report = CheckPackage(package, layout, {"PRT7K", "38QX"});
    RequireSafe(JsonLine(FlashMapJson(report, layout)));
    RequireSafe(JsonLine(PackageJson(report)) + JsonLine(PackageSummaryJson(report)));
    for (const EntryReport& entry : report.entries) {
        Require(entry.inFile <= entry.dataLen);
        Require(ImageBytes(package, entry).size() == entry.inFile);
        (void)Try([&] { (void)SelectImages(report, {entry.name}, choice % 8 < 4); });
    }
    (void)Try([&] { (void)SelectImages(report, {"kernel", "none"}, true); });
    if (choice % 16 < 4) {
        (void)Try([&] { Rebuild(package, report, layout, choice % 4 < 2); });
    }
    if (report.headerComplete) {
        Compare(package, layout, choice);
    }
    for (const char* const name : {"kernel", "app", "uboot", "none"}) {
        const std::vector<Bytes> dump(choice % 32 < 8 ? 3 : 1, Bytes(choice * size_t{2}, 0xFF));
        (void)Try([&] {
            RequireSafe(JsonLine(VerdictJson(VerifyDump(package, layout, {name, dump}))));
        });
    }
    return 0;
}
