// The state folder: everything of a board that outlives a boot or the runner, and everything that a
// test may read as a plain file.
//
//     flash/mtdN.bin       contents of the flash partitions
//     param/               the board's /param
//     gpio/GPIO26/value    the reset button's line, '0' while pressed
//     platform/            the board's /run/board
//     boot-N/trace.log     standard error of the program in boot N of this run
//     boot-N/console.log   its standard output and the platform's messages
//     boot-N/reason        why the board booted
//     ops.jsonl            operation log of the devices
//     control, lock        the runner's socket, its lock
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "vboard/devices/devices.h"

namespace vboard {

class StateDir {
  public:
    // The folder used when none is named.
    static std::string Default();

    explicit StateDir(const std::string& path);

    const std::filesystem::path& Path() const { return path_; }
    std::filesystem::path Flash(const std::string& mtd) const {
        return path_ / "flash" / (mtd + ".bin");
    }
    std::filesystem::path Boot(int number) const {
        return path_ / ("boot-" + std::to_string(number));
    }
    std::filesystem::path OpLog() const { return path_ / "ops.jsonl"; }
    std::filesystem::path ButtonValue() const { return path_ / "gpio" / "GPIO26" / "value"; }
    std::filesystem::path ApplicationMode() const { return path_ / "platform" / "app"; }
    std::filesystem::path RebootFault() const { return path_ / "platform" / "reboot-fault"; }

    // Number of the newest boot, 0 if there is none.
    int LastBoot() const;

    // For the runner, which keeps the result for its lifetime. Throws when another runner holds it.
    UniqueFd Lock() const;
    // Waits until no runner holds the lock.
    void AwaitUnlocked() const;
    // Creates the folders and removes logs of earlier runs. For the runner, under the lock.
    void Prepare() const;

    // The control socket's address, short however long the folder's path is. Valid as long as this
    // object.
    std::string ControlAddress() const;

  private:
    std::filesystem::path path_;
    UniqueFd directory_;
};

// "256K", "4M", "65536".
uint64_t ParseSize(const std::string& text);
// Changes sizes of the default layout: "mtd0=256K,mtd1=64K". A size of 0 removes a partition.
// Backing files are those of `state`.
std::vector<PartitionConfig> ParseLayout(const std::string& text, uint32_t eraseBlock,
                                         const StateDir& state);

void WriteText(const std::filesystem::path& file, const std::string& text);
std::string ReadText(const std::filesystem::path& file);  // empty when unreadable
// The whole contents. Throws when the file cannot be read to its end.
std::string ReadWholeFile(const std::filesystem::path& file);

}  // namespace vboard
