// The package of a command that sends it: read, trusted and found fit, or refused.
#pragma once

#include <string>

#include "tools/base/json.h"
#include "tools/base/text.h"
#include "tools/package/check.h"
#include "tools/package/layout.h"
#include "tools/package/signature.h"

namespace kvtool {

struct PackageChoice {
    std::string file;
    bool force = false;  // in spite of what the check says
    Trust trust;
    bool json = false;  // what there is to say goes to standard error
};

struct LoadedPackage {
    Bytes bytes;
    PackageReport report;
};

// Says whose signature it bears and what the check found; *json takes the same. Throws
// ToolError(kRefused) for a package that is not to be sent.
LoadedPackage LoadPackage(const PackageChoice& choice, const Layout& layout, Json* json);

}  // namespace kvtool
