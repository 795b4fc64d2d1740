// The images of a package as files.
#pragma once

#include <string>
#include <vector>

#include "tools/package/check.h"

namespace kvtool {

struct ImageFile {
    const EntryReport* entry;
    std::string name;  // a plain file name, unique
};

// The images that `names` select by entry name or partition; without names all of them.
// Throws ToolError(kRefused) for a name that selects nothing, an entry name that is not a plain
// file name (empty, hidden, with a slash or unprintable bytes), and, unless forced, an image that
// the file does not contain completely.
std::vector<ImageFile> SelectImages(const PackageReport& report,
                                    const std::vector<std::string>& names, bool force);

// The bytes of the image.
Bytes ImageBytes(const Bytes& package, const EntryReport& entry);

}  // namespace kvtool
