// Data Encryption Standard (FIPS 46-3), for the one enciphered field of the discovery reply. Pure
// functions over constant tables: any thread, no state, nothing blocks.
//
// Single DES under a compiled-in key hides nothing from anyone who wants to know; it is here
// because clients expect it. Use it for nothing else.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t DES_BLOCK_SIZE = 8;

enum DesDirection { DES_ENCIPHER = 0, DES_DECIPHER = 1 };

// One block of 8 bytes under a key of 8 bytes, whose parity bits are not looked at. Bit 1 is the
// most significant bit of the first byte. `out` may be `in`. The key schedule is computed on every
// call.
void DES_Block(const uint8_t* in, const uint8_t* key, uint8_t* out, DesDirection direction);

// Enciphers `len` bytes block by block, without chaining or padding: `len` is rounded up to whole
// blocks, and as many bytes are read from `in` and written to `out`. Does nothing when a pointer is
// null.
void DES_Encrypt(uint8_t* out, const uint8_t* in, const uint8_t* key, size_t len);
