// Who is upgraded: what a search and each device itself tell before anything is done.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/device/match.h"
#include "tools/device/upgrade_session.h"
#include "tools/fleet/journal.h"

namespace kvtool::fleet {

struct PlanRequest {
    bool all = false;                // every device that answers a search
    std::vector<std::string> hosts;  // addresses, names and MAC addresses
    Matcher matcher;                 // for those that answer
    DiscoveryRequest discovery;
    std::optional<uint16_t> port;  // command port, when it is not as discovered
    UpgradeTimes times;
    std::string ic;  // what the package is for
    std::string sensor;
};

struct Plan {
    // A member whose code is not kDone will not be upgraded, its text tells why. One that answered
    // no search has no address; the run tries it all the same.
    std::vector<Member> members;
    std::vector<std::string> warnings;
};

// Searches, then logs in to each device found and compares its chip and sensor type with the
// package's. Sends nothing else. Blocks for the time of one search and some seconds. `members` is
// what a journal knows already: those are asked nothing, and stand first in the plan.
// Throws ToolError(kUnreachable) when no search is possible.
Plan MakePlan(const PlanRequest& request, std::vector<Member> members);

// A member for a device that a search has found.
Member MemberOf(const FoundDevice& device, std::optional<uint16_t> port);

}  // namespace kvtool::fleet
