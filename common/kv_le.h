// Little-endian integers in byte buffers. They are read and written byte by byte, so neither
// alignment nor the host's byte order matters.
#pragma once

#include <cstdint>

namespace kv {

inline uint16_t GetLe16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t GetLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline void PutLe16(uint8_t* p, uint16_t value) {
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(value >> 8);
}
inline void PutLe32(uint8_t* p, uint32_t value) {
    PutLe16(p, static_cast<uint16_t>(value));
    PutLe16(p + 2, static_cast<uint16_t>(value >> 16));
}

}  // namespace kv
