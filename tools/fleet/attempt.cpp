#include "tools/fleet/attempt.h"

#include <utility>

#include "tools/device/probe.h"
#include "tools/fleet/plan.h"

namespace kvtool::fleet {

void Attempt::Line(const std::string& text) {
    runner_->Tell([&](RunListener* listener) { listener->Line(index_, text); });
}

void Attempt::Progress(const UploadProgress& progress) {
    runner_->Tell([&](RunListener* listener) { listener->Progress(index_, progress); });
}

void Attempt::Before(UpgradeStep step) {
    runner_->Enter(index_, &member_,
                   step == UpgradeStep::kUpload ? State::kUploading : State::kFinishing);
}

// For a device that is alive, the observation alone is enough.
std::string Attempt::Outcome(ExitCode code) const {
    const std::string seen = record_.observed.empty() ? "" : record_.observed.back();
    return code == ExitCode::kDone ? seen : OutcomeText(code) + ("; " + seen);
}

void Attempt::End(ExitCode code, const std::string& text) {
    member_.code = code;
    member_.text = text;
    member_.observed = record_.observed;
    member_.assumed = record_.assumed;
    runner_->Enter(index_, &member_, code == ExitCode::kDone ? State::kDone : State::kFailed);
}

void Attempt::Upgrade() {
    try {
        runner_->Enter(index_, &member_, State::kConnecting);
        Send();
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            throw;
        }
        End(error.Code(), error.what());
    }
}

void Attempt::Take(const FoundDevice& device) {
    const Member found = MemberOf(device, request_.port);
    member_.mac = found.mac;
    member_.address = found.address;
    member_.firmware = found.firmware;
    member_.commandPort = found.commandPort;
    member_.alivePort = request_.alivePort.value_or(found.alivePort);
    found_ = device;
}

// Another device may have the MAC address of a device that was refused. Only a search among all
// devices shows that.
bool Attempt::Locate() {
    const bool refused = member_.code == ExitCode::kRefused;
    return refused ? SearchFor(true) || AskThere() : AskThere() || SearchFor(false);
}

// Asks at the last known address.
bool Attempt::AskThere() {
    const std::string& host = member_.address.empty() ? member_.id : member_.address;
    if (host == member_.mac) {
        return false;
    }
    const auto reply = AskAt(host, request_.discovery.port, request_.times.ask);
    const bool found = reply && (member_.mac.empty() || reply->mac == member_.mac);
    if (found) {
        Take({*reply, {host}});
    }
    return found;
}

// Searches for the MAC address. The search ends with the first answer unless it is among all.
bool Attempt::SearchFor(bool amongAll) {
    if (member_.mac.empty()) {
        return false;
    }
    DiscoveryResult result;
    try {
        result = Discover(request_.discovery, [&](const FoundDevice& device) {
            return !amongAll && device.reply.mac == member_.mac;
        });
    } catch (const ToolError& error) {
        if (error.Code() != ExitCode::kUnreachable) {
            throw;
        }
    }
    const auto reasons = Confusable(result);
    const auto reason = reasons.find(member_.mac);
    if (reason != reasons.end()) {
        throw ToolError(ExitCode::kRefused, reason->second);
    }
    const FoundDevice* const device = FindMac(result, member_.mac);
    if (device != nullptr) {
        Take(*device);
    }
    return device != nullptr;
}

// An open port proves life only if it was closed in recovery mode.
void Attempt::SeePortClosed(const UpgradeSession& session) {
    if (member_.alivePort != 0) {
        member_.alivePortClosed =
            LookAtPort(session.Peer(), member_.alivePort, LocalEnd(session.Fd()),
                       request_.times.probeReply) == PortState::kClosed;
    }
}

void Attempt::Judge() {
    if (found_.reply.mac.empty()) {
        throw ToolError(
            ExitCode::kRefused,
            "it does not report its MAC address, so kvtool could not recognize it later; "
            "nothing was sent");
    }
    if (!request_.matcher.Matches(found_)) {
        throw ToolError(ExitCode::kRefused,
                        "it is not among the devices of --match; nothing was sent");
    }
}

void Attempt::Send() {
    const bool unknown = member_.mac.empty();
    const bool unjudged = unknown || member_.address.empty() || member_.code == ExitCode::kRefused;
    if (!Locate()) {
        throw ToolError(ExitCode::kUnreachable, "it answers no search; nothing was sent");
    }
    if (unjudged) {
        Judge();
    }
    if (unknown && !runner_->Claim(index_, member_.mac)) {
        const std::string mac = std::exchange(member_.mac, "");
        throw ToolError(ExitCode::kRefused,
                        "it is " + mac + ", which is in this run already; nothing was sent");
    }
    record_.mac = member_.mac;
    lock_.emplace(member_.mac);
    UpgradeSession session(request_.times, this, &record_);
    session.Connect(member_.address, member_.commandPort);
    session.Login();
    session.Identify();
    CheckIdentity(request_.ic, request_.sensor, record_.device);
    member_.session = record_.session;
    SeePortClosed(session);
    session.Upload(request_.package);
    runner_->Enter(index_, &member_, State::kAccepted);
    const ExitCode code = FollowOn(session.Peer(), LocalEnd(session.Fd()), session.Fd());
    End(code, Outcome(code));
}

ExitCode Attempt::FollowOn(const Endpoint& endpoint, const Endpoint& local, int fd) {
    FollowTarget target;
    target.endpoint = endpoint;
    target.local = local;
    target.mac = member_.mac;
    target.discoveryPort = request_.discovery.port;
    target.alivePort = member_.alivePort;
    target.alivePortClosed = member_.alivePortClosed;
    target.version = request_.expectVersion;
    record_.address.clear();
    const ExitCode code = Follow(target, fd, request_.times, this, &record_);
    // "ADDRESS:PORT" where the device came back, if the address is a new one.
    const size_t port = record_.address.rfind(':');
    member_.address = port == std::string::npos ? member_.address : record_.address.substr(0, port);
    return code;
}

// An upgrade ends with a restart. A device that still has the session of the upload after the
// leave time-out has not started one.
bool Attempt::CertainlyNotAccepted(const Endpoint& endpoint) {
    const ProbeResult probe =
        Probe(endpoint, Endpoint(), request_.times.probeReply, request_.times.probeReply);
    return member_.progress.reached == State::kFinishing && probe.state == ProbeState::kRecovery &&
           probe.session == member_.session;
}

void Attempt::Look() {
    try {
        runner_->Enter(index_, &member_, State::kLooking);
        lock_.emplace(member_.mac);
        record_.session = member_.session;
        // A device that runs its application answers no search. Its last address is used then.
        (void)Locate();
        const Endpoint endpoint = Resolve(member_.address, member_.commandPort).front();
        const ExitCode code = FollowOn(endpoint, Endpoint(), -1);
        if (code == ExitCode::kNeverLeft && CertainlyNotAccepted(endpoint)) {
            Line("it has not accepted the package: it still holds the session of that upload");
            member_.progress.reached = State::kUploading;
            runner_->Settle(index_, member_);
            return;
        }
        const std::string doubt = member_.progress.reached == State::kFinishing
                                      ? "was in doubt, may have taken the package: "
                                      : "had accepted in an earlier run: ";
        End(code, doubt + Outcome(code));
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            throw;
        }
        End(error.Code(), error.what());
    }
}

}  // namespace kvtool::fleet
