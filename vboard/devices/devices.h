// The virtual board's devices: NOR flash partitions and the hardware watchdog, served to the board
// over FUSE. One Devices object lives as long as the board is "on the bench"; a boot attaches to
// it, a reset detaches.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vboard {

struct PartitionConfig {
    std::string name;   // "mtd0" … "mtd7"
    std::string file;   // backing file; created full of 0xFF when absent, resized never
    uint64_t size = 0;  // bytes, a multiple of the erase block
};

struct DevicesConfig {
    std::vector<PartitionConfig> partitions;
    uint32_t eraseBlock = 65536;
    bool norTiming = false;  // erase and program take the times of a real SPI NOR
    std::string opLogFile;   // one JSON object a line, appended
};

// The next operations of a device fail. `operation` is one of "open", "ioctl", "erase", "write",
// "read".
struct Fault {
    std::string device;  // "mtd0" … or "watchdog"
    std::string operation;
    int error = 0;            // errno of the failure; 0 with shortBytes for a short write
    uint32_t shortBytes = 0;  // "write": accept this many bytes only
    uint32_t skip = 0;        // let this many matching operations pass first
    uint32_t count = 1;       // then fail this many
};

struct WatchdogStatus {
    bool open = false;
    bool armed = false;
    int timeoutSeconds = 0;
    double secondsSinceFeed = 0;  // meaningful while armed
    uint64_t feeds = 0;           // since the board was switched on
};

class Devices {
  public:
    // Throws std::runtime_error with one clear sentence when a backing file is unusable.
    explicit Devices(const DevicesConfig& config);
    ~Devices();
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

    // Called from the watchdog's thread when the board was starved; at most once an attachment.
    void OnWatchdogReset(std::function<void()> callback);

    // Serves one boot on `fuseFd`, an open /dev/fuse that the caller has already mounted; owns it
    // from now on. Files at the root of that file system: every partition's name and "watchdog".
    // Returns at once; requests are answered on threads of this object. The watchdog starts in its
    // power-on state: disarmed. `boot` goes into the operation log. `boardPidOf` is not needed:
    // requests carry the caller's pid as seen by this process.
    void Attach(int fuseFd, int boot);
    // Ends the attachment: the watchdog stops, pending requests fail. Call after the board's
    // processes are gone. Any thread but the callback's; blocks until the serving threads have
    // ended.
    void Detach();

    void AddFault(const Fault& fault);
    WatchdogStatus Watchdog() const;
    // Free text note in the operation log, e.g. a boot or a reset with its reason.
    void Note(const std::string& operation, const std::string& text);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vboard
