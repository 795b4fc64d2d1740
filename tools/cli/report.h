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

struct DeviceRow {
    FoundDevice device;
    std::string state;
};
// A line of headings and a line for each row, in the order of the MAC addresses; empty without
// rows. At most `width` wide if possible; 0: no limit.
std::vector<std::string> DeviceTable(std::vector<DeviceRow> rows, size_t width);

struct DiscoveryStyle {
    Matcher matcher;
    bool verbose = false;  // all that is known of each device instead of a row
    size_t width = 0;      // of the table, 0: no limit
};
// Lists the devices that match.
void PrintDiscovery(std::ostream& out, const DiscoveryResult& result, const DiscoveryStyle& style);

}  // namespace kvtool
