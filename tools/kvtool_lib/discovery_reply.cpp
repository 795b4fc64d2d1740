#include "tools/kvtool_lib/discovery_reply.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace kvtool {

namespace {

constexpr char kMagic[12] = "searching..";  // with its NUL
constexpr size_t kTypeOffset = 12;
constexpr uint8_t kTypeSearch = 10;
constexpr uint8_t kTypeReply = 11;
constexpr size_t kSourceAddressOffset = 16;
constexpr size_t kSourceAddressSize = 16;
constexpr size_t kSourceMacOffset = 32;
constexpr size_t kSourceMacSize = 18;

struct TextField {
    const char* name;
    size_t offset;
    size_t size;
    std::string DiscoveryReply::*member;
};
constexpr TextField kTextFields[] = {
    {"IP address", 24, 16, &DiscoveryReply::ip},
    {"netmask", 40, 16, &DiscoveryReply::netmask},
    {"gateway", 56, 16, &DiscoveryReply::gateway},
    {"DNS server", 72, 32, &DiscoveryReply::dns},
    {"MAC address", 104, 36, &DiscoveryReply::mac},
    {"kind", 144, 96, &DiscoveryReply::kind},
    {"device type", 292 + 12, 80, &DiscoveryReply::device_type},
    {"firmware version", 292 + 92, 64, &DiscoveryReply::firmware},
    {"P2P serial number", 292 + 156, 32, &DiscoveryReply::p2p_serial},
    {"account name", 480, 32, &DiscoveryReply::account},
};

struct PortField {
    const char* name;
    size_t offset;
    uint16_t DiscoveryReply::*member;
};
constexpr PortField kPortFields[] = {
    {"command port", 240, &DiscoveryReply::command_port},
    {"RTSP port", 244, &DiscoveryReply::rtsp_port},
    {"HTTP port", 256, &DiscoveryReply::http_port},
};

bool IsIpv4(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool IsIpv6(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool IsNetmask(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return false;
    }
    // One-bits first: the inverse is one less than a power of two.
    const uint32_t inverse = ~ntohl(address.s_addr);
    return (inverse & (inverse + 1)) == 0;
}

// Empty is allowed everywhere: the device leaves a field empty when it cannot tell.
std::string AddressFault(const DiscoveryReply& reply) {
    if (!reply.ip.empty() && !IsIpv4(reply.ip)) {
        return "bad IP address";
    }
    if (!reply.netmask.empty() && !IsNetmask(reply.netmask)) {
        return "bad netmask";
    }
    if (!reply.gateway.empty() && !IsIpv4(reply.gateway)) {
        return "bad gateway";
    }
    if (!reply.dns.empty() && !IsIpv4(reply.dns) && !IsIpv6(reply.dns)) {
        return "bad DNS server";
    }
    if (!reply.mac.empty() && !IsMacAddress(reply.mac)) {
        return "bad MAC address";
    }
    return "";
}

}  // namespace

std::array<uint8_t, kSearchSize> SearchRequest(const std::string& source_address,
                                               const std::string& source_mac) {
    std::array<uint8_t, kSearchSize> request{};
    memcpy(request.data(), kMagic, sizeof kMagic);
    request[kTypeOffset] = kTypeSearch;
    memcpy(request.data() + kSourceAddressOffset, source_address.data(),
           std::min(source_address.size(), kSourceAddressSize - 1));
    memcpy(request.data() + kSourceMacOffset, source_mac.data(),
           std::min(source_mac.size(), kSourceMacSize - 1));
    return request;
}

std::string ParseDiscoveryReply(const uint8_t* data, size_t size, DiscoveryReply* reply) {
    if (size != kDiscoveryReplySize) {
        return "wrong size (" + std::to_string(size) + " bytes)";
    }
    if (memcmp(data, kMagic, sizeof kMagic) != 0) {
        return "wrong magic";
    }
    if (data[kTypeOffset] != kTypeReply) {
        return "wrong type (" + std::to_string(data[kTypeOffset]) + ")";
    }
    DiscoveryReply parsed;
    for (const TextField& field : kTextFields) {
        FieldText text = ReadField(data + field.offset, field.size);
        if (!text.terminated) {
            return std::string("unterminated ") + field.name;
        }
        parsed.*field.member = std::move(text.text);
    }
    for (const PortField& field : kPortFields) {
        const uint8_t* p = data + field.offset;
        parsed.*field.member = static_cast<uint16_t>((p[2] << 8) | p[3]);
        if (p[0] != 0 || p[1] != 0 || parsed.*field.member == 0) {
            return std::string("bad ") + field.name;
        }
    }
    std::string fault = AddressFault(parsed);
    if (fault.empty()) {
        parsed.mac = UpperCase(parsed.mac);
        *reply = std::move(parsed);
    }
    return fault;
}

bool IsMacAddress(const std::string& text) {
    if (text.size() != 17) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (i % 3 == 2 ? c != ':' : isxdigit(c) == 0) {
            return false;
        }
    }
    return true;
}

std::string UpperCase(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace kvtool
