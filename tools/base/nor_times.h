// How long a NOR flash chip is busy: typical times of a 16 MiB SPI NOR, from data sheets of such
// parts. The virtual board's chip takes these times, and kvtool predicts with them how long a
// device writes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kv {

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
constexpr NorEraseTime kNorLargestErase = kNorEraseTimes[2];

// Time to erase one block of `blockBytes`; blocks above 64 KiB are erased 64 KiB at a time.
constexpr std::chrono::microseconds NorEraseDuration(uint32_t blockBytes) {
    for (const NorEraseTime& time : kNorEraseTimes) {
        if (blockBytes <= time.bytes) {
            return time.typical;
        }
    }
    return kNorLargestErase.typical * (blockBytes / kNorLargestErase.bytes);
}

}  // namespace kv
