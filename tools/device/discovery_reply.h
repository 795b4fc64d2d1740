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

// A search request. The device only logs the two texts.
std::array<uint8_t, kSearchSize> SearchRequest(const std::string& sourceAddress,
                                               const std::string& sourceMac);

struct DiscoveryReply {
    // Texts are empty if the device did not know them.
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

// Decodes a datagram. Returns why it is not a valid reply. If it is one, returns an empty text and
// fills *reply.
std::string ParseDiscoveryReply(const uint8_t* data, size_t size, DiscoveryReply* reply);

// Whether the text is a MAC address of the form "AA:BB:CC:DD:EE:FF", in either case.
bool IsMacAddress(const std::string& text);
std::string UpperCase(std::string text);

// Converts a MAC address with colons, with hyphens or as twelve digits to the form above, in upper
// case. Returns nothing if the text is not a MAC address.
std::optional<std::string> ParseMacAddress(const std::string& text);

}  // namespace kvtool
