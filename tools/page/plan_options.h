// What a request for a plan may ask for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/json.h"

namespace kvtool::page {

// The options of `kvtool fleet upgrade` with their defaults.
struct PlanOptions {
    std::vector<std::string> devices;
    size_t jobs = 20;
    size_t canary = 0;
    size_t maxFailures = 0;
    int retry = 0;
    bool force = false;
    bool again = false;  // forget what the journal has: begin a new one
    std::optional<uint16_t> expectPort;
    std::string expectVersion;

    // Without the devices.
    Json ToJson() const;
};

// Throws HttpError(400), which names the key that is unknown or has a bad value.
PlanOptions ReadPlanOptions(const Json& request);

}  // namespace kvtool::page
