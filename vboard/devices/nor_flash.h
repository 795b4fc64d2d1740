// A NOR flash partition on a backing file: what the chip does to bytes, and how long it is busy.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "common/kv_raii.h"

namespace vboard {

// Waits as long as the chip is busy with one step. False when the board lost its power during the
// step. An empty function means a chip that is never busy.
using BusyWait = std::function<bool(std::chrono::microseconds)>;

// Typical times of a 16 MiB SPI NOR, from data sheets of such parts.
constexpr size_t kNorPageBytes = 256;
constexpr std::chrono::microseconds kNorPageProgram{700};
struct NorEraseTime {
    uint32_t bytes;
    std::chrono::milliseconds typical;
};
constexpr NorEraseTime kNorEraseTimes[] = {
    {4096, std::chrono::milliseconds{45}},    // sector erase
    {32768, std::chrono::milliseconds{120}},  // half block erase
    {65536, std::chrono::milliseconds{150}},  // block erase
};

// Time to erase one block of `blockBytes`; blocks above 64 KiB are erased 64 KiB at a time.
std::chrono::microseconds NorEraseDuration(uint32_t blockBytes);

struct ProgramResult {
    int64_t result = 0;      // bytes programmed, or -errno
    uint64_t bitsKept = 0;   // bits that `data` would have changed from 0 to 1; they stay 0
    uint64_t firstKept = 0;  // offset of the first byte with such a bit, if bitsKept > 0
};

// Not locked: one thread at a time. Each finished operation is in the backing file: killing the
// process loses nothing.
class NorFlash {
  public:
    // Opens the backing file or creates it erased. Throws std::runtime_error when the sizes do not
    // match or the file cannot be used.
    NorFlash(const std::string& file, uint64_t size, uint32_t eraseBlock);

    uint64_t Size() const { return size_; }
    uint32_t EraseBlock() const { return eraseBlock_; }

    // Returns the number of bytes read, 0 at or past the end of the device, or -EIO.
    int64_t Read(uint64_t offset, void* data, size_t length) const;

    // Clears the bits that are 0 in `data`. -ENOSPC at or past the end of the device; a write
    // across the end is cut there. -ENODEV if power is lost; the pages before that are programmed.
    ProgramResult Program(uint64_t offset, const void* data, size_t length,
                          const BusyWait& busy = {});

    // Sets whole blocks to 0xFF. Returns 0; -EINVAL if not aligned or not in the device; -ENODEV if
    // power is lost, which leaves the current block half erased.
    int Erase(uint64_t offset, uint64_t length, const BusyWait& busy = {});

  private:
    bool Load(uint64_t offset, void* data, size_t length) const;
    bool Store(uint64_t offset, const void* data, size_t length);
    bool Blank(uint64_t offset, uint64_t length);

    UniqueFd file_;
    uint64_t size_;
    uint32_t eraseBlock_;
};

}  // namespace vboard
