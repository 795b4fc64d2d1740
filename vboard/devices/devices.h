// The board's devices, served over FUSE: NOR flash partitions and the hardware watchdog. The
// Devices object lives as long as the runner; each boot attaches to it, each reset detaches.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vboard {

constexpr char kWatchdog[] = "watchdog";
constexpr char kAnyPartition[] = "flash";  // in a Fault: whichever partition comes next

struct PartitionConfig {
    std::string name;   // "mtd0" … "mtd7"
    std::string file;   // backing file; created full of 0xFF if absent, never resized
    uint64_t size = 0;  // bytes, a multiple of the erase block
};

struct DevicesConfig {
    std::vector<PartitionConfig> partitions;
    uint32_t eraseBlock = 65536;
    bool norTiming = false;  // erasing and programming take as long as on a real SPI NOR
    std::string opLogFile;   // appended to, one JSON object a line
    int speed = 1;           // of the board's clock, which the watchdog and the flash chip use
};

// Makes the next operations of a device fail. `operation` is "open", "ioctl", "erase", "write" or
// "read". "erase" is MEMERASE; "ioctl" is every other request for the device (for the watchdog, all
// of them). A failed operation changes nothing. What is left of a fault applies to the next boot.
struct Fault {
    std::string device;  // "mtd0" …, kAnyPartition or kWatchdog
    std::string operation;
    int error = 0;            // errno of the failure; 0 with shortBytes for a short write
    uint32_t shortBytes = 0;  // "write": accept only this many bytes
    uint32_t skip = 0;        // let this many matching operations succeed first
    uint32_t count = 1;       // then fail this many
};

// Cuts the power at a step of the flash chip. A step is the erasure of a block or the programming
// of a page (256 bytes), on whichever partition. They are counted from 1 from the moment this is
// set, across boots.
struct PowerCut {
    enum class Place { kAfter, kFirstHalf, kSecondHalf };
    uint64_t step = 0;  // 0: no cut
    Place place = Place::kAfter;
};

struct WatchdogStatus {
    bool open = false;
    bool armed = false;
    int timeoutSeconds = 0;       // in seconds of the board's clock, like the next two
    double secondsSinceFeed = 0;  // meaningful while armed
    uint64_t feeds = 0;           // of all boots
    // Longest time between two feeds, or between arming and the first feed, of all boots.
    double largestGapSeconds = 0;
};

class Devices {
  public:
    // Throws std::runtime_error with one clear sentence when a backing file is unusable.
    explicit Devices(const DevicesConfig& config);
    ~Devices();
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

    // Called on the watchdog's thread when the watchdog has starved; at most once per attachment.
    void OnWatchdogReset(std::function<void()> callback);
    // Called on the chip's thread when a PowerCut happens. From then on the flash changes nothing
    // and answers nothing until the attachment ends, so that no program sees the cut.
    void OnPowerCut(std::function<void()> callback);

    // Serves one boot on `fuseFd`, an open /dev/fuse that the caller has mounted, and takes
    // ownership of it. The root of that file system holds a file for each partition and "watchdog".
    // Returns at once; threads of this object answer the requests. The watchdog starts disarmed.
    // `boot` goes into the operation log. Ends an earlier attachment first. Throws
    // std::runtime_error when the descriptor cannot be used.
    //
    // Call mount(2) from this process's PID namespace: the argument of WDIOC_SETOPTIONS is read
    // from its caller's memory, and the kernel gives callers' ids in the mounting process's
    // namespace. A process that calls unshare(CLONE_NEWPID) stays in the old namespace; only its
    // children enter the new one. After a mount from another namespace, WDIOC_SETOPTIONS fails with
    // EFAULT and a message on stderr.
    //
    // Keep no duplicate of fuseFd, not even in a forked process: the kernel releases processes that
    // wait for a device only when the last one is closed.
    void Attach(int fuseFd, int boot);
    // Ends the attachment: the watchdog stops and pending requests fail. Kill the board's processes
    // first; one that waits for a slow erase dies only when the chip is done or Detach cuts the
    // erase short. Any thread except the callback's. Blocks until the serving threads have ended: a
    // few milliseconds.
    void Detach();

    // Throws std::runtime_error for a device or operation that does not exist.
    void AddFault(const Fault& fault);
    // Replaces an earlier cut that has not happened yet.
    void SetPowerCut(const PowerCut& cut);
    WatchdogStatus Watchdog() const;
    // Adds a note to the operation log, for example a boot or a reset with its reason. op_log.h
    // describes the lines.
    void Note(const std::string& operation, const std::string& text);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vboard
