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
    int speed = 1;           // how fast the board's clock runs: the watchdog's, the flash chip's
};

// The next operations of a device fail. `operation` is one of "open", "ioctl", "erase", "write",
// "read". "erase" is MEMERASE, "ioctl" every other request meant for the device (all of the
// watchdog's). A failed operation changes nothing; a fault not used up goes on with the next boot.
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
    int timeoutSeconds = 0;       // seconds of the board's clock, as the next
    double secondsSinceFeed = 0;  // meaningful while armed
    uint64_t feeds = 0;           // since this Devices object exists, resets included
    // Longest time between two feeds, or between arming and the first feed; resets do not clear it.
    double largestGapSeconds = 0;
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
    // power-on state: disarmed. `boot` goes into the operation log.
    // Ends an earlier attachment first. Throws std::runtime_error when the descriptor is unusable.
    //
    // Call mount(2) from this process's PID namespace: an argument of WDIOC_SETOPTIONS is read from
    // its caller's memory, and the kernel numbers callers as the mounting process would. The
    // process that called unshare(CLONE_NEWPID) is still in the old namespace, its children are
    // not. Mounted from elsewhere, WDIOC_SETOPTIONS fails with EFAULT and says so on stderr.
    //
    // Keep no duplicate of fuseFd, in a forked process neither: only when the last one is closed
    // does the kernel let go of processes that wait for a device.
    void Attach(int fuseFd, int boot);
    // Ends the attachment: the watchdog stops, pending requests fail. Best called after the
    // board's processes are gone, but a process that waits for a slow erase cannot even be killed
    // before the chip is done or Detach has cut the erase short. Any thread but the callback's;
    // blocks until the serving threads have ended, which takes milliseconds.
    void Detach();

    // Throws std::runtime_error for a device or operation that does not exist.
    void AddFault(const Fault& fault);
    WatchdogStatus Watchdog() const;
    // Free text note in the operation log, e.g. a boot or a reset with its reason. Lines of the
    // log are described in op_log.h.
    void Note(const std::string& operation, const std::string& text);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vboard
