#include "tools/device/follow.h"

#include <poll.h>

namespace kvtool {

namespace {

// A single missing or wrong answer may be a lost packet, a busy device or another client's reply; a
// refused connection is certain at once.
constexpr int kMissesThatCount = 2;

class Follower {
  public:
    Follower(const Endpoint& endpoint, int upgradeFd, const UpgradeTimes& times,
             UpgradeListener* listener, UpgradeRecord* record)
        : endpoint_(endpoint),
          upgradeFd_(upgradeFd),
          times_(times),
          listener_(listener),
          record_(record) {}

    ExitCode Run() {
        Assume(
            "the device stops its application, flashes and restarts; it does not report on this");
        for (;;) {
            const ProbeResult probe = Probe(endpoint_, times_.probeReply, times_.probeReply);
            if (probe.text != lastText_) {
                lastText_ = probe.text;
                Observe(probe.text);
            }
            if (Judge(probe)) {
                Assume(
                    "the upgrade is over; a device whose application is installed would not "
                    "normally serve recovery mode");
                return ExitCode::kBackInRecovery;
            }
            if (left_ && Clock::now() - leftAt_ >= times_.back) {
                Assume(
                    "no longer in recovery mode: assumed in normal mode (a device that does not "
                    "start at all looks the same from here)");
                return ExitCode::kDone;
            }
            if (!left_ && Clock::now() - start_ >= times_.leave) {
                Observe("not seen to leave recovery mode within " +
                        SecondsText(std::chrono::duration<double>(times_.leave).count()));
                return ExitCode::kNeverLeft;
            }
            WatchConnection(Clock::now() + times_.probeEvery);
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
    bool Judge(const ProbeResult& probe) {
        if (probe.state == ProbeState::kRecovery) {
            misses_ = 0;
            if (probe.session != record_->session) {
                Observe(
                    "back in recovery mode: its session is a new one, so its services have "
                    "restarted");
                return true;
            }
            if (left_) {
                left_ = false;
                Observe("it still holds the session of this upgrade: it has not restarted");
            }
            return false;
        }
        ++misses_;
        if (!left_ && (probe.state == ProbeState::kRefused || misses_ >= kMissesThatCount)) {
            left_ = true;
            leftAt_ = Clock::now();
            Observe("it no longer serves recovery mode");
        }
        return false;
    }

    void WatchConnection(Clock::time_point until) {
        while (upgradeFd_ >= 0 && WaitFor(upgradeFd_, POLLIN, until) != 0) {
            uint8_t data[64];
            const Received received = ReceiveNow(upgradeFd_, data, sizeof data);
            if (received.state == ReceiveState::kClosed) {
                upgradeFd_ = -1;
                Observe("the connection of the upgrade has ended: " + received.error);
            } else if (received.state == ReceiveState::kData) {
                Observe("the device sent " + std::to_string(received.size) +
                        " further bytes: " + Hex(data, received.size, " "));
            }
        }
        WaitUntil(until);
    }

    const Endpoint& endpoint_;
    int upgradeFd_;
    const UpgradeTimes& times_;
    UpgradeListener* listener_;
    UpgradeRecord* record_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point leftAt_;
    bool left_ = false;
    int misses_ = 0;
    std::string lastText_;
};

}  // namespace

ProbeResult Probe(const Endpoint& endpoint, Millis connect, Millis reply) {
    Connection connection = Connect(endpoint, Clock::now() + connect);
    switch (connection.state) {
        case ConnectState::kRefused:
            return {ProbeState::kRefused, 0, endpoint.text + " refuses connections"};
        case ConnectState::kUnreachable:
        case ConnectState::kTimedOut:
            return {ProbeState::kUnreachable, 0,
                    endpoint.text + " cannot be reached: " + connection.error};
        case ConnectState::kConnected:
            break;
    }
    try {
        const uint32_t session = ProtocolClient(std::move(connection.fd), reply).Login();
        return {ProbeState::kRecovery, session, endpoint.text + " answers in recovery mode"};
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kNoReply) {
            return {ProbeState::kSilent, 0, endpoint.text + " accepts connections but is silent"};
        }
        if (error.Code() == ExitCode::kBadReply || error.Code() == ExitCode::kLost) {
            return {ProbeState::kOther, 0,
                    endpoint.text + " accepts connections but does not answer as in recovery mode"};
        }
        throw;
    }
}

ExitCode Follow(const Endpoint& endpoint, int upgradeFd, const UpgradeTimes& times,
                UpgradeListener* listener, UpgradeRecord* record) {
    return Follower(endpoint, upgradeFd, times, listener, record).Run();
}

}  // namespace kvtool
