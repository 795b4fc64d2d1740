#include "mini/kv_des.h"

#include <array>

#include "tests/support/common.h"

namespace {

using Block = std::array<uint8_t, DES_BLOCK_SIZE>;

Block FromHex(const char* hex) {
    Block block{};
    for (size_t i = 0; i < block.size(); ++i) {
        unsigned byte = 0;
        EXPECT_EQ(sscanf(hex + 2 * i, "%2x", &byte), 1);
        block[i] = static_cast<uint8_t>(byte);
    }
    return block;
}

std::string ToHex(const uint8_t* bytes, size_t size) {
    std::string hex;
    for (size_t i = 0; i < size; ++i) {
        char digits[3];
        (void)snprintf(digits, sizeof(digits), "%02X", bytes[i]);
        hex += digits;
    }
    return hex;
}

struct KnownAnswer {
    const char* key;
    const char* plain;
    const char* cipher;
};

// Published pairs: validation tables of NBS special publication 500-20, the worked example of DES
// courses, and the all-zero and all-one pairs.
constexpr KnownAnswer kAnswers[] = {
    {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
    {"10316E028C8F3B4A", "0000000000000000", "82DCBAFBDEAB6602"},
    {"0101010101010101", "95F8A5E5DD31D900", "8000000000000000"},
    {"0101010101010101", "0000000000000001", "166B40B44ABA4BD6"},
    {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
    {"0101010101010102", "0000000000000000", "869EFD7F9F265A09"},
    {"1046913489980131", "0000000000000000", "88D55E54F54C97B4"},
    {"7CA110454A1A6E57", "01A1D6D039776742", "690F5B0D9A26939B"},
    {"0131D9619DC1376E", "5CD54CA83DEF57DA", "7A389D10354BD271"},
    {"0000000000000000", "0000000000000000", "8CA64DE9C1B123A7"},
    {"FFFFFFFFFFFFFFFF", "FFFFFFFFFFFFFFFF", "7359B2163E4EDC58"},
};

TEST(Des, GivesThePublishedAnswersInBothDirections) {
    for (const KnownAnswer& answer : kAnswers) {
        const Block key = FromHex(answer.key);
        Block block = FromHex(answer.plain);
        DES_Block(block.data(), key.data(), block.data(), DES_ENCIPHER);
        EXPECT_EQ(ToHex(block.data(), block.size()), answer.cipher) << answer.key;
        DES_Block(block.data(), key.data(), block.data(), DES_DECIPHER);
        EXPECT_EQ(ToHex(block.data(), block.size()), answer.plain) << answer.key;
    }
}

TEST(Des, BufferLengthIsRoundedUpToWholeBlocks) {
    const Block key = FromHex("3836303238363032");
    const std::vector<uint8_t> in(24, 0x5A);
    for (size_t len = 0; len <= 16; ++len) {
        std::vector<uint8_t> out(24, 0xEE);
        DES_Encrypt(out.data(), in.data(), key.data(), len);
        const size_t written = (len + 7) / 8 * 8;
        for (size_t i = 0; i < written; i += 8) {
            Block expected{};
            DES_Block(in.data() + i, key.data(), expected.data(), DES_ENCIPHER);
            EXPECT_EQ(memcmp(out.data() + i, expected.data(), 8), 0) << len;
        }
        for (size_t i = written; i < out.size(); ++i) {
            EXPECT_EQ(out[i], 0xEE) << len;
        }
    }
}

TEST(Des, NullPointersDoNothing) {
    Block block = FromHex("0123456789ABCDEF");
    const Block before = block;
    DES_Encrypt(nullptr, block.data(), block.data(), 8);
    DES_Encrypt(block.data(), nullptr, block.data(), 8);
    DES_Encrypt(block.data(), block.data(), nullptr, 8);
    EXPECT_EQ(block, before);
}

}  // namespace
