#include "tools/device/follow.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <optional>

#include "tools/device/discovery_client.h"
#include "tools/device/probe.h"

namespace kvtool {

namespace {

// One missing or wrong answer may be a lost packet, a busy device or another client's reply. A
// refused connection is certain at once.
constexpr int kMissesThatCount = 2;

std::string Text(Millis time) {
    return SecondsText(Seconds(time));
}

class Follower {
  public:
    Follower(FollowTarget target, int upgradeFd, const UpgradeTimes& times,
             UpgradeListener* listener, UpgradeRecord* record)
        : target_(std::move(target)),
          upgradeFd_(upgradeFd),
          times_(times),
          listener_(listener),
          record_(record),
          portWasClosed_(target_.alivePortClosed) {}

    ExitCode Run() {
        Assume(
            "the device now stops its application, flashes and restarts; it does not report on "
            "this");
        for (;;) {
            const Clock::time_point lookedAt = Clock::now();
            moved_ = false;
            ProbeResult probe =
                Probe(target_.endpoint, target_.local, times_.probeReply, times_.probeReply);
            if (probe.text != lastText_) {
                lastText_ = probe.text;
                Observe(probe.text);
            }
            const bool stranger = IsStranger(probe);
            if (stranger) {
                probe.state = ProbeState::kOther;
            }
            if (IsBack(probe)) {
                return ExitCode::kBackInRecovery;
            }
            if (!stranger && IsAlive(probe)) {
                return ExitCode::kDone;
            }
            SearchIfAway(probe, false);
            WatchConnection(Clock::now() + times_.probeEvery);
            if (probe.state == ProbeState::kBlind) {
                blind_ += std::chrono::duration_cast<Millis>(Clock::now() - lookedAt);
            }
            if (const auto end = EndOfTime(probe)) {
                return *end;
            }
        }
    }

  private:
    void Observe(const std::string& text) {
        const std::string line =
            text + " (" + SecondsText(SecondsSince(start_)) + " after acceptance)";
        record_->observed.push_back(line);
        listener_->Line("observed: " + line);
    }
    void Assume(const std::string& text) {
        record_->assumed.push_back(text);
        listener_->Line("assumed: " + text);
    }

    // Whether the device is back in recovery mode after a restart.
    bool IsBack(const ProbeResult& probe) {
        if (probe.state == ProbeState::kBlind) {
            return false;
        }
        if (probe.state == ProbeState::kRecovery) {
            misses_ = 0;
            if (probe.session != record_->session) {
                SayBack();
                return true;
            }
            if (left_) {
                left_ = false;
                Observe("it still has the session of this upgrade, so it has not restarted");
            }
            return false;
        }
        ++misses_;
        if (!left_ && (probe.state == ProbeState::kRefused || misses_ >= kMissesThatCount)) {
            left_ = true;
            leftAt_ = Clock::now();
            blind_ = Millis(0);
            Observe("it no longer answers in recovery mode");
        }
        return false;
    }

    // Whether another device has the address now. `reply_` gets the search reply from there, which
    // may be the device's own.
    bool IsStranger(const ProbeResult& probe) {
        if (probe.state != ProbeState::kRecovery || probe.session == record_->session) {
            return false;
        }
        reply_ = AskAt(target_.endpoint.host, target_.discoveryPort, times_.ask);
        if (!reply_ || reply_->mac.empty() || target_.mac.empty() || reply_->mac == target_.mac) {
            return false;
        }
        ObserveOnce("another device answers there now: its MAC address is " + reply_->mac +
                    " instead of " + target_.mac);
        return true;
    }

    void SayBack() {
        Observe("back in recovery mode: its session is new, so its services have restarted");
        if (reply_) {
            (void)SayVersion(*reply_);
        }
        Assume(
            "the upgrade is over; a device with an installed application does not normally stay in "
            "recovery mode");
    }

    // Whether the reply names the expected version.
    bool SayVersion(const DiscoveryReply& reply) {
        const bool expected = IsVersion(reply.firmware, target_.version);
        std::string text = "its firmware is " + Printable(reply.firmware);
        if (!expected && !target_.version.empty()) {
            text += " instead of " + Printable(target_.version);
        }
        ObserveOnce(text);
        return expected;
    }

    // Whether the application runs: its port has been seen closed and is open now, and the device
    // does not answer in recovery mode.
    bool IsAlive(const ProbeResult& probe) {
        if (target_.alivePort == 0 || (!left_ && portWasClosed_)) {
            return false;
        }
        const PortState port =
            LookAtPort(target_.endpoint, target_.alivePort, target_.local, times_.probeReply);
        portWasClosed_ = portWasClosed_ || port == PortState::kClosed;
        if (!left_ || !portWasClosed_ || port != PortState::kOpen ||
            probe.state == ProbeState::kRecovery) {
            return false;
        }
        ObserveOnce("alive: port " + std::to_string(target_.alivePort) + " accepts connections");
        if (target_.version.empty()) {
            return true;
        }
        const auto reply = AskAt(target_.endpoint.host, target_.discoveryPort, times_.ask);
        return reply && SayVersion(*reply);
    }

    // A device may come back under another address.
    void SearchIfAway(const ProbeResult& probe, bool now) {
        if (!left_ || target_.mac.empty() || probe.state == ProbeState::kRecovery ||
            (!now && Clock::now() - searchedAt_ < times_.searchEvery)) {
            return;
        }
        searchedAt_ = Clock::now();
        DiscoveryRequest request;
        request.port = target_.discoveryPort;
        request.timeout = times_.search;
        const FoundDevice* found = nullptr;
        DiscoveryResult result;
        try {
            result = Discover(request, [this](const FoundDevice& device) {
                return device.reply.mac == target_.mac;
            });
            found = FindMac(result, target_.mac);
        } catch (const ToolError& error) {
            if (error.Code() != ExitCode::kUnreachable) {
                throw;
            }
            ObserveOnce(std::string("this PC cannot search: ") + error.what());
        }
        if (found != nullptr && found->senders.front() != target_.endpoint.host) {
            const std::string& address = found->senders.front();
            Observe(target_.mac + " answers a search from another address, " + address);
            target_.endpoint = Resolve(address, found->reply.commandPort).front();
            target_.local = Endpoint();
            record_->address = target_.endpoint.text;
            moved_ = true;
        }
    }

    // The exit code once time is up without a decision. Time in which this PC could not look does
    // not count against a limit, but the sum of both limits ends every wait.
    std::optional<ExitCode> EndOfTime(const ProbeResult& probe) {
        const Clock::time_point now = Clock::now();
        const bool last = now - start_ >= times_.leave + times_.back;
        if (!left_ && (last || now - start_ - blind_ >= times_.leave)) {
            const std::string blind =
                blind_ == Millis(0) ? "" : "; for " + Text(blind_) + " this PC could not look";
            Observe("not seen to leave recovery mode within " + Text(times_.leave) + blind);
            return ExitCode::kNeverLeft;
        }
        if (!left_ || !(last || now - leftAt_ - blind_ >= times_.back)) {
            return std::nullopt;
        }
        if (!moved_) {
            SearchIfAway(probe, true);
        }
        if (moved_ && !last) {
            return std::nullopt;
        }
        SayNotSeenAlive();
        return ExitCode::kNotSeenAlive;
    }

    void SayNotSeenAlive() {
        std::string text = "not seen alive within " + Text(times_.back);
        if (target_.alivePort == 0) {
            text += ": the port of its application is not known; name it with --expect-port";
        } else if (!portWasClosed_) {
            text += ": port " + std::to_string(target_.alivePort) +
                    " was never seen closed, so it proves nothing";
        } else if (!target_.version.empty()) {
            text += " with port " + std::to_string(target_.alivePort) + " open and firmware " +
                    Printable(target_.version);
        } else {
            text += ": port " + std::to_string(target_.alivePort) + " was not seen open";
        }
        Observe(text);
        Assume(
            "the device is in normal mode or does not start at all; from here both look the same");
    }

    void ObserveOnce(const std::string& text) {
        if (std::find(told_.begin(), told_.end(), text) == told_.end()) {
            told_.push_back(text);
            Observe(text);
        }
    }

    // Reports once that the device is still sending. Discards the rest, a bounded amount each time.
    void WatchConnection(Clock::time_point until) {
        size_t budget = kMostThrownAway;
        while (upgradeFd_ >= 0 && budget > 0 && Clock::now() < until &&
               WaitFor(upgradeFd_, POLLIN, until) != 0) {
            std::array<uint8_t, 16384> data;
            const Received received = ReceiveNow(upgradeFd_, data.data(), data.size());
            if (received.state == ReceiveState::kClosed) {
                upgradeFd_ = -1;
                Observe("the connection of the upgrade has ended: " + received.error);
            } else if (received.state == ReceiveState::kData && !talked_) {
                talked_ = true;
                Observe("the device sends more bytes; the first ones are " +
                        Hex(data.data(), std::min<size_t>(received.size, 32), " "));
            }
            budget -= std::min(budget, received.size);
        }
        WaitUntil(until);
    }

    static constexpr size_t kMostThrownAway = size_t{1} << 20;

    FollowTarget target_;
    int upgradeFd_;
    const UpgradeTimes& times_;
    UpgradeListener* listener_;
    UpgradeRecord* record_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point leftAt_;
    Clock::time_point searchedAt_ = start_;
    Millis blind_{0};  // since the start, or since it left
    bool left_ = false;
    bool moved_ = false;  // to an address that has not been probed yet
    bool portWasClosed_;
    bool talked_ = false;
    int misses_ = 0;
    std::optional<DiscoveryReply> reply_;
    std::string lastText_;
    std::vector<std::string> told_;
};

}  // namespace

const char* OutcomeText(ExitCode code) {
    switch (code) {
        case ExitCode::kDone:
            return "accepted by the device; its application is alive";
        case ExitCode::kBackInRecovery:
            return "accepted by the device; it has restarted and is back in recovery mode";
        case ExitCode::kNotSeenAlive:
            return "accepted by the device; it left recovery mode, but was not seen alive again";
        default:
            return "accepted by the device; it was not seen to leave recovery mode";
    }
}

bool IsVersion(const std::string& firmware, const std::string& version) {
    const size_t mark = firmware.rfind("_V");
    return firmware == version ||
           (mark != std::string::npos && firmware.substr(mark + 2) == version);
}

ExitCode Follow(const FollowTarget& target, int upgradeFd, const UpgradeTimes& times,
                UpgradeListener* listener, UpgradeRecord* record) {
    return Follower(target, upgradeFd, times, listener, record).Run();
}

}  // namespace kvtool
