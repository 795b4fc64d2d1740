// What the commands print in words.
#pragma once

#include <ostream>
#include <string>

#include "tools/device/device_json.h"
#include "tools/package/check.h"
#include "tools/package/signature.h"

namespace kvtool {

void PrintPackage(std::ostream& out, const PackageReport& report);
// Prints only the first few findings of a kind, then how many more there are.
void PrintFindings(std::ostream& out, const PackageReport& report);
std::string SignatureText(const Signature& signature);
void PrintInfo(std::ostream& out, const InfoReport& report);
void PrintDiscovery(std::ostream& out, const DiscoveryResult& result);

}  // namespace kvtool
