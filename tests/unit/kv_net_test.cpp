// Runs in its own network and mount namespaces: wlan0 is one end of a veth pair of the real kernel,
// and /etc/resolv.conf is a private file.
#include "net/kv_net.h"

#include "common/kv_platform.h"
#include "tests/support/capture.h"
#include "tests/support/surroundings.h"
#include "tests/support/tcp_client.h"

using namespace kv_test;

namespace {

constexpr char kWlan[] = "wlan0";

// Runs `body` and returns what it prints on a standard descriptor.
std::string Printed(const std::function<void()>& body, int fd = 1) {
    const Capture capture(fd);
    body();
    return capture.Text();
}

class Net : public testing::Test {
  protected:
    void SetUp() override {
        RequireSandbox();
        Ip("link add wlan0 address 02:ab:cd:ef:00:0f type veth peer name far0");
        Ip("link set wlan0 up");
        Ip("link set far0 up");
        Ip("addr add 10.1.2.3/20 brd 10.1.15.255 dev wlan0");
    }
    void TearDown() override { Ip("link del wlan0"); }
};

TEST_F(Net, ReadsAddressesOfAnInterface) {
    uint8_t raw[kv::kNetMacSize] = {};
    char mac[kv::kNetMacTextSize] = {};
    const uint8_t expected[] = {0x02, 0xAB, 0xCD, 0xEF, 0x00, 0x0F};
    EXPECT_EQ(KV_NET_GetMacAddr(kWlan, raw, nullptr), 0);
    EXPECT_EQ(memcmp(raw, expected, sizeof(raw)), 0);
    EXPECT_EQ(KV_NET_GetMacAddr(kWlan, nullptr, mac), 0);
    EXPECT_STREQ(mac, "02:AB:CD:EF:00:0F");

    char text[kv::kNetAddressSize] = {};
    EXPECT_EQ(KV_NET_GetIpAddr(kWlan, text), 0);
    EXPECT_STREQ(text, "10.1.2.3");
    EXPECT_EQ(KV_NET_GetNetmask(kWlan, text), 0);
    EXPECT_STREQ(text, "255.255.240.0");
    EXPECT_EQ(KV_NET_GetBrocastAddr(kWlan, text), 0);
    EXPECT_STREQ(text, "10.1.15.255");
    Ip("addr add 10.9.0.1 peer 10.9.0.2 dev far0");
    EXPECT_EQ(KV_NET_GetPptpAddr("far0", text), 0);
    EXPECT_STREQ(text, "10.9.0.2");
}

TEST_F(Net, SetsAddressAndNetmaskAndRefusesInvalidOnes) {
    char text[kv::kNetAddressSize] = {};
    EXPECT_EQ(KV_NET_SetIpAddr(kWlan, "192.168.7.201"), 0);
    EXPECT_EQ(KV_NET_SetNetmask(kWlan, "255.255.255.128"), 0);
    for (const char* bad : {"", "wlan0", "256.1.1.1", "1.2.3.4.5"}) {
        EXPECT_EQ(Printed([&] {
                      EXPECT_EQ(KV_NET_SetIpAddr(kWlan, bad), -1);
                      EXPECT_EQ(KV_NET_SetNetmask(kWlan, bad), -1);
                  }),
                  "")
            << "must not reach the kernel: " << bad;
    }
    EXPECT_EQ(KV_NET_GetIpAddr(kWlan, text), 0);
    EXPECT_STREQ(text, "192.168.7.201");
    EXPECT_EQ(KV_NET_GetNetmask(kWlan, text), 0);
    EXPECT_STREQ(text, "255.255.255.128");
}

TEST_F(Net, FailuresPrintTheirMessageAndLeaveTheOutput) {
    char out[kv::kNetDnsLineSize] = "untouched";
    const struct {
        const char* function;
        const char* request;
        std::function<int(const char*)> call;
    } kCases[] = {
        {"GetMacAddr", "SIOCGIFHWADDR", [&](auto i) { return KV_NET_GetMacAddr(i, nullptr, out); }},
        {"GetIpAddr", "SIOCGIFADDR", [&](auto i) { return KV_NET_GetIpAddr(i, out); }},
        {"SetIpAddr", "SIOCSIFADDR", [&](auto i) { return KV_NET_SetIpAddr(i, "10.1.1.1"); }},
        {"GetNetmask", "SIOCGIFNETMASK", [&](auto i) { return KV_NET_GetNetmask(i, out); }},
        {"SetNetmask", "SIOCSIFNETMASK", [&](auto i) { return KV_NET_SetNetmask(i, "255.0.0.0"); }},
        {"GetBrocastAddr", "SIOCGIFBRDADDR", [&](auto i) { return KV_NET_GetBrocastAddr(i, out); }},
        {"GetPptpAddr", "SIOCGIFDSTADDR", [&](auto i) { return KV_NET_GetPptpAddr(i, out); }},
        {"DeleteGateway", "SIOCDELRT", [&](auto i) { return KV_NET_DeleteGateway(i, "10.1.1.1"); }},
        {"AddGateway", "SIOCADDRT", [&](auto i) { return KV_NET_AddGateway(i, "10.1.1.1"); }},
        {"GetLinkStatus", "SIOCETHTOOL", [&](auto i) { return KV_NET_GetLinkStatus(i); }},
        {"IsIfUp", nullptr, [&](auto i) { return KV_NET_IsIfUp(i); }},
        {"IsIfRunning", nullptr, [&](auto i) { return KV_NET_IsIfRunning(i); }},
    };
    for (const auto& c : kCases) {
        const std::string name = std::string("KV_NET_") + c.function;
        EXPECT_EQ(Printed([&] { EXPECT_EQ(c.call("none0"), -1); }),
                  c.request != nullptr ? name + ": ioctl " + c.request + " failed\n" : "");
        EXPECT_EQ(Printed([&] { EXPECT_EQ(c.call(nullptr), -1); }), "") << name;

        const bool route = strstr(c.function, "Gateway") != nullptr;
        EXPECT_EQ(Printed([&] {
                      const NoDescriptors none;
                      EXPECT_EQ(c.call(kWlan), -1);
                  }),
                  route ? "socket error" : "socket error\n")
            << name;
    }
    EXPECT_STREQ(out, "untouched");
}

TEST_F(Net, NullArgumentsAreFailures) {
    char out[kv::kNetDnsLineSize] = {};
    const int results[] = {
        KV_NET_GetIpAddr(kWlan, nullptr),
        KV_NET_GetNetmask(kWlan, nullptr),
        KV_NET_SetIpAddr(kWlan, nullptr),
        KV_NET_SetNetmask(kWlan, nullptr),
        KV_NET_AddGateway(kWlan, nullptr),
        KV_NET_GetGateway(kWlan, nullptr),
        KV_NET_GetGateway(nullptr, out),
        KV_NET_SetGateway(kWlan, nullptr),
        KV_NET_SetGateway(nullptr, "10.1.1.1"),
        KV_NET_DetectRoutingAddr(nullptr, "10"),
        KV_NET_DetectRoutingAddr(kWlan, nullptr),
        KV_NET_GetDNS(nullptr),
        KV_NET_GetDNS_ex(out, nullptr),
        KV_NET_GetDNS_ex(nullptr, out),
        KV_NET_SetDNS(nullptr),
        KV_NET_SetDNS_ex("1.1.1.1", nullptr),
    };
    EXPECT_EQ(std::count(std::begin(results), std::end(results), -1),
              std::distance(std::begin(results), std::end(results)));
}

TEST_F(Net, LongInterfaceNamesAreCutAtFifteenCharacters) {
    Ip("link set far0 down");
    Ip("link set far0 name abcdefghijklmno address 02:00:00:00:00:77");
    Ip("link set abcdefghijklmno up");
    Ip("addr add 10.44.0.1/24 dev abcdefghijklmno");
    const char* longer = "abcdefghijklmnopqrstuvwxyz0123456789";
    char mac[kv::kNetMacTextSize] = {};
    EXPECT_EQ(KV_NET_GetMacAddr(longer, nullptr, mac), 0);
    EXPECT_STREQ(mac, "02:00:00:00:00:77");
    EXPECT_EQ(KV_NET_SetNetmask(longer, "255.255.0.0"), 0);
    EXPECT_EQ(KV_NET_AddGateway(longer, "10.44.0.9"), 0);
    EXPECT_EQ(Shell("ip route show default"), "default via 10.44.0.9 dev abcdefghijklmno \n");
}

TEST_F(Net, LinkAndFlagsFollowTheInterface) {
    // The kernel updates an interface's running flag a moment after its carrier.
    EXPECT_TRUE(WaitUntil([] { return KV_NET_IsIfRunning(kWlan) == 0; }));
    EXPECT_EQ(KV_NET_IsIfUp(kWlan), 0);
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_GetLinkStatus(kWlan), 1); }), "wlan0 LINK up\n");
    Ip("link set far0 down");
    EXPECT_TRUE(WaitUntil([] { return KV_NET_IsIfRunning(kWlan) == -1; }));
    EXPECT_EQ(KV_NET_IsIfUp(kWlan), 0);
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_GetLinkStatus(kWlan), 0); }), "wlan0 LINK down\n");
    Ip("link set wlan0 down");
    EXPECT_EQ(KV_NET_IsIfUp(kWlan), -1);
}

TEST_F(Net, GatewayIsTheFirstGatewayRouteOfTheNamePrefix) {
    char text[kv::kNetAddressSize] = "untouched";
    EXPECT_EQ(KV_NET_GetGateway(kWlan, text), -1);
    EXPECT_STREQ(text, "untouched");
    Ip("route add 10.77.0.0/16 via 10.1.2.9 dev wlan0");
    EXPECT_EQ(KV_NET_GetGateway(kWlan, text), 0);
    EXPECT_STREQ(text, "10.1.2.9");
    Ip("route add default via 10.1.2.1 dev wlan0 metric 7");
    EXPECT_EQ(KV_NET_GetGateway(kWlan, text), 0);
    EXPECT_STREQ(text, "10.1.2.1");
    for (const char* name : {"w", "WLAN0", "wLan"}) {
        memset(text, 0, sizeof(text));
        EXPECT_EQ(KV_NET_GetGateway(name, text), 0) << name;
        EXPECT_STREQ(text, "10.1.2.1") << name;
    }
    EXPECT_EQ(KV_NET_GetGateway("wlan01", text), -1);
}

TEST_F(Net, SetGatewayReplacesEveryDefaultRouteOfTheInterface) {
    Ip("addr add 10.8.0.1/24 dev far0");
    Ip("route add default via 10.8.0.2 dev far0 metric 900");
    // Listed before the default routes, but not one: it cannot be deleted as a default route.
    Ip("route add 0.0.0.0/1 via 10.1.2.9 dev wlan0");
    // More routes than the kernel returns in one read of its table.
    (void)Shell(
        "for i in $(seq 80); do echo route add default via 10.1.3.$i dev wlan0 metric $i;"
        " done | ip -batch -");
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_SetGateway(kWlan, "10.1.2.200"), 0); }),
              "KV_NET_DeleteGateway: ioctl SIOCDELRT failed\n");
    EXPECT_EQ(Shell("ip route show default"),
              "default via 10.1.2.200 dev wlan0 \n"
              "default via 10.8.0.2 dev far0 metric 900 \n");
    // An unreachable gateway cannot be added, but the function still returns 0.
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_SetGateway(kWlan, "99.1.1.1"), 0); }),
              "KV_NET_DeleteGateway: ioctl SIOCDELRT failed\n"
              "KV_NET_AddGateway: ioctl SIOCADDRT failed\n");
    const NoDescriptors none;
    EXPECT_EQ(KV_NET_SetGateway(kWlan, "10.1.2.1"), -1);
}

TEST_F(Net, DeleteGatewayRefusesABadAddress) {
    Ip("route add default via 10.1.2.1 dev wlan0");
    EXPECT_EQ(KV_NET_DeleteGateway(kWlan, "gateway"), -1);
    EXPECT_EQ(Shell("ip route show default"), "default via 10.1.2.1 dev wlan0 \n");
    EXPECT_EQ(KV_NET_DeleteGateway(kWlan, "10.1.2.1"), 0);
    EXPECT_EQ(Shell("ip route show default"), "");
}

TEST_F(Net, RouteTableLinesAreBounded) {
    const std::string header = "Iface\tDestination\tGateway\n";
    const std::string good = "wlan0\t00000000\t0402010A\t0003\t0\t0\t0\t00000000\n";
    const std::string other = "wlan0\t00000000\t0902010A\t0003\t0\t0\t0\t00000000\n";
    const struct {
        std::string table;
        const char* gateway;
    } kCases[] = {
        {"", ""},
        {good, ""},  // the first line always counts as the header
        {header + good + other, "10.1.2.4"},
        // Text after a line's 129th character does not count as a line.
        {header + std::string(129, 'x') + other + good, "10.1.2.4"},
        {header + std::string(5000, 'x') + "\n" + good, "10.1.2.4"},
        {header + std::string(5000, 'x'), ""},
        {std::string(129, 'h') + other + good, "10.1.2.4"},
        {header + "wlan0\tzz\nwlan0\n\n" + good, "10.1.2.4"},
        {header + "wlan0\t00000000\t0902010A\t0001\n" + good, "10.1.2.4"},
        {header + "wlan0\t00000000\t0902010A\t0002\n" + good, "10.1.2.4"},
    };
    // A mount cannot cover a single file below /proc/net, so it covers the directory.
    ASSERT_EQ(system("mkdir -p /tmp/procnet"), 0);
    const Replaced table("/tmp/procnet", "/proc/net");
    for (const auto& c : kCases) {
        WriteFile("/tmp/procnet/route", c.table);
        char text[kv::kNetAddressSize] = {};
        EXPECT_EQ(KV_NET_GetGateway(kWlan, text), *c.gateway != '\0' ? 0 : -1) << c.table;
        EXPECT_STREQ(text, c.gateway) << c.table;
    }
}

TEST_F(Net, DetectRoutingAddrReportsFoundAndForeignRoutes) {
    Ip("addr add 10.8.0.1/24 dev far0");
    Ip("route add 192.0.2.0/24 via 10.1.2.9 dev wlan0");
    const Capture errors(2);
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_DetectRoutingAddr(kWlan, "2.0.2"), 0); }),
              "[KV_NET_DetectRoutingAddr - 645] found wlan0 routing addr : 192.0.2.0\n");
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_DetectRoutingAddr(kWlan, "172.16"), -1); }), "");
    const std::string foreign = "iface = far0,  ifname = wlan0\n";
    EXPECT_EQ(errors.Text(), foreign + foreign);
    const NoDescriptors none;
    EXPECT_EQ(KV_NET_DetectRoutingAddr(kWlan, "192.0"), -1);
}

TEST_F(Net, GetDnsTakesTheFirstLineOnly) {
    const struct {
        const char* file;
        const char* server;
    } kCases[] = {
        {"nameserver 10.1.2.1\nnameserver 8.8.8.8\n", "10.1.2.1"},
        {"nameserver\t 10.1.2.1", "10.1.2.1"},
        {"search lan\nnameserver 10.1.2.1\n", "before"},
        {"", "before"},
        {"nameserver 0123456789012345678901234567890123456789\n",
         "0123456789012345678901234567890"},
    };
    for (const auto& c : kCases) {
        WriteFile(kv::kResolvConf, c.file);
        char out[kv::kNetDnsSize + 1] = "before";
        out[kv::kNetDnsSize] = '#';
        EXPECT_EQ(KV_NET_GetDNS(out), 0) << c.file;
        EXPECT_STREQ(out, c.server) << c.file;
        EXPECT_EQ(out[kv::kNetDnsSize], '#') << c.file;
    }
    const NoDescriptors none;
    char out[kv::kNetDnsSize] = "before";
    EXPECT_EQ(KV_NET_GetDNS(out), 0);
    EXPECT_STREQ(out, "before");
}

TEST_F(Net, GetDnsExCopiesTwoLinesWithoutTerminator) {
    const std::string longLine = "nameserver " + std::string(200, '7') + "\n";
    const struct {
        std::string file;
        const char* first;
        const char* second;
    } kCases[] = {
        {"nameserver 1.1.1.1\nnameserver 2.2.2.2\nnameserver 3.3.3.3\n", "1.1.1.1#########",
         "2.2.2.2#########"},
        {"search lan\n  nameserver 2.2.2.2 x\n", "################", "2.2.2.2 x#######"},
        {"nameserver\nnameserver 2.2.2.2", "################", "################"},
        {longLine + "nameserver 2.2.2.2\n", "################", "2.2.2.2#########"},
        {"nameserver 1.1.1.1\n", "1.1.1.1#########", "################"},
    };
    for (const auto& c : kCases) {
        WriteFile(kv::kResolvConf, c.file);
        char out1[kv::kNetDnsLineSize] = "################";
        char out2[kv::kNetDnsLineSize] = "################";
        EXPECT_EQ(KV_NET_GetDNS_ex(out1, out2), 0) << c.file;
        EXPECT_STREQ(out1, c.first) << c.file;
        EXPECT_STREQ(out2, c.second) << c.file;
    }
    const NoDescriptors none;
    char out[kv::kNetDnsLineSize] = {};
    EXPECT_EQ(KV_NET_GetDNS_ex(out, out), -1);
}

TEST_F(Net, SetDnsReplacesTheFile) {
    WriteFile(kv::kResolvConf, std::string(4000, '#'));
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_SetDNS("10.1.2.1"), 0); }), "");
    EXPECT_EQ(ReadFile(kv::kResolvConf), "nameserver 10.1.2.1\nnameserver 8.8.8.8\n");
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_SetDNS_ex("1.1.1.1", "9.9.9.9"), 0); }),
              "KV_NET_SetDNS_ex: acBuf nameserver 1.1.1.1\nnameserver 9.9.9.9\n\n"
              "KV_NET_SetDNS_ex: dns1 1.1.1.1, dns2 9.9.9.9\n");
    EXPECT_EQ(ReadFile(kv::kResolvConf), "nameserver 1.1.1.1\nnameserver 9.9.9.9\n");
    EXPECT_EQ(KV_NET_SetDNS(std::string(500, '1').c_str()), 0);
    EXPECT_EQ(ReadFile(kv::kResolvConf), "nameserver " + std::string(116, '1'));
}

TEST_F(Net, SetDnsReportsAFileThatCannotBeWritten) {
    EXPECT_EQ(Printed([] {
                  const NoDescriptors none;
                  EXPECT_EQ(KV_NET_SetDNS("1.1.1.1"), -1);
              }),
              "KV_NET_SetDNS: file \"/etc/resolv.conf\" opened for writing error!\n");
    const Replaced full("/dev/full", kv::kResolvConf);
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_SetDNS("1.1.1.1"), -1); }, 2),
              "fwrite: No space left on device\n");
}

TEST_F(Net, CheckInternetTellsWhetherTheServerAnswers) {
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_CheckInternet(), 0); }), "not connect to internet!\n ");
    Ip("addr add 8.8.8.8/32 dev wlan0");
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Ipv4("8.8.8.8", 53);
    ASSERT_EQ(bind(listener.Get(), Generic(address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    EXPECT_EQ(Printed([] { EXPECT_EQ(KV_NET_CheckInternet(), 1); }), "=====connect ok!=====\n");
    const Capture errors(2);
    {
        const NoDescriptors none;
        EXPECT_EQ(KV_NET_CheckInternet(), -1);
    }
    EXPECT_EQ(errors.Text(), "socket: Too many open files\n");
}

}  // namespace
