#include "tools/device/discovery_reply.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace kvtool {

namespace {

using Request = kv::DiscoveryRequest;
using Wire = kv::DiscoveryReply;
using Platform = kv::DiscoveryPlatform;

constexpr size_t kPlatform = offsetof(Wire, platform);

struct TextField {
    const char* name;
    size_t offset;
    size_t size;
    std::string DiscoveryReply::*member;
};
constexpr TextField kTextFields[] = {
    {"IP address", offsetof(Wire, ipAddress), 16, &DiscoveryReply::ip},
    {"netmask", offsetof(Wire, netmask), 16, &DiscoveryReply::netmask},
    {"gateway", offsetof(Wire, gateway), 16, &DiscoveryReply::gateway},
    {"DNS server", offsetof(Wire, dnsServer), 32, &DiscoveryReply::dns},
    {"MAC address", offsetof(Wire, macAddress), 36, &DiscoveryReply::mac},
    {"kind", offsetof(Wire, kind), 96, &DiscoveryReply::kind},
    {"device type", kPlatform + offsetof(Platform, ucDevType), 80, &DiscoveryReply::deviceType},
    {"firmware version", kPlatform + offsetof(Platform, ucFirmwareVersion), 64,
     &DiscoveryReply::firmware},
    {"P2P serial number", kPlatform + offsetof(Platform, ucP2pSerialNum), 32,
     &DiscoveryReply::p2pSerial},
    {"account name", offsetof(Wire, account), 32, &DiscoveryReply::account},
};

struct PortField {
    const char* name;
    size_t offset;
    uint16_t DiscoveryReply::*member;
};
constexpr PortField kPortFields[] = {
    {"command port", offsetof(Wire, commandPort), &DiscoveryReply::commandPort},
    {"RTSP port", offsetof(Wire, word244), &DiscoveryReply::rtspPort},
    {"HTTP port", offsetof(Wire, word256), &DiscoveryReply::httpPort},
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
    // A netmask is ones, then zeros: its inverse is one less than a power of two.
    const uint32_t inverse = ~ntohl(address.s_addr);
    return (inverse & (inverse + 1)) == 0;
}

// Every field may be empty: the device leaves it empty if it does not know the value.
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

bool operator==(const DiscoveryReply& a, const DiscoveryReply& b) {
    const auto same = [&a, &b](const auto& field) { return a.*field.member == b.*field.member; };
    return std::all_of(std::begin(kTextFields), std::end(kTextFields), same) &&
           std::all_of(std::begin(kPortFields), std::end(kPortFields), same);
}

std::array<uint8_t, kSearchSize> SearchRequest(const std::string& sourceAddress,
                                               const std::string& sourceMac) {
    std::array<uint8_t, kSearchSize> request{};
    memcpy(request.data(), kv::kDiscoveryMagic, sizeof kv::kDiscoveryMagic);
    request[offsetof(Request, type)] = kv::kDiscoverySearch;
    memcpy(request.data() + offsetof(Request, sourceAddress), sourceAddress.data(),
           std::min(sourceAddress.size(), sizeof(Request::sourceAddress) - 1));
    memcpy(request.data() + offsetof(Request, sourceMac), sourceMac.data(),
           std::min(sourceMac.size(), sizeof(Request::sourceMac) - 1));
    return request;
}

std::string ParseDiscoveryReply(const uint8_t* data, size_t size, DiscoveryReply* reply) {
    if (size != kDiscoveryReplySize) {
        return "wrong size (" + std::to_string(size) + " bytes)";
    }
    if (memcmp(data, kv::kDiscoveryMagic, sizeof kv::kDiscoveryMagic) != 0) {
        return "wrong magic";
    }
    if (data[offsetof(Wire, type)] != kv::kDiscoveryFound) {
        return "wrong type (" + std::to_string(data[offsetof(Wire, type)]) + ")";
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

std::optional<std::string> ParseMacAddress(const std::string& text) {
    std::string form = text;
    if (text.size() == 12) {
        for (size_t at = 2; at < 17; at += 3) {
            form.insert(at, ":");
        }
    } else if (text.find(':') == std::string::npos) {
        std::replace(form.begin(), form.end(), '-', ':');
    }
    if (!IsMacAddress(form)) {
        return std::nullopt;
    }
    return UpperCase(form);
}

std::string UpperCase(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace kvtool
