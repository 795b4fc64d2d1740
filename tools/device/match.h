// Which of the devices that a search finds are meant.
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
    // value, in which upper and lower case are the same. Of the conditions on one field one has to
    // hold; each field that has conditions has to match. Throws ToolError(kUsage).
    explicit Matcher(const std::vector<std::string>& conditions);

    // The address matches if the one that the device names or one that it answered from does.
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
