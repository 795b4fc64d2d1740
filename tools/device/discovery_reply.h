// The datagrams of the discovery exchange.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "mini/kv_mini_discovery_frame.h"
#include "tools/base/text.h"

namespace kvtool {

constexpr size_t kSearchSize = sizeof(kv::DiscoveryRequest);
constexpr size_t kDiscoveryReplySize = sizeof(kv::DiscoveryReply);

// A search request; the device only traces the two texts.
std::array<uint8_t, kSearchSize> SearchRequest(const std::string& sourceAddress,
                                               const std::string& sourceMac);

struct DiscoveryReply {
    // Empty where the device could not tell.
    std::string ip;
    std::string netmask;
    std::string gateway;
    std::string dns;
    std::string mac;         // "AA:BB:CC:DD:EE:FF"
    std::string kind;        // "IPC"
    std::string deviceType;  // "IPCAMERA"
    std::string firmware;    // device name with version
    std::string p2pSerial;
    std::string account;
    uint16_t commandPort = 0;
    uint16_t rtspPort = 0;
    uint16_t httpPort = 0;
};
bool operator==(const DiscoveryReply& a, const DiscoveryReply& b);

// Decodes a datagram. Returns why it is not a trustworthy reply, or an empty text; only then is
// *reply filled.
std::string ParseDiscoveryReply(const uint8_t* data, size_t size, DiscoveryReply* reply);

// Whether the text is a MAC address of the form "AA:BB:CC:DD:EE:FF", of either case.
bool IsMacAddress(const std::string& text);
std::string UpperCase(std::string text);

// The form above, in upper case, of a MAC address as people write it: with colons, with hyphens or
// as twelve digits. Nothing: the text is no MAC address.
std::optional<std::string> ParseMacAddress(const std::string& text);

}  // namespace kvtool
