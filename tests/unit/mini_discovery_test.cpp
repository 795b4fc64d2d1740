// Runs in its own namespaces: eth0 and wlan0 are veth interfaces, searches are real datagrams.
#include "mini/kv_mini_discovery.h"

#include <atomic>
#include <regex>

#include "common/kv_platform.h"
#include "mini/kv_hvloop_pool.h"
#include "tests/support/capture.h"
#include "tests/support/discovery_client.h"
#include "tests/support/footprint.h"
#include "tests/support/surroundings.h"

using namespace kv_test;

namespace {

using Client = DiscoveryClient;

void AddInterface(const std::string& name, const std::string& mac, const std::string& address) {
    Ip("link add " + name + " address " + mac + " type veth peer name far" + name);
    Ip("link set " + name + " up");
    Ip("link set far" + name + " up");
    if (!address.empty()) {
        Ip("addr add " + address + " brd + dev " + name);
    }
}

// The responder's log lines as "LEVEL function|message".
Lines Traces(const std::string& log) {
    static const std::regex kLine(
        "\\] *\\d+ +(\\w+) kv_mini_discovery:(\\w+):\\d+ \x1b\\[m([^\n]*)\n");
    Lines lines;
    for (std::sregex_iterator it(log.begin(), log.end(), kLine), end; it != end; ++it) {
        lines.push_back((*it)[1].str() + " " + (*it)[2].str() + "|" + (*it)[3].str());
    }
    return lines;
}

// The log lines of what `body` does.
Lines Traced(const std::function<void()>& body) {
    const Capture capture(STDERR_FILENO);
    body();
    return Traces(capture.Text());
}

class Discovery : public testing::Test {
  protected:
    void SetUp() override { RequireSandbox(); }
    void TearDown() override {
        (void)KV_MINI_DiscoverDeInit();
        (void)KV_HV_LoopPoolDeInit();
        (void)kv_test::Run("ip link del eth0; ip link del wlan0");
        WriteFile(kv::kResolvConf, "");
    }
    static Bytes Filled() {
        kv::DiscoveryReply reply;
        memset(&reply, 0xEE, sizeof(reply));
        KV_MINI_DiscoverFillReply(&reply);
        const auto* bytes = reinterpret_cast<const uint8_t*>(&reply);
        return Bytes(bytes, bytes + sizeof(reply));
    }
};

TEST_F(Discovery, ReplyCarriesTheSettingsOfEth0) {
    AddInterface("eth0", "02:ab:cd:ef:00:0e", "10.1.2.3/20");
    AddInterface("wlan0", "02:ab:cd:ef:00:0f", "10.200.2.3/24");
    Ip("route add default via 10.200.2.1 dev wlan0 metric 1");
    Ip("route add default via 10.1.2.1 dev eth0 metric 2");
    WriteFile(kv::kResolvConf, "nameserver 10.1.2.53\nnameserver 8.8.8.8\n");
    EXPECT_EQ(Filled(), ExpectedReply({"10.1.2.3", "255.255.240.0", "10.1.2.1", "10.1.2.53",
                                       "02:AB:CD:EF:00:0E"}));
}

TEST_F(Discovery, ReplyCarriesTheSettingsOfWlan0WhenEth0HasNoUsableAddress) {
    const Settings wlan = {"10.200.2.3", "255.255.255.0", "10.200.2.1", "", "02:AB:CD:EF:00:0F"};
    for (const char* address : {"none", "", "0.1.2.3/8", "1.0.0.0/8"}) {
        const bool exists = strcmp(address, "none") != 0;
        if (exists) {
            AddInterface("eth0", "02:ab:cd:ef:00:0e", address);
        }
        AddInterface("wlan0", "02:ab:cd:ef:00:0f", "10.200.2.3/24");
        Ip("route add default via 10.200.2.1 dev wlan0");
        EXPECT_EQ(Filled(), ExpectedReply(wlan)) << address;
        Ip("link del wlan0");
        if (exists) {
            // The unusable address is cleared even if wlan0 has none either.
            EXPECT_EQ(Filled(), ExpectedReply({})) << address;
            Ip("link del eth0");
        }
    }
}

TEST_F(Discovery, WhatCannotBeReadStaysZero) {
    EXPECT_EQ(Filled(), ExpectedReply({}));
    AddInterface("eth0", "02:ab:cd:ef:00:0e", "1.0.0.1/32");
    WriteFile(kv::kResolvConf, "nameserver " + std::string(200, 'n') + "\n");
    const std::string dns(31, 'n');
    EXPECT_EQ(Filled(),
              ExpectedReply({"1.0.0.1", "255.255.255.255", "", dns.c_str(), "02:AB:CD:EF:00:0E"}));
}

TEST_F(Discovery, AnswersASearchAndTracesItInOrder) {
    AddInterface("wlan0", "02:ab:cd:ef:00:0f", "10.200.2.3/24");
    ASSERT_EQ(KV_MINI_DiscoverInit(), 0);
    EXPECT_EQ(CountOption(SOL_SOCKET, SO_BROADCAST, 1), 1);
    const Client client("10.200.2.3");
    Bytes request = Search(64);
    Put(&request, 16, "10.200.2.99");
    Put(&request, 32, "AA:BB:CC:DD:EE:FF");
    Bytes reply;
    const Lines traces = Traced([&] {
        reply = client.Ask(request, "10.200.2.255");
        KV_HV_LoopPoolSettle();
    });
    EXPECT_TRUE(client.Receive(200).empty()) << "more than one answer";
    EXPECT_EQ(client.Ask(request, "255.255.255.255"), reply);
    EXPECT_EQ(reply, ExpectedReply({"10.200.2.3", "255.255.255.0", "", "", "02:AB:CD:EF:00:0F"}));
    const std::string platform = "DEBUG __KV_MINI_GetPlatformInof|pInfo->";
    EXPECT_EQ(traces,
              (Lines{"DEBUG __KV_MINI_OnRecvfrom|Recv DSC_MT_SEARCH",
                     "DEBUG __KV_MINI_ResponseSearch|Src addr:10.200.2.99  mac:AA:BB:CC:DD:EE:FF",
                     "DEBUG __KV_MINI_GetNetworkInfo|ucIpAddr:", platform + "ucDevType = IPCAMERA",
                     platform + "ucFirmwareVersion = PRT7K_38QX_QJT_V1.0.0.241127_R1",
                     platform + "ucP2pSerialNum = ",
                     "DEBUG __KV_MINI_ResponseSearch|Server:10.200.2.3"}));
}

TEST_F(Discovery, AnswersNothingButASearch) {
    Bytes otherMagic = Search(64);
    otherMagic[11] = '.';
    Bytes tooSmall = Search(13);
    tooSmall.pop_back();
    const std::string small = "FAILED __KV_MINI_OnRecvfrom|readbytes It's too small!";
    const struct {
        Bytes request;
        Lines traces;
    } kCases[] = {
        {Bytes(), {small}},
        {tooSmall, {small}},
        {otherMagic, {}},
        {Bytes(13), {}},
        {Search(64, 11), {"ERROR __KV_MINI_OnRecvfrom|11 not is suport!"}},
        {Search(64, 12), {"ERROR __KV_MINI_OnRecvfrom|DSC_MT_MODIFY not is suport!"}},
        {Search(13, 17), {"ERROR __KV_MINI_OnRecvfrom|DSC_MT_MATCH_CODE not is suport!"}},
        {Search(64, 255), {"ERROR __KV_MINI_OnRecvfrom|255 not is suport!"}},
    };
    ASSERT_EQ(KV_MINI_DiscoverInit(), 0);
    const Client client;
    Bytes last = Search(64);
    Put(&last, 16, "last");
    for (const auto& c : kCases) {
        Lines expected = c.traces;
        Lines traces = Traced([&] {
            client.Send(c.request);
            // Datagrams are handled in order: the answer to this one shows that the other is done.
            EXPECT_EQ(client.Ask(last, "127.0.0.1"), ExpectedReply({}));
            KV_HV_LoopPoolSettle();
        });
        EXPECT_TRUE(client.Receive(0).empty());
        ASSERT_GE(traces.size(), expected.size());
        expected.push_back("DEBUG __KV_MINI_OnRecvfrom|Recv DSC_MT_SEARCH");
        expected.push_back("DEBUG __KV_MINI_ResponseSearch|Src addr:last  mac:");
        traces.resize(expected.size());
        EXPECT_EQ(traces, expected);
    }
}

TEST_F(Discovery, TextsOfARequestAreBoundedAndShownWithoutControlBytes) {
    Bytes full = Search(65507);
    Put(&full, 16, std::string(384, 'T'));
    const struct {
        size_t size;
        std::string address;
        std::string mac;
    } kCases[] = {
        {65507, std::string(16, 'T'), std::string(18, 'T')},
        {13, "", ""},  // nothing from the previous datagram
        {17, "T", ""},
        {32, std::string(16, 'T'), ""},
        {40, std::string(16, 'T'), std::string(8, 'T')},
        {65507, "1.2.3.4?ERROR x\xC3", "?[2J?[H0123456789"},
    };
    ASSERT_EQ(KV_MINI_DiscoverInit(), 0);
    const Client client;
    for (const auto& c : kCases) {
        if (&c == std::end(kCases) - 1) {
            Put(&full, 16, std::string("1.2.3.4\nERROR x\xC3\033[2J\r[H0123456789\0T", 34));
        }
        const Lines traces = Traced([&] {
            client.Send(Bytes(full.begin(), full.begin() + static_cast<ssize_t>(c.size)));
            EXPECT_EQ(client.Receive().size(), 544U);
        });
        ASSERT_GE(traces.size(), 2U);
        EXPECT_EQ(traces[1],
                  "DEBUG __KV_MINI_ResponseSearch|Src addr:" + c.address + "  mac:" + c.mac);
    }
}

TEST_F(Discovery, RefusesASecondStartAndASecondStop) {
    const Lines traces = Traced([] {
        EXPECT_EQ(KV_MINI_DiscoverDeInit(), -1);
        EXPECT_EQ(KV_MINI_DiscoverInit(), 0);
        EXPECT_EQ(KV_MINI_DiscoverInit(), -1);
        EXPECT_EQ(KV_MINI_DiscoverDeInit(), 0);
        EXPECT_EQ(KV_MINI_DiscoverDeInit(), -1);
    });
    EXPECT_EQ(traces, (Lines{"FAILED KV_MINI_DiscoverDeInit|DisCover is Stop!",
                             "DEBUG KV_MINI_DiscoverInit|Discovery Deinit Success!",
                             "FAILED KV_MINI_DiscoverInit|DisCover is Inited!",
                             "DEBUG KV_MINI_DiscoverDeInit|Discovery Deinit Success!",
                             "FAILED KV_MINI_DiscoverDeInit|DisCover is Stop!"}));
}

TEST_F(Discovery, ATakenPortIsAFailureThatLeavesItStopped) {
    const sockaddr_in address = Ipv4("0.0.0.0", 6789);
    UniqueFd taken(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
#ifndef KV_HV_SYSTEM   // libhv would share it
    const int on = 1;  // this socket would share its port, but the service does not
    ASSERT_EQ(setsockopt(taken.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), 0);
#endif
    ASSERT_EQ(bind(taken.Get(), Generic(address), sizeof(address)), 0);
    EXPECT_EQ(KV_MINI_DiscoverInit(), -1);
    EXPECT_EQ(KV_MINI_DiscoverDeInit(), -1);
    taken.Reset();
    EXPECT_EQ(KV_MINI_DiscoverInit(), 0);
    EXPECT_EQ(KV_MINI_DiscoverDeInit(), 0);
}

TEST_F(Discovery, VersionFileReaderTakesTheLastVersionLine) {
    std::filesystem::create_directories("/tmp/opt");
    const Replaced opt("/tmp/opt", "/opt");
    ASSERT_FALSE(HasFailure());
    char out[65] = "untouched";
    {
        const Capture printed(1);
        EXPECT_EQ(__KV_MINI_ReadVerIni(out), -1);
        EXPECT_EQ(printed.Text(), "can't open ReadDevConfigFile /opt/app/config/Ver.ini\n");
    }
    EXPECT_STREQ(out, "untouched");

    const std::string digits(100, '7');
    const struct {
        std::string file;
        std::string version;
    } kCases[] = {
        {"[ver]\nname=x\n sofvar=0\n", "untouched"},
        {"sofvar=1.0\r\nhardvar=2\r\nsofvar=3.0 b\r\nend\r\n", "3.0 b"},
        {"sofvar=4.0\r", "4.0\r"},  // a line without a line feed keeps its carriage return
        {"sofvar=" + digits + "\n", digits.substr(0, 64)},
        {"sofvar=\n", ""},
    };
    std::filesystem::create_directories("/opt/app/config");
    for (const auto& c : kCases) {
        WriteFile(kv::kVersionFile, c.file);
        strcpy(out, "untouched");
        EXPECT_EQ(__KV_MINI_ReadVerIni(out), 0) << c.file;
        EXPECT_EQ(out, c.version) << c.file;
    }
}

}  // namespace
