// Loads and checks the package that a command is to send.
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
    bool force = false;  // in spite of errors found in the package
    Trust trust;
    bool json = false;  // messages go to standard error
};

struct LoadedPackage {
    Bytes bytes;
    PackageReport report;
};

// Prints the signature and the findings and adds them to *json. Throws ToolError(kRefused) if the
// package must not be sent.
LoadedPackage LoadPackage(const PackageChoice& choice, const Layout& layout, Json* json);

}  // namespace kvtool
