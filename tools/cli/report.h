// What the commands print for people.
#pragma once

#include <ostream>

#include "tools/device/device_json.h"
#include "tools/package/check.h"

namespace kvtool {

void PrintPackage(std::ostream& out, const PackageReport& report);
// Of many findings of one kind only the first few, then how many more there are.
void PrintFindings(std::ostream& out, const PackageReport& report);
void PrintInfo(std::ostream& out, const InfoReport& report);
void PrintDiscovery(std::ostream& out, const DiscoveryResult& result);

}  // namespace kvtool
