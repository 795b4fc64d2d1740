#include "tools/device/match.h"

#include <fnmatch.h>

#include <algorithm>
#include <iterator>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

struct Field {
    const char* name;
    std::string DiscoveryReply::*member;
};
// The names are those in the JSON of a device.
constexpr Field kFields[] = {
    {"mac", &DiscoveryReply::mac},
    {"address", &DiscoveryReply::ip},
    {"firmware", &DiscoveryReply::firmware},
    {"kind", &DiscoveryReply::kind},
    {"type", &DiscoveryReply::deviceType},
    {"netmask", &DiscoveryReply::netmask},
    {"gateway", &DiscoveryReply::gateway},
    {"dns", &DiscoveryReply::dns},
    {"p2p_serial", &DiscoveryReply::p2pSerial},
    {"account", &DiscoveryReply::account},
};

bool Fits(const std::string& glob, const std::string& value) {
    return fnmatch(glob.c_str(), value.c_str(), FNM_CASEFOLD) == 0;
}

bool Fits(const Field& field, const std::string& glob, const FoundDevice& device) {
    return Fits(glob, device.reply.*field.member) ||
           (field.member == &DiscoveryReply::ip &&
            std::any_of(device.senders.begin(), device.senders.end(),
                        [&glob](const std::string& sender) { return Fits(glob, sender); }));
}

}  // namespace

Matcher::Matcher(const std::vector<std::string>& conditions) {
    for (const std::string& condition : conditions) {
        const size_t equals = condition.find('=');
        const std::string name = condition.substr(0, equals);
        const auto* const field =
            std::find_if(std::begin(kFields), std::end(kFields),
                         [&name](const Field& known) { return known.name == name; });
        if (equals == std::string::npos || field == std::end(kFields)) {
            throw ToolError(ExitCode::kUsage, "not a condition: '" + Printable(condition) +
                                                  "' (FIELD=GLOB; fields: " + MatchFields() + ")");
        }
        conditions_.push_back(
            {static_cast<size_t>(field - std::begin(kFields)), condition.substr(equals + 1)});
    }
}

bool Matcher::Matches(const FoundDevice& device) const {
    constexpr size_t kCount = std::size(kFields);
    bool asked[kCount] = {};
    bool fits[kCount] = {};
    for (const auto& [field, glob] : conditions_) {
        asked[field] = true;
        fits[field] = fits[field] || Fits(kFields[field], glob, device);
    }
    return std::equal(std::begin(asked), std::end(asked), std::begin(fits));
}

std::string MatchFields() {
    std::string names;
    for (const Field& field : kFields) {
        names += (names.empty() ? "" : ", ") + std::string(field.name);
    }
    return names;
}

}  // namespace kvtool
