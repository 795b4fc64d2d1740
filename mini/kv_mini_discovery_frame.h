// Wire layout of the discovery protocol: a search datagram to UDP port kv::kDiscoveryPort and its
// reply. Shared by the responder and the PC tool. Numbers are little-endian (common/kv_le.h) unless
// marked otherwise. Texts end with a NUL within their field, except the key and the device type in
// the enciphered field, which fill theirs. Unnamed bytes are zero.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

constexpr char kDiscoveryMagic[12] = "searching..";

// Message types. A device answers only the search.
constexpr uint8_t kDiscoverySearch = 10;     // DSC_MT_SEARCH
constexpr uint8_t kDiscoveryFound = 11;      // the reply
constexpr uint8_t kDiscoveryModify = 12;     // DSC_MT_MODIFY
constexpr uint8_t kDiscoveryMatchCode = 17;  // DSC_MT_MATCH_CODE

struct DiscoveryRequest {
    char magic[12];
    uint8_t type;
    uint8_t reserved[3];
    char sourceAddress[16];
    char sourceMac[18];
};
static_assert(sizeof(DiscoveryRequest) == 50, "wire size of a full request");
static_assert(offsetof(DiscoveryRequest, type) == 12 &&
                  offsetof(DiscoveryRequest, sourceAddress) == 16 &&
                  offsetof(DiscoveryRequest, sourceMac) == 32,
              "wire offsets of a request");
// A request needs its magic and type. Missing bytes after them count as zero.
constexpr size_t kDiscoveryRequestMin = 13;

struct DiscoveryPlatform {
    uint8_t word0[4];
    uint8_t word4[4];
    uint8_t word8[4];
    char ucDevType[80];
    char ucFirmwareVersion[64];
    char ucP2pSerialNum[32];
};
static_assert(sizeof(DiscoveryPlatform) == 188, "wire size of the platform record");
static_assert(offsetof(DiscoveryPlatform, ucDevType) == 12 &&
                  offsetof(DiscoveryPlatform, ucFirmwareVersion) == 92 &&
                  offsetof(DiscoveryPlatform, ucP2pSerialNum) == 156,
              "wire offsets of the platform record");

// Fields of unknown meaning are named after their offset. Clients expect the values below.
struct DiscoveryReply {
    char magic[12];
    uint8_t type;
    uint8_t reserved13[3];
    uint8_t word16[4];
    uint8_t byte20;
    uint8_t reserved21[3];
    char ipAddress[16];
    char netmask[16];
    char gateway[16];
    char dnsServer[32];
    char macAddress[36];
    uint8_t word140[4];
    char kind[4];
    uint8_t reserved148[92];
    uint8_t commandPort[4];  // network byte order
    uint8_t word244[4];      // network byte order
    uint8_t reserved248[8];
    uint8_t word256[4];  // network byte order
    uint8_t reserved260[32];
    DiscoveryPlatform platform;
    char account[32];
    uint8_t enciphered[32];
};
static_assert(sizeof(DiscoveryReply) == 544, "wire size of the reply");
static_assert(
    offsetof(DiscoveryReply, type) == 12 && offsetof(DiscoveryReply, word16) == 16 &&
        offsetof(DiscoveryReply, byte20) == 20 && offsetof(DiscoveryReply, ipAddress) == 24 &&
        offsetof(DiscoveryReply, netmask) == 40 && offsetof(DiscoveryReply, gateway) == 56 &&
        offsetof(DiscoveryReply, dnsServer) == 72 && offsetof(DiscoveryReply, macAddress) == 104 &&
        offsetof(DiscoveryReply, word140) == 140 && offsetof(DiscoveryReply, kind) == 144 &&
        offsetof(DiscoveryReply, commandPort) == 240 && offsetof(DiscoveryReply, word244) == 244 &&
        offsetof(DiscoveryReply, word256) == 256 && offsetof(DiscoveryReply, platform) == 292 &&
        offsetof(DiscoveryReply, account) == 480 && offsetof(DiscoveryReply, enciphered) == 512,
    "wire offsets of the reply");

constexpr uint32_t kDiscoveryWord16 = 190;
constexpr uint8_t kDiscoveryByte20 = 1;
constexpr uint32_t kDiscoveryWord140 = 0x1302;
constexpr char kDiscoveryKind[] = "IPC";
constexpr uint32_t kDiscoveryWord244 = 554;
constexpr uint32_t kDiscoveryWord256 = 80;
constexpr uint32_t kDiscoveryPlatformWord0 = 44;
constexpr uint32_t kDiscoveryPlatformWord8 = 500;
constexpr char kDiscoveryDevType[] = "IPCAMERA";
constexpr char kDiscoveryAccount[] = "admin";

// DES key and plain text of the enciphered field. A client that deciphers the field reads the
// account as a text.
constexpr char kDiscoveryKey[] = "86028602";
struct DiscoveryPlain {
    char account[8];
    char key[8];
    uint8_t reserved16[4];
    char devType[8];
    uint8_t reserved28[4];
};
static_assert(sizeof(DiscoveryPlain) == sizeof(DiscoveryReply::enciphered),
              "size of the enciphered field");
static_assert(offsetof(DiscoveryPlain, key) == 8 && offsetof(DiscoveryPlain, devType) == 20,
              "offsets of the enciphered field");

}  // namespace kv
