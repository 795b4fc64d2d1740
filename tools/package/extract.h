// The images of a package as files.
#pragma once

#include <string>
#include <vector>

#include "tools/package/check.h"

namespace kvtool {

struct ImageFile {
    const EntryReport* entry;
    std::string name;  // a plain file name, different for each
};

// The images that `names` ask for, by entry name or partition; all of them where none is given.
// Throws ToolError(kRefused) for a name that no entry has, an entry name that is no plain file name
// (empty, hidden, with a slash or unprintable bytes), and, unless forced, an image that the file
// does not hold whole.
std::vector<ImageFile> SelectImages(const PackageReport& report,
                                    const std::vector<std::string>& names, bool force);

// The part of the package that holds the image.
Bytes ImageBytes(const Bytes& package, const EntryReport& entry);

}  // namespace kvtool
