#include "mini/kv_des.h"

namespace {

// The standard's tables. Each entry of a permutation is the number of the input bit that goes to
// its place; bit 1 is the most significant.
constexpr uint8_t kPermutedChoice1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                                          10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                                          63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                                          14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

constexpr uint8_t kInitialPermutation[64] = {
    58, 50, 42, 34, 26, 18, 10, 2,  60, 52, 44, 36, 28, 20, 12, 4,  62, 54, 46, 38, 30, 22,
    14, 6,  64, 56, 48, 40, 32, 24, 16, 8,  57, 49, 41, 33, 25, 17, 9,  1,  59, 51, 43, 35,
    27, 19, 11, 3,  61, 53, 45, 37, 29, 21, 13, 5,  63, 55, 47, 39, 31, 23, 15, 7};

// Rotations of the key halves before each round: positive to the left (encrypt), negative to the
// right (decrypt).
constexpr int8_t kEncipherShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};
constexpr int8_t kDecipherShifts[16] = {0,  -1, -2, -2, -2, -2, -2, -2,
                                        -1, -2, -2, -2, -2, -2, -2, -1};

constexpr uint8_t kPermutedChoice2[48] = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

constexpr uint8_t kExpansion[48] = {32, 1,  2,  3,  4,  5,  4,  5,  6,  7,  8,  9,  8,  9,  10, 11,
                                    12, 13, 12, 13, 14, 15, 16, 17, 16, 17, 18, 19, 20, 21, 20, 21,
                                    22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1};

constexpr uint8_t kSubstitution[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11}};

constexpr uint8_t kPermutationP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23,
                                       26, 5, 18, 31, 10, 2,  8,  24, 14, 32, 27,
                                       3,  9, 19, 13, 30, 6,  22, 11, 4,  25};

constexpr uint8_t kFinalPermutation[64] = {
    40, 8,  48, 16, 56, 24, 64, 32, 39, 7,  47, 15, 55, 23, 63, 31, 38, 6,  46, 14, 54, 22,
    62, 30, 37, 5,  45, 13, 53, 21, 61, 29, 36, 4,  44, 12, 52, 20, 60, 28, 35, 3,  43, 11,
    51, 19, 59, 27, 34, 2,  42, 10, 50, 18, 58, 26, 33, 1,  41, 9,  49, 17, 57, 25};

constexpr uint32_t kHalfKeyMask = 0x0FFFFFFF;
constexpr int kHalfKeyBits = 28;

// `value` has `width` bits. The table counts them from 1; the last one is the least significant.
template <size_t size>
uint64_t Permute(uint64_t value, int width, const uint8_t (&table)[size]) {
    uint64_t result = 0;
    for (const uint8_t bit : table) {
        result = (result << 1) | ((value >> (width - bit)) & 1);
    }
    return result;
}

uint64_t Load(const uint8_t* bytes) {
    uint64_t value = 0;
    for (size_t i = 0; i < DES_BLOCK_SIZE; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

void Store(uint64_t value, uint8_t* bytes) {
    for (size_t i = DES_BLOCK_SIZE; i-- > 0; value >>= 8) {
        bytes[i] = static_cast<uint8_t>(value);
    }
}

// Rotates a key half to the left, or to the right if `shift` is negative.
uint32_t Rotate(uint32_t half, int shift) {
    const int left = (shift + kHalfKeyBits) % kHalfKeyBits;
    return ((half << left) | (half >> (kHalfKeyBits - left))) & kHalfKeyMask;
}

uint32_t Substitute(uint64_t groups) {
    uint32_t result = 0;
    for (int box = 0; box < 8; ++box) {
        const unsigned six = static_cast<unsigned>(groups >> (42 - 6 * box)) & 0x3F;
        const unsigned row = ((six >> 4) & 2) | (six & 1);
        const unsigned column = (six >> 1) & 0xF;
        result = (result << 4) | kSubstitution[box][row * 16 + column];
    }
    return result;
}

}  // namespace

void DES_Block(const uint8_t* in, const uint8_t* key, uint8_t* out, DesDirection direction) {
    const uint64_t chosen = Permute(Load(key), 64, kPermutedChoice1);
    auto c = static_cast<uint32_t>(chosen >> kHalfKeyBits);
    auto d = static_cast<uint32_t>(chosen) & kHalfKeyMask;

    const uint64_t permuted = Permute(Load(in), 64, kInitialPermutation);
    auto left = static_cast<uint32_t>(permuted >> 32);
    auto right = static_cast<uint32_t>(permuted);

    for (const int8_t shift : direction == DES_ENCIPHER ? kEncipherShifts : kDecipherShifts) {
        c = Rotate(c, shift);
        d = Rotate(d, shift);
        const uint64_t roundKey =
            Permute((static_cast<uint64_t>(c) << kHalfKeyBits) | d, 56, kPermutedChoice2);
        const uint32_t mixed = Substitute(Permute(right, 32, kExpansion) ^ roundKey);
        const uint32_t next = left ^ static_cast<uint32_t>(Permute(mixed, 32, kPermutationP));
        left = right;
        right = next;
    }

    // The halves leave the last round swapped.
    Store(Permute((static_cast<uint64_t>(right) << 32) | left, 64, kFinalPermutation), out);
}

void DES_Encrypt(uint8_t* out, const uint8_t* in, const uint8_t* key, size_t len) {
    if (out == nullptr || in == nullptr || key == nullptr) {
        return;
    }
    for (size_t offset = 0; offset < len; offset += DES_BLOCK_SIZE) {
        DES_Block(in + offset, key, out + offset, DES_ENCIPHER);
    }
}
