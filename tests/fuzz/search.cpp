// kvtool's search: replies of devices, good ones with edits and any bytes, in any order.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <set>

#include "tests/fuzz/tool.h"
#include "tests/support/wire.h"
#include "tools/device/device_json.h"

using namespace fuzz;
using namespace kvtool;
using kv_test::Padded;

namespace {

// What is odd about the list of interfaces.
enum Oddity : uint8_t { kNoList = 1, kNoHardware = 2, kDown = 4, kNoLink = 8 };
uint8_t g_oddities;

// A device's reply, and then what the input changes in it.
std::string Reply(Input* in) {
    const std::string number = std::to_string(in->Below(4));
    std::string reply = Padded("searching..", 12) + Padded("\x0B", 12) +
                        Padded("192.0.2." + number, 16) + Padded("255.255.255.0", 64) +
                        Padded("02:00:00:00:00:0" + number, 40) + Padded("IPC", 96) +
                        std::string("\0\0\0\x50\0\0\2\x2A\0\0\0\0\0\0\0\0\0\0\0\x50", 20);
    reply = Padded(Padded(reply, 480) + "admin", 544);
    constexpr size_t kFields[] = {0, 12, 24, 40, 56, 72, 104, 144, 240, 304, 384, 448, 480, 512};
    for (size_t edits = in->Below(4); edits > 0; --edits) {
        const size_t at = kFields[in->Below(std::size(kFields))] + in->Below(4);
        const std::string edit = in->Piece();
        (void)reply.replace(at, edit.size(), edit);
    }
    return in->Below(8) == 7 ? in->LongPiece() : reply;
}

void RequireSound(const DiscoveryResult& result) {
    std::set<std::pair<std::string, std::string>> known;
    bool conflict = false;
    for (const FoundDevice& device : result.devices) {
        const std::string& mac = device.reply.mac;
        Require(mac.empty() || known.insert({mac, device.reply.ip}).second);
        Require(mac.empty() || (ParseMacAddress(mac) == mac && FindMac(result, mac) != nullptr));
        Require(!device.Address().empty());
        conflict = conflict || device.conflict;
    }
    Require(conflict == !Conflicts(result).empty());
    RequireSafe(JsonLine(DiscoveryJson(result, Matcher())));
    const std::map<std::string, std::string> confusable = Confusable(result);
    for (const FoundDevice& a : result.devices) {
        const auto meets = [&a](const FoundDevice& b) {
            return &a != &b &&
                   (a.reply.mac == b.reply.mac ||
                    std::find_first_of(a.senders.begin(), a.senders.end(), b.senders.begin(),
                                       b.senders.end()) != a.senders.end());
        };
        const bool unclear = std::any_of(result.devices.begin(), result.devices.end(), meets);
        Require((confusable.count(a.reply.mac) > 0) == (unclear && !a.reply.mac.empty()));
    }
}

DiscoveryRequest Request(Input* in) {
    DiscoveryRequest request;
    request.host = in->Below(2) == 0 ? "192.0.2.1" : "";
    request.repeat = static_cast<int>(in->Below(4));
    if (in->Below(16) == 15) {
        request.interfaces = {in->Below(2) == 0 ? "lo" : in->Piece()};
    }
    return request;
}

void Search(Input* in, bool ownSockets) {
    static const SearchSockets sockets;
    g_world.receive = [in](size_t) { return in->Below(4) == 3 ? "" : Reply(in); };
    const DiscoveryRequest request = Request(in);
    size_t enough = in->Below(8);
    const int64_t start = g_nowMs;
    const auto isEnough = [&](const FoundDevice&) { return enough != 0 && --enough == 0; };
    const bool done = Try([&] {
        RequireSound(ownSockets ? Discover(request, isEnough)
                                : Discover(sockets, request, isEnough));
    });
    Require(done || g_world.refusals > 0 || !request.interfaces.empty() || g_oddities != 0);
    Require(g_nowMs - start <= request.timeout.count());
}

// Asks one address. The first valid reply is the answer, and nothing else is.
void Ask(Input* in) {
    std::optional<DiscoveryReply> first;
    g_world.receive = [&](size_t) {
        const std::string text = in->Below(4) == 3 ? "" : Reply(in);
        const Bytes datagram(text.begin(), text.end());
        DiscoveryReply parsed;
        if (!first && ParseDiscoveryReply(datagram.data(), datagram.size(), &parsed).empty()) {
            first = parsed;
        }
        return text;
    };
    const bool ipv6 = in->Below(16) == 15;
    const Millis timeout(in->Short() / 16);
    const int64_t start = g_nowMs;
    std::optional<DiscoveryReply> reply;
    const bool done = Try([&] { reply = AskAt(ipv6 ? "::1" : "192.0.2.1", in->Short(), timeout); });
    Require(done ? reply == first : g_world.refusals > 0);
    Require(g_nowMs - start <= timeout.count());
}

void ListInterfaces(Input* in) {
    const std::string wanted = in->Below(4) == 3 ? in->Piece() : "lo";
    (void)Try([&] {
        for (const SearchInterface& interface : SearchInterfaces({wanted})) {
            Require(interface.name == wanted && interface.address == "192.0.2.255");
        }
    });
}

}  // namespace

// Three rows of one interface: the first is up, the second is its hardware, the third is down.
extern "C" int __wrap_getifaddrs(ifaddrs** list) {
    static sockaddr_in address{AF_INET, 0, {htonl(0xC00002FF)}, {}};
    static sockaddr_ll link{AF_PACKET, 0, 0, 0, 0, 6, {2, 0, 0, 0, 0, 1}};
    static std::array<ifaddrs, 3> rows;
    if ((g_oddities & kNoList) != 0) {
        ++g_world.refusals;
        return -1;
    }
    for (ifaddrs& row : rows) {
        row = {&row + 1,
               const_cast<char*>("lo"),
               IFF_UP | IFF_BROADCAST | IFF_RUNNING,
               nullptr,
               nullptr,
               {},
               {}};
        row.ifa_addr = row.ifa_broadaddr = reinterpret_cast<sockaddr*>(&address);
    }
    rows[1].ifa_addr =
        (g_oddities & kNoHardware) != 0 ? nullptr : reinterpret_cast<sockaddr*>(&link);
    rows[2].ifa_next = nullptr;
    rows[2].ifa_flags = 0;
    if ((g_oddities & kDown) != 0) {
        rows[0].ifa_flags = 0;
    }
    if ((g_oddities & kNoLink) != 0) {
        rows[0].ifa_flags &= ~static_cast<unsigned>(IFF_RUNNING);
    }
    *list = rows.data();
    return 0;
}
extern "C" void __wrap_freeifaddrs(ifaddrs*) {}
extern "C" ssize_t __wrap_sendmsg(int, const msghdr* message, int) {
    return Refuses(8) ? -1 : static_cast<ssize_t>(message->msg_iov->iov_len);
}

extern "C" {
WRAP(int, getsockname, (int a, sockaddr* b, socklen_t* c), (a, b, c), Refuses(64) ? -1 : 0)
WRAP(int, epoll_create1, (int a), (a), kFd)
WRAP(int, epoll_ctl, (int a, int b, int c, epoll_event* d), (a, b, c, d), Refuses(64) ? -1 : 0)
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    Input& in = scope.in;
    const uint8_t door = in.Byte();
    g_oddities = door / 8;
    switch (door % 8) {
        case 1:
            Ask(&in);
            break;
        case 2:
            ListInterfaces(&in);
            break;
        default:
            Search(&in, door % 8 == 3);
    }
    // Exactly as large as the datagram, so that a read beyond it is seen.
    const std::string text = Reply(&in).substr(0, 552 - size_t{in.Byte()});
    const Bytes datagram(text.begin(), text.end());
    DiscoveryReply reply;
    const bool valid = ParseDiscoveryReply(datagram.data(), datagram.size(), &reply).empty();
    Require(!valid || datagram.size() == 544);
    (void)ParseMacAddress(in.Rest());
    return 0;
}
