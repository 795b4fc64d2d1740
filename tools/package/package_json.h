// Packages as JSON; docs/kvtool-json.md describes the keys.
#pragma once

#include "tools/base/json.h"
#include "tools/package/check.h"

namespace kvtool {

Json PackageJson(const PackageReport& report);
// Without the entries.
Json PackageSummaryJson(const PackageReport& report);

}  // namespace kvtool
