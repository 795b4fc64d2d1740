#include "tools/page/device_watch.h"

#include <algorithm>
#include <ctime>
#include <set>

#include "tools/base/errors.h"
#include "tools/device/device_json.h"
#include "tools/fleet/journal.h"

namespace kvtool::page {

namespace {

constexpr Millis kRound{2000};
constexpr Millis kAgain{5000};
constexpr size_t kMostMalformed = 20;

std::string TimeNow() {
    return fleet::TimeText(static_cast<double>(time(nullptr)));
}

// The MAC address. Devices that share it, or an IP address, are told apart by both addresses. A
// device without a MAC address is known by its IP address alone.
std::string IdOf(const FoundDevice& device) {
    const std::string& mac = device.reply.mac;
    if (mac.empty()) {
        return device.Address();
    }
    return device.conflict ? mac + "@" + device.Address() : mac;
}

}  // namespace

void DeviceList::Show(const std::string& id, const Known& known) {
    Json json = {{"id", id}};
    json.update(known.json);
    json["present"] = known.present;
    json["first_seen"] = known.firstSeen;
    model_->SetDevice(id, json, known.lastSeen);
}

// Keeps the list bounded, so nobody on the network can fill the memory.
void DeviceList::Forget() {
    while (known_.size() > kMost) {
        auto oldest = known_.end();
        for (auto one = known_.begin(); one != known_.end(); ++one) {
            const bool older = oldest == known_.end() ||
                               std::pair(one->second.present, one->second.lastSeen) <
                                   std::pair(oldest->second.present, oldest->second.lastSeen);
            oldest = older ? one : oldest;
        }
        model_->RemoveDevice(oldest->first);
        known_.erase(oldest);
    }
}

void DeviceList::Take(const WatchRound& round, const std::string& time) {
    std::set<std::string> there;
    for (const WatchedDevice& device : round.devices) {
        const std::string id = IdOf(device.found);
        there.insert(id);
        const auto [place, fresh] = known_.try_emplace(id);
        Known& known = place->second;
        if (fresh) {
            known.firstSeen = time;
        }
        if (fresh || device.silent.count() == 0) {
            known.lastSeen = time;
        }
        known.present = true;
        known.json = FoundJson(device.found);
        Show(id, known);
    }
    for (auto& [id, known] : known_) {
        if (known.present && there.count(id) == 0) {
            known.present = false;
            Show(id, known);
        }
    }
    Forget();
}

DeviceWatch::DeviceWatch(const DiscoveryRequest& search, Model* model)
    : model_(model), list_(model) {
    request_.search = search;
    request_.search.timeout = kRound;
    request_.search.repeat = 1;
    Show({}, true, "");
    thread_ = std::thread([this] { Run(); });
}

DeviceWatch::~DeviceWatch() {
    stop_.Raise();
    thread_.join();
}

void DeviceWatch::Show(const DiscoveryResult& result, bool running, const std::string& trouble) {
    Json interfaces = Json::array();
    for (const SearchInterface& one : SearchInterfaces(request_.search.interfaces)) {
        interfaces.push_back({{"name", one.name}, {"address", one.address}});
    }
    Json malformed = Json::array();
    for (const auto& [what, count] : result.malformed) {
        if (malformed.size() < kMostMalformed) {
            malformed.push_back({{"what", what}, {"count", count}});
        }
    }
    Json problems = result.problems;
    if (!trouble.empty()) {
        problems.push_back(trouble);
    }
    model_->SetSearch({{"running", running},
                       {"searches_sent", sent_},
                       {"problems", problems},
                       {"interfaces", interfaces},
                       {"malformed", malformed},
                       {"conflicts", Conflicts(result)}});
}

void DeviceWatch::Run() {
    const InterruptedBy interrupted(stop_);
    for (;;) {
        try {
            try {
                Watch(request_, [this](const WatchRound& round) {
                    list_.Take(round, TimeNow());
                    sent_ += static_cast<uint64_t>(round.search.sent);
                    Show(round.search, true, "");
                    return true;
                });
            } catch (const ToolError& error) {
                if (error.Code() == ExitCode::kInterrupted) {
                    throw;
                }
                Show({}, false, error.what());
                WaitUntil(Clock::now() + kAgain);
            }
        } catch (const ToolError&) {
            return;  // the server ends, or this PC has no descriptors left
        }
    }
}

}  // namespace kvtool::page
