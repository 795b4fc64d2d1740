// One attempt to upgrade one device.
#pragma once

#include <optional>
#include <string>

#include "tools/device/device_lock.h"
#include "tools/device/follow.h"
#include "tools/fleet/runner.h"

namespace kvtool::fleet {

// The journal could not be written. The step that the line announces was not taken.
class JournalLost : public ToolError {
  public:
    explicit JournalLost(const std::string& text) : ToolError(ExitCode::kInternal, text) {}
};

class Attempt : private UpgradeListener {
  public:
    Attempt(Runner* runner, size_t index, Member member)
        : runner_(runner), request_(runner->request_), index_(index), member_(std::move(member)) {
        record_.mac = member_.mac;
        member_.observed.clear();
        member_.assumed.clear();
    }

    // Leaves the member done or failed. Throws ToolError(kInterrupted).
    void Upgrade();
    // Finds out what became of a device that may have accepted. Leaves the member done or failed.
    // If the device has certainly not accepted, leaves the member looking, ready to be upgraded.
    // Throws ToolError(kInterrupted).
    void Look();

  private:
    void Line(const std::string& text) override;
    void Progress(const UploadProgress& progress) override;
    void Before(UpgradeStep step) override;

    void Send();
    void Take(const FoundDevice& device);
    // Throws ToolError(kRefused) if the device must not be upgraded.
    void Judge();
    bool Locate();
    bool AskThere();
    bool SearchFor(bool amongAll);
    void SeePortClosed(const UpgradeSession& session);
    ExitCode FollowOn(const Endpoint& endpoint, const Endpoint& local, int fd);
    bool CertainlyNotAccepted(const Endpoint& endpoint);
    void End(ExitCode code, const std::string& text);
    std::string Outcome(ExitCode code) const;

    Runner* runner_;
    const RunRequest& request_;
    size_t index_;
    Member member_;
    FoundDevice found_;  // by Locate
    UpgradeRecord record_;
    std::optional<DeviceLock> lock_;
};

}  // namespace kvtool::fleet
