// The route table and the resolver's file.
#include <arpa/inet.h>
#include <linux/sockios.h>
#include <net/route.h>

#include "common/kv_platform.h"
#include "net/kv_net.h"
#include "tests/fuzz/world.h"

using namespace fuzz;

namespace {

struct Text {
    explicit Text(size_t size) : bytes(new char[size]()) {}
    operator char*() const { return bytes.get(); }
    std::unique_ptr<char[]> bytes;
};

bool IsQuad(const char* text) {
    in_addr address{};
    return inet_pton(AF_INET, text, &address) == 1;
}

// A line of the table as the kernel prints it, or anything.
std::string Line(Input* in) {
    constexpr const char* kNames[] = {"wlan0", "WLAN01", "eth0", "lo"};
    char line[200];
    const char* const name = kNames[in->Below(4)];
    const uint32_t gateway = in->Number(4);
    const uint8_t shape = in->Byte();
    (void)snprintf(line, sizeof(line), "%s\t%08X\t%08X\t%04X\t0%*s\n", name, shape, gateway,
                   shape % 8U, shape / 2, "");
    return in->Below(4) == 3 ? in->Piece() : line;
}

void Routes(Input* in) {
    std::string table = "Iface\tDestination\tGateway\n";
    for (size_t lines = in->Below(6); lines > 0; --lines) {
        table += Line(in);
    }
    Put(kv::kRouteTable, table);
    const bool refuses = in->Below(8) == 7;
    std::vector<std::string> deleted;
    g_world.control = [&](unsigned long request, void* argument) {
        if (request == SIOCDELRT) {
            sockaddr_in gateway{};
            memcpy(&gateway, &static_cast<rtentry*>(argument)->rt_gateway, sizeof(gateway));
            deleted.emplace_back(inet_ntoa(gateway.sin_addr));
            Put(kv::kRouteTable, refuses ? table : "Iface\n");
            return refuses ? -1 : 0;
        }
        return 0;
    };
    const Text gateway(kv::kNetAddressSize);
    const int found = KV_NET_GetGateway("wlan0", gateway);
    Require(found == 0 ? IsQuad(gateway) : gateway[0] == '\0');
    (void)KV_NET_DetectRoutingAddr("wlan0", in->Piece().c_str());
    (void)KV_NET_SetGateway("wlan0", in->Below(2) == 0 ? "10.0.0.1" : in->Piece().c_str());
    const bool right =
        found == 0 ? deleted == std::vector<std::string>{gateway.bytes.get()} : deleted.empty();
    Require(right || refuses || g_world.refusals > 0);
}

void Servers(Input* in) {
    Put(kv::kResolvConf, (in->Below(2) == 0 ? "nameserver " : "") + in->LongPiece());
    Require(KV_NET_GetDNS(nullptr) == -1 && KV_NET_GetDNS_ex(nullptr, nullptr) == -1);
    Require(KV_NET_SetDNS(nullptr) == -1 && KV_NET_SetDNS_ex("", nullptr) == -1);
    const Text server(kv::kNetDnsSize);
    const Text first(kv::kNetDnsLineSize);
    const Text second(kv::kNetDnsLineSize);
    (void)KV_NET_GetDNS(server);
    (void)KV_NET_GetDNS_ex(first, second);
    Require(memchr(server, '\0', kv::kNetDnsSize) != nullptr);
    const std::string dns1 = in->Piece();
    const int set = in->Below(2) == 0 ? KV_NET_SetDNS(dns1.c_str())
                                      : KV_NET_SetDNS_ex(dns1.c_str(), in->Piece().c_str());
    const std::string start = "nameserver " + dns1.substr(0, 100);
    Require(set != 0 || Get(kv::kResolvConf).compare(0, strlen(start.c_str()), start.c_str()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    scope.in.Below(2) == 0 ? Routes(&scope.in) : Servers(&scope.in);
    return 0;
}
