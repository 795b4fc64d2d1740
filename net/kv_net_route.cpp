#include <net/route.h>
#include <strings.h>
#include <sys/ioctl.h>

#include "common/kv_le.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "net/kv_net.h"
#include "net/kv_net_internal.h"

namespace {

constexpr size_t kRouteLineSize = 130;
constexpr unsigned kGatewayFlags = RTF_UP | RTF_GATEWAY;
// Line number that tools expect in the message about a found route.
constexpr int kDetectLine = 645;

struct Route {
    char iface[kRouteLineSize];
    uint32_t destination;
    uint32_t gateway;
    unsigned flags;
};

// The kernel's route table, opened and past its header line.
class RouteTable : public kv::TextFile {
  public:
    RouteTable() : TextFile(kv::kRouteTable) {
        if (*this) {
            char header[kRouteLineSize];
            (void)kv::ReadLine(Get(), header);
        }
    }
};

// Reads the next route and skips lines that are not routes. Returns false at the end of the table.
bool NextRoute(FILE* file, Route* route) {
    char line[kRouteLineSize];
    while (kv::ReadLine(file, line)) {
        unsigned long destination = 0;
        unsigned long gateway = 0;
        if (sscanf(line, "%129s\t%08lX\t%08lX\t%8X\t", route->iface, &destination, &gateway,
                   &route->flags) == 4) {
            route->destination = static_cast<uint32_t>(destination);
            route->gateway = static_cast<uint32_t>(gateway);
            return true;
        }
    }
    return false;
}

bool IsRouteOf(const Route& route, const char* ifname) {
    // Kept: the name is a prefix and its case is ignored, so "wlan0" also matches "wlan01" and
    // "WLAN0".
    return strncasecmp(route.iface, ifname, strlen(ifname)) == 0;
}

// The kernel prints the word as it lies in memory, so the lowest byte comes first in the address.
void FormatRouteAddress(uint32_t word, char* out) {
    uint8_t bytes[4];
    kv::PutLe32(bytes, word);
    kv::FormatQuad(bytes, out);
}

// Finds gateway route number `index` (from 0) of the interface. Returns 1 if found, 0 if there are
// fewer, -1 if the table cannot be opened.
int FindGateway(const char* ifname, int index, char* out) {
    const RouteTable file;
    if (!file) {
        return -1;
    }
    Route route;
    while (NextRoute(file.Get(), &route)) {
        if (IsRouteOf(route, ifname) && (route.flags & kGatewayFlags) == kGatewayFlags &&
            index-- == 0) {
            FormatRouteAddress(route.gateway, out);
            return 1;
        }
    }
    return 0;
}

// Adds or deletes a default route. `name` is the request's name in the failure message.
int ChangeGateway(const char* function, const char* ifname, const char* gateway, unsigned long code,
                  const char* name) {
    struct rtentry entry {};
    if (ifname == nullptr || gateway == nullptr || !kv::ParseAddress(gateway, &entry.rt_gateway) ||
        !kv::ParseAddress("0.0.0.0", &entry.rt_dst) ||
        !kv::ParseAddress("0.0.0.0", &entry.rt_genmask)) {
        return -1;
    }
    // The kernel reads IFNAMSIZ bytes from this pointer; the caller's text may be shorter.
    char device[IFNAMSIZ] = {};
    kv::CopyInterfaceName(device, ifname);
    entry.rt_dev = device;
    entry.rt_flags = kGatewayFlags;

    const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        (void)printf("socket error");
        return -1;
    }
    if (ioctl(fd.Get(), code, &entry) < 0) {
        (void)printf("%s: ioctl %s failed\n", function, name);
        return -1;
    }
    return 0;
}

}  // namespace

int KV_NET_DeleteGateway(const char* ifname, const char* gateway) {
    return ChangeGateway(__func__, ifname, gateway, SIOCDELRT, "SIOCDELRT");
}

int KV_NET_AddGateway(const char* ifname, const char* gateway) {
    return ChangeGateway(__func__, ifname, gateway, SIOCADDRT, "SIOCADDRT");
}

int KV_NET_GetGateway(const char* ifname, char* out) {
    if (ifname == nullptr || out == nullptr) {
        return -1;
    }
    return FindGateway(ifname, 0, out) == 1 ? 0 : -1;
}

int KV_NET_SetGateway(const char* ifname, const char* gateway) {
    if (ifname == nullptr || gateway == nullptr) {
        return -1;
    }
    // Reading a changing table may skip routes. So the loop reads it again after each deletion and
    // steps over routes that it could not delete.
    char old[kv::kNetAddressSize];
    int kept = 0;
    int found = 0;
    while ((found = FindGateway(ifname, kept, old)) == 1) {
        if (KV_NET_DeleteGateway(ifname, old) != 0) {
            ++kept;
        }
    }
    if (found < 0) {
        return -1;
    }
    (void)KV_NET_AddGateway(ifname, gateway);
    return 0;
}

int KV_NET_DetectRoutingAddr(const char* ifname, const char* text) {
    if (ifname == nullptr || text == nullptr) {
        return -1;
    }
    const RouteTable file;
    if (!file) {
        return -1;
    }
    Route route;
    while (NextRoute(file.Get(), &route)) {
        if (!IsRouteOf(route, ifname)) {
            (void)fprintf(stderr, "iface = %s,  ifname = %s\n", route.iface, ifname);
            continue;
        }
        char address[kv::kNetAddressSize];
        FormatRouteAddress(route.destination, address);
        if (strstr(address, text) != nullptr) {
            (void)printf("[%s - %d] found %s routing addr : %s\n", __func__, kDetectLine, ifname,
                         address);
            return 0;
        }
    }
    return -1;
}
