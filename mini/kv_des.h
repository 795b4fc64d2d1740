// Data Encryption Standard (FIPS 46-3) for the one enciphered field of the discovery reply. Pure
// functions over constant tables: any thread, no state, nothing blocks.
//
// Single DES with a compiled-in key protects nothing. Clients expect it; do not use it for anything
// else.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t DES_BLOCK_SIZE = 8;

enum DesDirection { DES_ENCIPHER = 0, DES_DECIPHER = 1 };

// Processes one block of 8 bytes with a key of 8 bytes; the key's parity bits are ignored. Bit 1 is
// the most significant bit of the first byte. `out` may equal `in`. Each call computes the key
// schedule anew.
void DES_Block(const uint8_t* in, const uint8_t* key, uint8_t* out, DesDirection direction);

// Encrypts `len` bytes block by block, without chaining or padding. `len` is rounded up to whole
// blocks, and that many bytes are read from `in` and written to `out`. Does nothing if a pointer is
// null.
void DES_Encrypt(uint8_t* out, const uint8_t* in, const uint8_t* key, size_t len);
