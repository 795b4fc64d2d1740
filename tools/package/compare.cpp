#include "tools/package/compare.h"

#include <algorithm>
#include <deque>
#include <map>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

PackageReport ReadPackage(const Bytes& package, const Layout& layout, const char* which) {
    PackageReport report = CheckPackage(package, layout, {});
    if (!report.headerComplete) {
        throw ToolError(
            ExitCode::kRefused,
            std::string("the ") + which + " file is not a package: it is shorter than a header");
    }
    return report;
}

ImagePlace PlaceOf(const EntryReport& entry) {
    return {entry.index, entry.dataOffset, entry.inFile};
}

const uint8_t* Start(const Bytes& package, const EntryReport& entry) {
    return package.data() + std::min<uint64_t>(entry.dataOffset, package.size());
}

void CompareHeaders(const PackageReport& a, const PackageReport& b,
                    std::vector<HeaderDifference>* differences) {
    const HeaderDifference fields[] = {
        {"ic", Printable(a.ic), Printable(b.ic)},
        {"sensor", Printable(a.sensor), Printable(b.sensor)},
        {"total_length", std::to_string(a.totalLen), std::to_string(b.totalLen)},
        {"file_num", std::to_string(a.fileNum), std::to_string(b.fileNum)},
    };
    std::copy_if(std::begin(fields), std::end(fields), std::back_inserter(*differences),
                 [](const HeaderDifference& field) { return field.a != field.b; });
}

}  // namespace

ByteDifference CompareBytes(const uint8_t* a, uint64_t sizeA, const uint8_t* b, uint64_t sizeB) {
    const uint64_t common = std::min(sizeA, sizeB);
    ByteDifference difference;
    difference.first = static_cast<uint64_t>(std::mismatch(a, a + common, b).first - a);
    for (uint64_t i = difference.first; i < common; ++i) {
        difference.count += a[i] != b[i] ? 1 : 0;
    }
    difference.count += std::max(sizeA, sizeB) - common;
    return difference;
}

const char* ImageChangeName(ImageChange change) {
    switch (change) {
        case ImageChange::kSame:
            return "same";
        case ImageChange::kMoved:
            return "moved";
        case ImageChange::kChanged:
            return "changed";
        case ImageChange::kAdded:
            return "added";
        case ImageChange::kRemoved:
            break;
    }
    return "removed";
}

PackageComparison ComparePackages(const Bytes& a, const Bytes& b, const Layout& layout) {
    const PackageReport reportA = ReadPackage(a, layout, "first");
    const PackageReport reportB = ReadPackage(b, layout, "second");
    PackageComparison comparison;
    comparison.identical = a == b;
    CompareHeaders(reportA, reportB, &comparison.header);

    std::map<std::string, std::deque<const EntryReport*>> waiting;
    for (const EntryReport& entry : reportB.entries) {
        waiting[entry.name].push_back(&entry);
    }
    for (const EntryReport& entry : reportA.entries) {
        ImageComparison image{entry.name, ImageChange::kRemoved, PlaceOf(entry), {}, {}};
        std::deque<const EntryReport*>& others = waiting[entry.name];
        if (!others.empty()) {
            const EntryReport& other = *others.front();
            others.pop_front();
            image.b = PlaceOf(other);
            image.difference =
                CompareBytes(Start(a, entry), entry.inFile, Start(b, other), other.inFile);
            const bool stays = entry.index == other.index && entry.dataOffset == other.dataOffset;
            image.change = image.difference.count > 0 ? ImageChange::kChanged
                           : stays                    ? ImageChange::kSame
                                                      : ImageChange::kMoved;
        }
        comparison.images.push_back(std::move(image));
    }
    for (const EntryReport& entry : reportB.entries) {
        const std::deque<const EntryReport*>& left = waiting[entry.name];
        if (std::find(left.begin(), left.end(), &entry) != left.end()) {
            comparison.images.push_back({entry.name, ImageChange::kAdded, {}, PlaceOf(entry), {}});
        }
    }
    return comparison;
}

}  // namespace kvtool
