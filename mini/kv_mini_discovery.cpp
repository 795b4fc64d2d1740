#define KV_TRACE_NAME "kv_mini_discovery"
#include "mini/kv_mini_discovery.h"

#include <netinet/in.h>
#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/kv_le.h"
#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_text.h"
#include "hv/hloop.h"
#include "mini/kv_des.h"
#include "mini/kv_hvloop_pool.h"
#include "net/kv_net.h"

namespace {

// The exit handler may stop the services while another thread starts them.
struct {
    pthread_mutex_t lock;
    bool started;
    hloop_t* loop;
    // Used on the loop's thread only.
    hio_t* io;
} g_discovery = {PTHREAD_MUTEX_INITIALIZER, false, nullptr, nullptr};

// The same in every reply. Computing it takes a tenth of the time of a reply, so it is done once.
struct {
    pthread_once_t once;
    uint8_t bytes[sizeof(kv::DiscoveryReply::enciphered)];
} g_enciphered = {PTHREAD_ONCE_INIT, {}};

static_assert(sizeof(kv::DiscoveryReply::ipAddress) >= kv::kNetAddressSize &&
                  sizeof(kv::DiscoveryReply::netmask) >= kv::kNetAddressSize &&
                  sizeof(kv::DiscoveryReply::gateway) >= kv::kNetAddressSize &&
                  sizeof(kv::DiscoveryReply::dnsServer) >= kv::kNetDnsSize &&
                  sizeof(kv::DiscoveryReply::macAddress) >= kv::kNetMacTextSize,
              "the readers of net/ write straight into the reply");

// Copies a constant text without its NUL into a zeroed field, which it may fill completely.
template <size_t fieldSize, size_t textSize>
void PutText(char (&field)[fieldSize], const char (&text)[textSize]) {
    static_assert(textSize - 1 <= fieldSize, "the field holds the text");
    memcpy(field, text, textSize - 1);
}

void PutNetworkOrder(uint8_t* field, uint32_t value) {
    const uint32_t ordered = htonl(value);
    memcpy(field, &ordered, sizeof(ordered));
}

bool IsUsableAddress(const char* text) {
    return text[0] != '\0' && text[0] != '0' && strcmp(text, "1.0.0.0") != 0;
}

// Ignores failures: a setting that cannot be read stays zero, and the client still gets the others.
void __KV_MINI_GetNetworkInfo(kv::DiscoveryReply* reply) {
    const char* ifname = kv::kEthInterface;
    (void)KV_NET_GetIpAddr(ifname, reply->ipAddress);
    KV_DEBUG("ucIpAddr:%s", reply->ipAddress);
    if (!IsUsableAddress(reply->ipAddress)) {
        ifname = kv::kWifiInterface;
        memset(reply->ipAddress, 0, sizeof(reply->ipAddress));
        (void)KV_NET_GetIpAddr(ifname, reply->ipAddress);
    }
    (void)KV_NET_GetNetmask(ifname, reply->netmask);
    (void)KV_NET_GetGateway(ifname, reply->gateway);
    (void)KV_NET_GetDNS(reply->dnsServer);
    (void)KV_NET_GetMacAddr(ifname, nullptr, reply->macAddress);
}

void __KV_MINI_GetPlatformInof(kv::DiscoveryPlatform* pInfo) {
    memset(pInfo, 0, sizeof(*pInfo));
    kv::PutLe32(pInfo->word0, kv::kDiscoveryPlatformWord0);
    kv::PutLe32(pInfo->word8, kv::kDiscoveryPlatformWord8);
    PutText(pInfo->ucDevType, kv::kDiscoveryDevType);
    PutText(pInfo->ucFirmwareVersion, kv::kDeviceName);
    KV_DEBUG("pInfo->ucDevType = %s", pInfo->ucDevType);
    KV_DEBUG("pInfo->ucFirmwareVersion = %s", pInfo->ucFirmwareVersion);
    KV_DEBUG("pInfo->ucP2pSerialNum = %s", pInfo->ucP2pSerialNum);
}

void EncipherAccount() {
    kv::DiscoveryPlain plain{};
    PutText(plain.account, kv::kDiscoveryAccount);
    PutText(plain.key, kv::kDiscoveryKey);
    PutText(plain.devType, kv::kDiscoveryDevType);
    DES_Encrypt(g_enciphered.bytes, reinterpret_cast<const uint8_t*>(&plain),
                reinterpret_cast<const uint8_t*>(kv::kDiscoveryKey), sizeof(plain));
}

// A text from the sender, which may lack its NUL.
template <size_t size>
kv::LogText Shown(const char (&field)[size]) {
    return kv::LogText(field, strnlen(field, size));
}

void __KV_MINI_ResponseSearch(hio_t* io, const kv::DiscoveryRequest* request) {
    KV_DEBUG("Src addr:%s  mac:%s", Shown(request->sourceAddress).Get(),
             Shown(request->sourceMac).Get());
    kv::DiscoveryReply reply;
    KV_MINI_DiscoverFillReply(&reply);

    struct sockaddr_in peer {};
    memcpy(&peer, hio_peeraddr(io), sizeof(peer));
    uint8_t address[4];
    memcpy(address, &peer.sin_addr, sizeof(address));
    KV_DEBUG("Server:%d.%d.%d.%d", address[0], address[1], address[2], address[3]);
    (void)hio_write(io, &reply, sizeof(reply));
}

void __KV_MINI_OnRecvfrom(hio_t* io, void* buf, int readbytes) {
    if (readbytes < static_cast<int>(kv::kDiscoveryRequestMin)) {
        KV_FAILED("readbytes It's too small!");
        return;
    }
    kv::DiscoveryRequest request{};
    const auto received = static_cast<size_t>(readbytes);
    memcpy(&request, buf, received < sizeof(request) ? received : sizeof(request));
    if (memcmp(request.magic, kv::kDiscoveryMagic, sizeof(request.magic)) != 0) {
        return;
    }
    switch (request.type) {
        case kv::kDiscoverySearch:
            KV_DEBUG("Recv DSC_MT_SEARCH");
            __KV_MINI_ResponseSearch(io, &request);
            break;
        case kv::kDiscoveryModify:
            KV_ERROR("DSC_MT_MODIFY not is suport!");
            break;
        case kv::kDiscoveryMatchCode:
            KV_ERROR("DSC_MT_MATCH_CODE not is suport!");
            break;
        default:
            KV_ERROR("%d not is suport!", request.type);
            break;
    }
}

// On the loop's thread. *arg becomes 0 or an error number.
void OpenSocket(hloop_t* loop, void* arg) {
    hio_t* io = hloop_create_udp_server(loop, "", kv::kDiscoveryPort);
    if (io == nullptr) {
        *static_cast<int*>(arg) = errno;
        return;
    }
    const int on = 1;
    (void)setsockopt(hio_fd(io), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    hio_setcb_read(io, __KV_MINI_OnRecvfrom);
    // A failed start has closed the socket and freed the io.
    if (hio_read(io) != 0) {
        *static_cast<int*>(arg) = errno;
        return;
    }
    g_discovery.io = io;
    *static_cast<int*>(arg) = 0;
}

void CloseSocket(hloop_t* /*loop*/, void* /*arg*/) {
    (void)hio_close(g_discovery.io);
    g_discovery.io = nullptr;
}

// Cuts the line end, "\n" or "\r\n".
void CutLineEnd(char* line) {
    char* feed = strrchr(line, '\n');
    if (feed == nullptr) {
        return;
    }
    *feed = '\0';
    char* carriageReturn = strrchr(line, '\r');
    if (carriageReturn != nullptr) {
        *carriageReturn = '\0';
    }
}

}  // namespace

void KV_MINI_DiscoverFillReply(kv::DiscoveryReply* reply) {
    memset(reply, 0, sizeof(*reply));
    PutText(reply->magic, kv::kDiscoveryMagic);
    reply->type = kv::kDiscoveryFound;
    kv::PutLe32(reply->word16, kv::kDiscoveryWord16);
    reply->byte20 = kv::kDiscoveryByte20;
    __KV_MINI_GetNetworkInfo(reply);
    kv::PutLe32(reply->word140, kv::kDiscoveryWord140);
    PutText(reply->kind, kv::kDiscoveryKind);
    PutNetworkOrder(reply->commandPort, kv::kProtocolPort);
    PutNetworkOrder(reply->word244, kv::kDiscoveryWord244);
    PutNetworkOrder(reply->word256, kv::kDiscoveryWord256);
    __KV_MINI_GetPlatformInof(&reply->platform);
    PutText(reply->account, kv::kDiscoveryAccount);
    (void)pthread_once(&g_enciphered.once, EncipherAccount);
    memcpy(reply->enciphered, g_enciphered.bytes, sizeof(reply->enciphered));
}

int KV_MINI_DiscoverInit(void) {
    const MutexGuard guard(&g_discovery.lock);
    if (g_discovery.started) {
        KV_FAILED("DisCover is Inited!");
        return -1;
    }
    int error = ENOMEM;
    hloop_t* loop = KV_HV_GetWorkLoop();
    if (loop != nullptr) {
        KV_HV_RunOnLoop(loop, OpenSocket, &error);
    }
    if (error != 0) {
        KV_ERROR("udp port %d failed:%s", kv::kDiscoveryPort, strerror(error));
        return -1;
    }
    g_discovery.loop = loop;
    g_discovery.started = true;
    // Kept: the start logs the stop's message. Log readers look for this line.
    KV_DEBUG("Discovery Deinit Success!");
    return 0;
}

int KV_MINI_DiscoverDeInit(void) {
    const MutexGuard guard(&g_discovery.lock);
    if (!g_discovery.started) {
        KV_FAILED("DisCover is Stop!");
        return -1;
    }
    g_discovery.started = false;
    KV_HV_RunOnLoop(g_discovery.loop, CloseSocket, nullptr);
    KV_DEBUG("Discovery Deinit Success!");
    return 0;
}

int __KV_MINI_ReadVerIni(char (&out)[65]) {
    const UniqueFile file(fopen(kv::kVersionFile, "re"));
    if (!file) {
        (void)printf("can't open ReadDevConfigFile %s\n", kv::kVersionFile);
        return -1;
    }
    constexpr char kTag[] = "sofvar=";
    constexpr size_t kTagSize = sizeof(kTag) - 1;
    char line[128];
    while (fgets(line, sizeof(line), file.Get()) != nullptr) {
        CutLineEnd(line);
        if (strncmp(line, kTag, kTagSize) == 0) {
            memset(out, 0, sizeof(out));
            memcpy(out, line + kTagSize, strnlen(line + kTagSize, sizeof(out) - 1));
        }
    }
    return 0;
}
