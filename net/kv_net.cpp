#include "net/kv_net.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "common/kv_raii.h"
#include "net/kv_net_internal.h"

namespace {

// A request and its name in the failure message. Without a name a failure is not reported.
struct IoctlRequest {
    unsigned long code;
    const char* name;
};
#define KV_NET_REQUEST(code) \
    IoctlRequest {           \
        code, #code          \
    }

constexpr char kInternetHost[] = "8.8.8.8";
constexpr uint16_t kInternetPort = 53;

// Puts the interface name into *ifr and issues the request on a new socket.
int InterfaceIoctl(const char* function, const char* ifname, IoctlRequest request,
                   struct ifreq* ifr) {
    const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        (void)puts("socket error");
        return -1;
    }
    kv::CopyInterfaceName(ifr->ifr_name, ifname);
    if (ioctl(fd.Get(), request.code, ifr) < 0) {
        if (request.name != nullptr) {
            (void)printf("%s: ioctl %s failed\n", function, request.name);
        }
        return -1;
    }
    return 0;
}

int ReadAddress(const char* function, const char* ifname, IoctlRequest request, char* out) {
    if (ifname == nullptr || out == nullptr) {
        return -1;
    }
    struct ifreq ifr {};
    if (InterfaceIoctl(function, ifname, request, &ifr) != 0) {
        return -1;
    }
    // The kernel returns every kind of address in the same field of the request.
    struct sockaddr_in inet {};
    memcpy(&inet, &ifr.ifr_addr, sizeof(inet));
    uint8_t bytes[4];
    memcpy(bytes, &inet.sin_addr, sizeof(bytes));
    kv::FormatQuad(bytes, out);
    return 0;
}

int WriteAddress(const char* function, const char* ifname, IoctlRequest request,
                 const char* address) {
    struct ifreq ifr {};
    if (ifname == nullptr || address == nullptr || !kv::ParseAddress(address, &ifr.ifr_addr)) {
        return -1;
    }
    return InterfaceIoctl(function, ifname, request, &ifr);
}

int CheckFlag(const char* function, const char* ifname, int flag) {
    struct ifreq ifr {};
    if (ifname == nullptr ||
        InterfaceIoctl(function, ifname, IoctlRequest{SIOCGIFFLAGS, nullptr}, &ifr) != 0) {
        return -1;
    }
    return (ifr.ifr_flags & flag) != 0 ? 0 : -1;
}

}  // namespace

int KV_NET_GetMacAddr(const char* ifname, uint8_t* raw, char* text) {
    struct ifreq ifr {};
    if (ifname == nullptr ||
        InterfaceIoctl(__func__, ifname, KV_NET_REQUEST(SIOCGIFHWADDR), &ifr) != 0) {
        return -1;
    }
    uint8_t mac[kv::kNetMacSize];
    memcpy(mac, ifr.ifr_hwaddr.sa_data, sizeof(mac));
    if (raw != nullptr) {
        memcpy(raw, mac, sizeof(mac));
    }
    if (text != nullptr) {
        (void)snprintf(text, kv::kNetMacTextSize, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1],
                       mac[2], mac[3], mac[4], mac[5]);
    }
    return 0;
}

int KV_NET_GetIpAddr(const char* ifname, char* out) {
    return ReadAddress(__func__, ifname, KV_NET_REQUEST(SIOCGIFADDR), out);
}

int KV_NET_SetIpAddr(const char* ifname, const char* address) {
    return WriteAddress(__func__, ifname, KV_NET_REQUEST(SIOCSIFADDR), address);
}

int KV_NET_GetNetmask(const char* ifname, char* out) {
    return ReadAddress(__func__, ifname, KV_NET_REQUEST(SIOCGIFNETMASK), out);
}

int KV_NET_SetNetmask(const char* ifname, const char* mask) {
    return WriteAddress(__func__, ifname, KV_NET_REQUEST(SIOCSIFNETMASK), mask);
}

int KV_NET_GetBrocastAddr(const char* ifname, char* out) {
    return ReadAddress(__func__, ifname, KV_NET_REQUEST(SIOCGIFBRDADDR), out);
}

int KV_NET_GetPptpAddr(const char* ifname, char* out) {
    return ReadAddress(__func__, ifname, KV_NET_REQUEST(SIOCGIFDSTADDR), out);
}

int KV_NET_GetLinkStatus(const char* ifname) {
    struct ethtool_value link {};
    link.cmd = ETHTOOL_GLINK;
    struct ifreq ifr {};
    ifr.ifr_data = reinterpret_cast<char*>(&link);
    if (ifname == nullptr ||
        InterfaceIoctl(__func__, ifname, KV_NET_REQUEST(SIOCETHTOOL), &ifr) != 0) {
        return -1;
    }
    const bool up = link.data != 0;
    (void)printf("%s LINK %s\n", ifname, up ? "up" : "down");
    return up ? 1 : 0;
}

int KV_NET_IsIfUp(const char* ifname) {
    return CheckFlag(__func__, ifname, IFF_UP);
}

int KV_NET_IsIfRunning(const char* ifname) {
    return CheckFlag(__func__, ifname, IFF_RUNNING);
}

int KV_NET_CheckInternet(void) {
    const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        perror("socket");
        return -1;
    }
    struct sockaddr_in server {};
    server.sin_family = AF_INET;
    server.sin_port = htons(kInternetPort);
    (void)inet_aton(kInternetHost, &server.sin_addr);
    if (connect(fd.Get(), reinterpret_cast<struct sockaddr*>(&server), sizeof(server)) != 0) {
        (void)printf("not connect to internet!\n ");
        return 0;
    }
    (void)puts("=====connect ok!=====");
    return 1;
}
