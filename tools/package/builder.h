// Builds an upgrade package.
#pragma once

#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/package/layout.h"

namespace kvtool {

struct ImageSpec {
    std::string name;  // entry name, selects the partition
    Bytes bytes;
};

struct BuildRequest {
    std::string ic;
    std::string sensor;
    std::vector<ImageSpec> images;
    Layout layout;
    bool force = false;  // build although the device would not do with it what is meant
};

struct BuildResult {
    Bytes bytes;
    std::vector<std::string> warnings;  // objections that `force` overrode
};

// The same request gives the same bytes. Images stand in the given order, each followed by 0xFF up
// to a multiple of 64 KiB from its own start; the boot loader comes last and ends the file.
// Throws ToolError(kRefused) with every objection, one a line. What cannot be expressed in a
// package (a name that does not fit its field) is refused even when forced.
BuildResult BuildPackage(const BuildRequest& request);

}  // namespace kvtool
