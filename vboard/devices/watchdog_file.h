// The watchdog as /dev/watchdog, with a thread that notices when it starves.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/kv_raii.h"
#include "vboard/devices/flash_file.h"
#include "vboard/devices/watchdog_timer.h"

namespace vboard {

// The hardware. It outlives the attachments.
struct SharedWatchdog {
    std::mutex mutex;
    WatchdogTimer timer;
};

// Answers on the serving thread, so that a feed never waits for the flash chip.
class WatchdogFile : public DeviceFile {
  public:
    // Powers the watchdog on. `starved` is called at most once, on a thread of this object.
    WatchdogFile(SharedWatchdog& watchdog, Bench bench, std::function<void()> starved);
    // Powers the watchdog off.
    ~WatchdogFile() override;

    const std::string& Name() const override { return name_; }
    uint64_t Size() const override { return 0; }
    bool Seekable() const override { return false; }

    int Open() override;
    void Release() override;
    void Read(fuse_req_t request, size_t length, uint64_t offset) override;
    void Write(fuse_req_t request, const void* data, size_t length, uint64_t offset) override;
    void Ioctl(fuse_req_t request, const IoctlCall& call) override;

    // Blocks until the thread has ended. Call it after raising the bench's stop.
    void Join();

  private:
    struct Answer {
        int result = 0;
        std::vector<char> out = {};
        std::optional<int> value = {};  // for the log
    };
    // Runs `operation` on the timer, under its lock, and sets the alarm for the new deadline.
    template <typename Operation>
    auto Do(Operation operation);
    Answer Execute(const IoctlCall& call);
    void Watch();

    const std::string name_ = kWatchdog;
    SharedWatchdog& watchdog_;
    Bench bench_;
    std::function<void()> starved_;
    UniqueFd alarm_;
    std::thread thread_;
};

}  // namespace vboard
