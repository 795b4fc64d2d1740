// Selects devices from those that a search finds.
#pragma once

#include <string>
#include <vector>

#include "tools/device/discovery_client.h"

namespace kvtool {

class Matcher {
  public:
    // Matches every device.
    Matcher() = default;

    // Each condition is "FIELD=GLOB": a field of MatchFields() and a shell pattern for its whole
    // value. The match ignores case. With several conditions on one field, one of them
    // must match. Each field that has conditions must match. Throws ToolError(kUsage).
    explicit Matcher(const std::vector<std::string>& conditions);

    // A condition on the address may match the address that the device names, or any that it
    // answered from.
    bool Matches(const FoundDevice& device) const;

  private:
    struct Condition {
        size_t field;
        std::string glob;
    };
    std::vector<Condition> conditions_;
};

// The names of the fields, "mac, address, …", for people.
std::string MatchFields();

}  // namespace kvtool
