// Chooses the devices to upgrade: searches, and asks each device, before anything is sent.
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
    Matcher matcher;                 // for the devices that answer
    DiscoveryRequest discovery;
    std::optional<uint16_t> port;  // command port; empty: as discovered
    UpgradeTimes times;
    std::string ic;  // chip type of the package
    std::string sensor;
};

struct Plan {
    // A member whose code is not kDone will not be upgraded; its text says why. A member that
    // answered no search has no address. The run still tries to upgrade it.
    std::vector<Member> members;
    std::vector<std::string> warnings;
};

// Searches, then logs in to each device found and compares its chip and sensor type with the
// package's. Sends nothing else. Blocks for the time of one search. Then it asks 32 devices at a
// time; each that stays silent takes the time-outs for connection and answer. `members` are the
// devices of a journal. MakePlan asks them nothing and puts them first in the plan.
// Throws ToolError(kUnreachable) if no search is possible.
Plan MakePlan(const PlanRequest& request, std::vector<Member> members);

// Whether a run does more with the device than report why it is refused.
bool WillStart(const Member& member);
// What will happen to a device, in words.
std::string Intention(const Member& member);
// The keys `devices`, each with `intention` and `will_start`, and `warnings`.
Json PlanJson(const Plan& plan);

// The member for a device that a search found.
Member MemberOf(const FoundDevice& device, std::optional<uint16_t> port);

}  // namespace kvtool::fleet
