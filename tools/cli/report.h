// What the commands print: for people as lines, for programs as JSON.
#pragma once

#include <array>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"
#include "tools/package/check.h"

namespace kvtool {

using Json = nlohmann::ordered_json;

// One line of JSON. Every text in it has gone through Printable, so it is plain ASCII.
void PrintJson(std::ostream& out, const Json& json);

void PrintPackage(std::ostream& out, const PackageReport& report);
Json PackageJson(const PackageReport& report);
void PrintFindings(std::ostream& out, const PackageReport& report);

struct InfoReport {
    std::string address;
    uint32_t sessionBefore = 0;  // in the reply to the login
    uint32_t session = 0;
    std::array<uint8_t, kv::kSerialSize> serial{};
    DeviceInfo device;
};
void PrintInfo(std::ostream& out, const InfoReport& report);
Json InfoJson(const InfoReport& report);

void PrintDiscovery(std::ostream& out, const DiscoveryResult& result);
Json DiscoveryJson(const DiscoveryResult& result);

// `result` is the closing line.
Json UpgradeJson(const UpgradeRecord& record, ExitCode code, const std::string& result);

}  // namespace kvtool
