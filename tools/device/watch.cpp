#include "tools/device/watch.h"

#include <algorithm>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

// Two devices that report no MAC address are the same if they have a sender in common.
bool IsSame(const FoundDevice& a, const FoundDevice& b) {
    if (a.reply.mac != b.reply.mac || a.reply.ip != b.reply.ip) {
        return false;
    }
    return !a.reply.mac.empty() ||
           std::find_first_of(a.senders.begin(), a.senders.end(), b.senders.begin(),
                              b.senders.end()) != a.senders.end();
}

bool HasChanged(const FoundDevice& before, const FoundDevice& now) {
    return !(before.reply == now.reply) || before.conflict != now.conflict ||
           before.Address() != now.Address();
}

// Keeps the first address as long as it answers, even if another one was quicker this time.
FoundDevice WithSteadyAddress(FoundDevice now, const FoundDevice& before) {
    const auto still = std::find(now.senders.begin(), now.senders.end(), before.Address());
    if (still != now.senders.end()) {
        std::iter_swap(now.senders.begin(), still);
    }
    return now;
}

}  // namespace

std::vector<DeviceChange> Presence::Take(const std::vector<FoundDevice>& answers, Millis listened) {
    using Kind = DeviceChange::Kind;
    std::vector<DeviceChange> changes;
    std::vector<bool> answered(devices_.size(), false);
    const auto pair = [&](const FoundDevice& answer, const auto& isIt) {
        for (size_t i = 0; i < answered.size(); ++i) {
            FoundDevice& known = devices_[i].found;
            if (answered[i] || !isIt(known)) {
                continue;
            }
            answered[i] = true;
            FoundDevice now = WithSteadyAddress(answer, known);
            if (HasChanged(known, now)) {
                changes.push_back({Kind::kChanged, now, known});
            }
            devices_[i] = {std::move(now), Millis(0)};
            return true;
        }
        return false;
    };
    // First the devices that kept their address. A remaining device with a known MAC address has
    // moved.
    std::vector<const FoundDevice*> rest;
    for (const FoundDevice& answer : answers) {
        if (!pair(answer, [&](const FoundDevice& known) { return IsSame(known, answer); })) {
            rest.push_back(&answer);
        }
    }
    std::vector<WatchedDevice> added;
    for (const FoundDevice* const answer : rest) {
        if (!pair(*answer, [answer](const FoundDevice& known) {
                return !known.reply.mac.empty() && known.reply.mac == answer->reply.mac;
            })) {
            changes.push_back({Kind::kAppeared, *answer, {}});
            added.push_back({*answer, Millis(0)});
        }
    }
    std::vector<WatchedDevice> stay;
    for (size_t i = 0; i < answered.size(); ++i) {
        devices_[i].silent += answered[i] ? Millis(0) : listened;
        if (devices_[i].silent >= goneAfter_ && !answered[i]) {
            changes.push_back({Kind::kGone, devices_[i].found, {}});
        } else {
            stay.push_back(std::move(devices_[i]));
        }
    }
    stay.insert(stay.end(), added.begin(), added.end());
    devices_ = std::move(stay);
    return changes;
}

void Watch(const WatchRequest& request, const std::function<bool(const WatchRound&)>& round) {
    const SearchSockets sockets;
    Presence presence(request.goneAfter);
    for (;;) {
        const Clock::time_point start = Clock::now();
        DiscoveryResult result;
        try {
            result = Discover(sockets, request.search, nullptr);
        } catch (const ToolError& error) {
            if (error.Code() != ExitCode::kUnreachable) {
                throw;
            }
            result.problems.emplace_back(error.what());
        }
        // A search at one address ends with the answer, so wait for the rest of the round.
        WaitUntil(start + request.search.timeout);
        std::vector<std::string> warnings = Conflicts(result);
        warnings.insert(warnings.end(), result.problems.begin(), result.problems.end());
        auto& devices = result.devices;
        devices.erase(std::remove_if(devices.begin(), devices.end(),
                                     [&request](const FoundDevice& device) {
                                         return !request.matcher.Matches(device);
                                     }),
                      devices.end());
        std::vector<DeviceChange> changes =
            presence.Take(devices, result.sent > 0 ? request.search.timeout : Millis(0));
        if (!round({presence.Devices(), std::move(changes), std::move(warnings), result})) {
            return;
        }
    }
}

}  // namespace kvtool
