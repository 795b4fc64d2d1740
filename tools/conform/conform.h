// Tries the rules of discovery and of the command protocol on a device, or on a program that
// imitates one. docs/client-kit.md lists the rules. Does not use the terminal.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/base/json.h"
#include "tools/conform/trial.h"

namespace kvtool::conform {

struct ConformRequest {
    std::string host;  // an address or a name
    uint16_t commandPort = 0;
    uint16_t discoveryPort = 0;
    TrialTimes times;
    Millis restart{120000};  // for the device to restart after a refused upload
    // Whether to try uploads too: one that stops, one with a wrong digest, and a right one, after
    // which the device restarts.
    bool destructive = false;
    // The right upload; empty: a package that selects no partition, so nothing is written.
    Bytes package;
};

using Found = std::function<void(const Finding&)>;

// Tries all rules in order and gives each finding to `found` as soon as it is known. Takes some
// seconds. With uploads it takes about a minute, plus the time of the device's restart. Skips the
// uploads if the request has no package and the device names no chip or sensor type to make one
// for. Throws ToolError: kUnreachable if the device accepts no connection at the beginning;
// kInterrupted, after `found` has got the rule under way as skipped, with its exchange so far.
void Conform(const ConformRequest& request, const Found& found);

// What the rules of one run learn from each other.
struct Known {
    uint32_t session = 0;
    Bytes serial;
    std::string firmware;  // from device information
    std::string ic;
    std::string sensor;
};

struct Rule {
    const char* name;
    const char* text;
    void (*run)(const ConformRequest& request, Known* known, Trial* trial);
};
const std::vector<Rule>& CommandRules();
const std::vector<Rule>& DiscoveryRules();
// They upload the request's package. It must not be empty.
const std::vector<Rule>& UploadRules();

Json FindingJson(const Finding& finding);
// "kept", "broken" or "skipped".
const char* OutcomeName(Outcome outcome);

}  // namespace kvtool::conform
