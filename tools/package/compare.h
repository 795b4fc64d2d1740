// Compares two packages image by image.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/package/check.h"

namespace kvtool {

// How two byte sequences differ. The bytes that only the longer one has count as different.
struct ByteDifference {
    uint64_t first = 0;  // offset of the first
    uint64_t count = 0;  // how many; 0: none
};
ByteDifference CompareBytes(const uint8_t* a, uint64_t sizeA, const uint8_t* b, uint64_t sizeB);

enum class ImageChange {
    kSame,
    kMoved,  // same bytes, but another offset or place in the table
    kChanged,
    kAdded,
    kRemoved,
};
const char* ImageChangeName(ImageChange change);

struct ImagePlace {
    uint32_t index;
    uint32_t offset;
    uint64_t size;
};

struct ImageComparison {
    std::string name;
    ImageChange change;
    std::optional<ImagePlace> a;
    std::optional<ImagePlace> b;
    ByteDifference difference;
};

struct HeaderDifference {
    std::string field;
    std::string a;
    std::string b;
};

struct PackageComparison {
    bool identical = false;  // byte by byte
    std::vector<HeaderDifference> header;
    std::vector<ImageComparison> images;  // those of A in their order, then those that B adds
};

// Pairs images of the same name in their order. Throws ToolError(kRefused) if a file does not
// contain a whole header.
PackageComparison ComparePackages(const Bytes& a, const Bytes& b, const Layout& layout);

}  // namespace kvtool
