// A NOR flash partition on a backing file: what the chip does to bytes, and how long it is busy.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "common/kv_raii.h"
#include "tools/base/nor_times.h"

namespace vboard {

// How a step of the chip ends. A step is the erasure of a block or the programming of a page.
enum class StepEnd {
    kWhole,       // the chip goes on
    kLast,        // whole, but the power fails right after it
    kFirstHalf,   // the power fails inside it: only the first half of its bytes has changed
    kSecondHalf,  // the same with the second half
    kCut,         // the power fails at no chosen place: a block is half erased, a page unchanged
};

// Called before each step with the time that the chip is busy with it; waits that long if the chip
// is to be as slow as a real one. An empty function means a chip that is never busy and never loses
// its power.
using StepGate = std::function<StepEnd(std::chrono::microseconds)>;

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
                          const StepGate& gate = {});

    // Sets whole blocks to 0xFF. Returns 0; -EINVAL if not aligned or not in the device; -ENODEV if
    // power is lost; the blocks before that are erased.
    int Erase(uint64_t offset, uint64_t length, const StepGate& gate = {});

  private:
    bool ProgramCells(uint64_t at, const uint8_t* wanted, size_t length, ProgramResult* out);
    bool Load(uint64_t offset, void* data, size_t length) const;
    bool Store(uint64_t offset, const void* data, size_t length);
    bool Blank(uint64_t offset, uint64_t length);

    UniqueFd file_;
    uint64_t size_;
    uint32_t eraseBlock_;
};

}  // namespace vboard
