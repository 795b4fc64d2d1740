// Packages as JSON; docs/kvtool-json.md describes the keys.
#pragma once

#include "tools/base/json.h"
#include "tools/package/check.h"
#include "tools/package/compare.h"
#include "tools/package/flash_image.h"
#include "tools/package/signature.h"

namespace kvtool {

Json PackageJson(const PackageReport& report);
// Without the entries.
Json PackageSummaryJson(const PackageReport& report);

// The partitions of the layout, each with what the package writes to it.
Json FlashMapJson(const PackageReport& report, const Layout& layout);

Json SignatureJson(const Signature& signature);
Json ComparisonJson(const PackageComparison& comparison);
Json VerdictJson(const DumpVerdict& verdict);

}  // namespace kvtool
