// kvtool: searching for devices, against a scripted responder.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/fake_device.h"
#include "tools/kvtool_lib/discovery_client.h"
#include "tools/kvtool_lib/errors.h"

namespace {

using fake::Patched;
using fake::Responder;
using fake::SearchReply;
using kvtool::Millis;

kvtool::DiscoveryRequest Request(uint16_t port) {
    kvtool::DiscoveryRequest request;
    request.host = "127.0.0.1";
    request.port = port;
    request.timeout = Millis(300);
    request.repeat = 2;
    return request;
}

TEST(KvtoolDiscover, ListsADeviceOnceHoweverOftenItAnswers) {
    Responder responder({SearchReply(), SearchReply()});
    const kvtool::DiscoveryResult result = kvtool::Discover(Request(responder.Port()), nullptr);
    ASSERT_EQ(result.devices.size(), 1U);
    EXPECT_TRUE(result.malformed.empty());
    const kvtool::DiscoveryReply& reply = result.devices[0].reply;
    EXPECT_EQ(reply.ip, "172.20.18.77");
    EXPECT_EQ(reply.netmask, "255.255.255.0");
    EXPECT_EQ(reply.gateway, "172.20.18.1");
    EXPECT_EQ(reply.dns, "172.20.18.2");
    EXPECT_EQ(reply.mac, "02:00:5E:10:20:30");
    EXPECT_EQ(reply.device_type, "IPCAMERA");
    EXPECT_EQ(reply.firmware, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    EXPECT_EQ(reply.account, "admin");
    EXPECT_EQ(reply.command_port, 80);
    EXPECT_EQ(reply.rtsp_port, 554);
    EXPECT_EQ(reply.http_port, 80);
    EXPECT_EQ(result.devices[0].senders, std::vector<std::string>{"127.0.0.1"});
    EXPECT_NE(kvtool::FindMac(result, "02:00:5e:10:20:30"), nullptr);
    EXPECT_EQ(kvtool::FindMac(result, "02:00:5E:10:20:31"), nullptr);

    const std::vector<fake::Bytes> requests = responder.Requests();
    ASSERT_EQ(requests.size(), 2U);
    ASSERT_GE(requests[0].size(), 13U);
    EXPECT_EQ(std::string(requests[0].begin(), requests[0].begin() + 13),
              std::string("searching..\0\x0A", 13));
}

TEST(KvtoolDiscover, EmptyFieldsAreNoFault) {
    fake::Bytes reply = SearchReply();
    std::fill(reply.begin() + 40, reply.begin() + 140, uint8_t{0});
    Responder responder({reply});
    const auto result = kvtool::Discover(Request(responder.Port()), nullptr);
    ASSERT_EQ(result.devices.size(), 1U);
    EXPECT_EQ(result.devices[0].reply.mac, "");
}

TEST(KvtoolDiscover, MalformedRepliesAreNamedAndNotTrusted) {
    struct Case {
        fake::Bytes datagram;
        const char* fault;
    };
    fake::Bytes small = SearchReply();
    small.pop_back();
    fake::Bytes large = SearchReply();
    large.push_back(0);
    const Case cases[] = {
        {{}, "wrong size (0 bytes)"},
        {small, "wrong size (543 bytes)"},
        {large, "wrong size (545 bytes)"},
        {Patched(SearchReply(), 11, "!"), "wrong magic"},
        {Patched(SearchReply(), 12, "\x0A"), "wrong type (10)"},
        {Patched(SearchReply(), 24, "172.20.100.200.1"), "unterminated IP address"},
        {Patched(SearchReply(), 480, std::string(32, 'a')), "unterminated account name"},
        {Patched(SearchReply(), 384, std::string(64, 'a')), "unterminated firmware version"},
        {Patched(SearchReply(), 24, "172.20.18.777"), "bad IP address"},
        {Patched(SearchReply(), 40, std::string("255.0.255.0\0\0", 13)), "bad netmask"},
        {Patched(SearchReply(), 56, "gateway"), "bad gateway"},
        {Patched(SearchReply(), 72, "\x1B[2J"), "bad DNS server"},
        {Patched(SearchReply(), 104, "02-00-5E-10-20-30"), "bad MAC address"},
        {Patched(SearchReply(), 240, std::string("\x50\0\0\0", 4)), "bad command port"},
    };
    std::vector<fake::Bytes> datagrams;
    for (const Case& c : cases) {
        datagrams.push_back(c.datagram);
    }
    Responder responder(datagrams);
    kvtool::DiscoveryRequest request = Request(responder.Port());
    request.repeat = 1;
    const auto result = kvtool::Discover(request, nullptr);
    EXPECT_TRUE(result.devices.empty());
    for (const Case& c : cases) {
        EXPECT_EQ(result.malformed.count(std::string("127.0.0.1: ") + c.fault), 1U) << c.fault;
    }
    EXPECT_EQ(result.malformed.size(), std::size(cases));
}

TEST(KvtoolDiscover, StopsEarlyWhenTheWantedDeviceAnswers) {
    Responder responder({SearchReply()});
    kvtool::DiscoveryRequest request = Request(responder.Port());
    request.timeout = Millis(60000);
    const auto start = kvtool::Clock::now();
    const auto result = kvtool::Discover(request, [](const kvtool::FoundDevice&) { return true; });
    EXPECT_EQ(result.devices.size(), 1U);
    EXPECT_LT(kvtool::SecondsSince(start), 30.0);
}

// The program runs in a network namespace of its own.
class KvtoolBroadcast : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(system("ip link add cam0 type veth peer name cam1 &&"
                         "ip addr add 10.7.0.1/24 broadcast 10.7.0.255 dev cam0 &&"
                         "ip link set cam0 up && ip link set cam1 up"),
                  0);
    }
    void TearDown() override { EXPECT_EQ(system("ip link del cam0"), 0); }
};

TEST_F(KvtoolBroadcast, ReachesTheLinkByBothBroadcastAddresses) {
    Responder responder({SearchReply()}, "0.0.0.0", 6789);
    kvtool::DiscoveryRequest request;
    request.port = 6789;
    request.timeout = Millis(500);
    request.repeat = 1;
    const auto result = kvtool::Discover(request, nullptr);
    EXPECT_EQ(result.sent, 2);
    EXPECT_TRUE(result.problems.empty());
    ASSERT_EQ(result.devices.size(), 1U);
    const std::vector<fake::Bytes> requests = responder.Requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_STREQ(reinterpret_cast<const char*>(requests[0].data() + 16), "10.7.0.1");
    EXPECT_EQ(strlen(reinterpret_cast<const char*>(requests[0].data() + 32)), 17U);

    request.interfaces = {"lo"};
    EXPECT_THROW((void)kvtool::Discover(request, nullptr), kvtool::ToolError);
    request.interfaces = {"nosuch0"};
    EXPECT_THROW((void)kvtool::Discover(request, nullptr), kvtool::ToolError);
}

}  // namespace
