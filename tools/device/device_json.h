// Information about devices as JSON; docs/kvtool-json.md describes the keys.
#pragma once

#include <array>
#include <string>

#include "tools/base/json.h"
#include "tools/device/discovery_client.h"
#include "tools/device/match.h"
#include "tools/device/upgrade_session.h"

namespace kvtool {

struct InfoReport {
    std::string address;
    uint32_t sessionBefore = 0;  // in the reply to the login
    uint32_t session = 0;
    std::array<uint8_t, kv::kSerialSize> serial{};
    DeviceInfo device;
};
Json InfoJson(const InfoReport& report);

Json FoundJson(const FoundDevice& device);
// Lists only the devices that match, and counts the others.
Json DiscoveryJson(const DiscoveryResult& result, const Matcher& matcher);

// `result` is the text after "result:", or the error.
Json UpgradeJson(const UpgradeRecord& record, const std::string& result);

}  // namespace kvtool
