#include "tools/fleet/plan.h"

#include <algorithm>
#include <map>

#include "tools/fleet/parallel.h"
#include "tools/fleet/report.h"

namespace kvtool::fleet {

namespace {

// Number of threads. Each asks one device at a time and mostly waits.
constexpr size_t kAskers = 32;

class Planner {
  public:
    Planner(const PlanRequest& request, std::vector<Member> members) : request_(request) {
        for (Member& member : members) {
            Add(std::move(member));
        }
        known_ = plan_.members.size();
    }

    Plan Make() {
        const bool byMac =
            std::any_of(request_.hosts.begin(), request_.hosts.end(),
                        [](const std::string& host) { return ParseMacAddress(host); });
        if (request_.all || byMac) {
            found_ = Discover(request_.discovery, nullptr);
        }
        AskNamed();
        RefuseConfusable();
        ForEach(plan_.members.size() - known_, kAskers,
                [this](size_t i) { AskIdentity(&plan_.members.at(known_ + i)); });
        return std::move(plan_);
    }

  private:
    void Add(Member member) {
        // The user may give one device twice: by its address and by its MAC address.
        const auto same = [&member](const Member& other) {
            return other.id == member.id || (!member.mac.empty() && other.mac == member.mac);
        };
        if (std::none_of(plan_.members.begin(), plan_.members.end(), same)) {
            plan_.members.push_back(std::move(member));
        }
    }

    // Takes the devices that the user named and then, with --all, all others.
    void AskNamed() {
        std::vector<std::optional<FoundDevice>> answers(request_.hosts.size());
        ForEach(answers.size(), kAskers, [&](size_t i) { answers[i] = Ask(request_.hosts[i]); });
        for (size_t i = 0; i < answers.size(); ++i) {
            if (answers[i]) {
                Take(*answers[i]);
                Include(*answers[i]);
            } else {
                AddAbsent(request_.hosts[i]);
            }
        }
        for (const FoundDevice& device : found_.devices) {
            if (request_.all) {
                Take(device);
            }
        }
    }

    std::optional<FoundDevice> Ask(const std::string& host) const {
        if (const auto mac = ParseMacAddress(host)) {
            const FoundDevice* const device = FindMac(found_, *mac);
            return device != nullptr ? std::optional<FoundDevice>(*device) : std::nullopt;
        }
        DiscoveryRequest request = request_.discovery;
        request.host = host;
        request.timeout = request_.times.ask;
        try {
            DiscoveryResult result = Discover(request, nullptr);
            if (!result.devices.empty()) {
                return std::move(result.devices.front());
            }
            return HeardFrom(host);
        } catch (const ToolError& error) {
            if (error.Code() != ExitCode::kUnreachable) {
                throw;
            }
        }
        return std::nullopt;
    }

    // A device that missed the search for it alone may have answered the broadcast.
    std::optional<FoundDevice> HeardFrom(const std::string& host) const {
        if (found_.devices.empty()) {
            return std::nullopt;
        }
        for (const Endpoint& endpoint : Resolve(host, 0)) {
            for (const FoundDevice& device : found_.devices) {
                const auto& senders = device.senders;
                if (std::find(senders.begin(), senders.end(), endpoint.host) != senders.end()) {
                    return device;
                }
            }
        }
        return std::nullopt;
    }

    void Take(const FoundDevice& device) {
        if (!request_.matcher.Matches(device)) {
            return;
        }
        if (device.reply.mac.empty()) {
            plan_.warnings.push_back(
                device.senders.front() +
                " does not report its MAC address and is left out: kvtool could "
                "not recognize it later (kvtool upgrade takes it)");
            return;
        }
        Add(MemberOf(device, request_.port));
    }

    // Adds the answer to those of the search, so that two named devices are compared too.
    void Include(const FoundDevice& answer) {
        const auto known = std::find_if(
            found_.devices.begin(), found_.devices.end(), [&answer](const FoundDevice& device) {
                return device.reply.mac == answer.reply.mac && device.reply.ip == answer.reply.ip;
            });
        if (known == found_.devices.end()) {
            found_.devices.push_back(answer);
        }
    }

    void AddAbsent(const std::string& host) {
        Member member;
        const auto mac = ParseMacAddress(host);
        member.mac = mac.value_or("");
        member.id = mac ? *mac : Printable(host);
        member.commandPort = request_.port.value_or(0);
        Add(std::move(member));
    }

    void RefuseConfusable() {
        const std::map<std::string, std::string> reasons = Confusable(found_);
        for (size_t i = known_; i < plan_.members.size(); ++i) {
            Member& member = plan_.members[i];
            const auto reason = reasons.find(member.mac);
            if (reason != reasons.end()) {
                member.code = ExitCode::kRefused;
                member.text = reason->second;
            }
        }
        for (std::string& text : Conflicts(found_)) {
            plan_.warnings.push_back(std::move(text));
        }
    }

    // A device that does not answer here is asked again before its upload.
    void AskIdentity(Member* member) const {
        if (member->address.empty() || member->code != ExitCode::kDone) {
            return;
        }
        try {
            Connected connected =
                ConnectAny(member->address, member->commandPort, request_.times.connect);
            ProtocolClient client(std::move(connected.fd), request_.times.reply);
            (void)client.Login();
            CheckIdentity(request_.ic, request_.sensor, client.Info());
        } catch (const ToolError& error) {
            if (error.Code() == ExitCode::kInterrupted) {
                throw;
            }
            if (error.Code() == ExitCode::kRefused) {
                member->code = error.Code();
                member->text = error.what();
            }
        }
    }

    const PlanRequest& request_;
    DiscoveryResult found_;
    Plan plan_;
    size_t known_ = 0;  // members from the journal
};

// Refused by this plan. What an earlier run refused has failed there, and is tried again.
bool Refused(const Member& member) {
    return member.code == ExitCode::kRefused && member.progress.state == State::kPlanned;
}

}  // namespace

bool WillStart(const Member& member) {
    return NextFor(member.progress) == Next::kLook ||
           (NextFor(member.progress) == Next::kUpgrade && !Refused(member));
}

std::string Intention(const Member& member) {
    const fleet::Progress& progress = member.progress;
    if (progress.state == State::kDone) {
        return "nothing: it was seen alive in an earlier run";
    }
    if (NextFor(progress) == Next::kLook) {
        return progress.reached == State::kAccepted
                   ? "look at it again, do not upgrade: it accepted in an earlier run"
                   : "look at it first: in doubt since an earlier run";
    }
    if (Refused(member)) {
        return "it will not be upgraded: " + member.text;
    }
    if (progress.state == State::kFailed && member.code == ExitCode::kRefused) {
        return "upgrade unless it is refused again: " + member.text;
    }
    if (progress.attempts > 0) {
        return "upgrade again: an earlier run ended while " +
               std::string(StateName(progress.reached));
    }
    return member.address.empty() ? "upgrade if it answers by then; it does not answer now"
                                  : "upgrade";
}

Json PlanJson(const Plan& plan) {
    Json devices = Json::array();
    for (const Member& member : plan.members) {
        Json device = MemberJson(member);
        device["intention"] = Intention(member);
        device["will_start"] = WillStart(member);
        devices.push_back(std::move(device));
    }
    return {{"devices", devices}, {"warnings", plan.warnings}};
}

Member MemberOf(const FoundDevice& device, std::optional<uint16_t> port) {
    Member member;
    member.id = member.mac = device.reply.mac;
    member.address = device.senders.front();
    member.firmware = device.reply.firmware;
    member.commandPort = port.value_or(device.reply.commandPort);
    member.alivePort = device.reply.rtspPort;
    return member;
}

Plan MakePlan(const PlanRequest& request, std::vector<Member> members) {
    return Planner(request, std::move(members)).Make();
}

}  // namespace kvtool::fleet
