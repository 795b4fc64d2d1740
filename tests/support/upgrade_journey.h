// Takes a package to a fake device as `kvtool upgrade` does, and follows the device.
#pragma once

#include "tests/support/fake_device.h"
#include "tools/device/follow.h"
#include "tools/device/upgrade_session.h"

namespace fake {

using kvtool::Millis;

// Limits are long, because a slow machine must not make a case reach one by accident. A case that
// must reach a limit shortens that limit.
constexpr Millis kLong{20000};
constexpr Millis kShort{200};

inline kvtool::UpgradeTimes TestTimes() {
    kvtool::UpgradeTimes times;
    times.connect = times.reply = times.stall = times.verify = kLong;
    times.leave = times.back = times.probeReply = kLong;
    times.headerGap = Millis(20);
    times.firstLook = Millis(50);
    times.probeEvery = Millis(50);
    times.ask = Millis(200);
    times.search = Millis(5000);
    times.searchEvery = Millis(100);
    return times;
}

// A byte pattern whose period is not the size of a read or a send.
inline kvtool::Bytes Pattern(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    return bytes;
}

// The exit code of `work`, or of the error that it throws.
inline kvtool::ExitCode CodeOf(const std::function<kvtool::ExitCode()>& work) {
    try {
        return work();
    } catch (const kvtool::ToolError& error) {
        return error.Code();
    }
}

class JourneyListener : public kvtool::UpgradeListener {
  public:
    void Line(const std::string& text) override {
        if (onText && text.find(waitedFor) != std::string::npos) {
            onText();
        }
    }
    void Progress(const kvtool::UploadProgress& progress) override {
        EXPECT_GE(progress.acknowledged, last);
        last = progress.acknowledged;
    }
    std::string waitedFor;
    std::function<void()> onText;  // called at each line that contains `waitedFor`
    uint64_t last = 0;
};

// Everything from connecting to the last observation.
struct Journey {
    std::string host = "127.0.0.1";
    bool follow = true;
    kvtool::FollowTarget target;  // the session sets endpoint and local
    std::string waitedFor;
    std::function<void()> onText;
    kvtool::UpgradeTimes times = TestTimes();
    kvtool::UpgradeRecord record;

    kvtool::ExitCode Of(const Device& device, const Bytes& package) {
        return CodeOf([&] {
            JourneyListener listener;
            listener.waitedFor = waitedFor;
            listener.onText = onText;
            kvtool::UpgradeSession session(times, &listener, &record);
            session.Connect(host, device.Port());
            session.Login();
            session.Identify();
            session.Upload(package);
            target.endpoint = session.Peer();
            target.local = kvtool::LocalEnd(session.Fd());
            return follow ? kvtool::Follow(target, session.Fd(), times, &listener, &record)
                          : kvtool::ExitCode::kDone;
        });
    }
};

}  // namespace fake
