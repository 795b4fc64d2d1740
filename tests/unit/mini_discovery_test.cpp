// Runs in namespaces of its own: eth0 and wlan0 are veth interfaces, searches are real datagrams.
#include "mini/kv_mini_discovery.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "mini/kv_hvloop_pool.h"
#include "tests/support/capture.h"

namespace {

using kv_test::Capture;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr int kAnswerMs = 10000;

void Ip(const std::string& arguments) {
    ASSERT_EQ(system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
}

void AddInterface(const std::string& name, const std::string& mac, const std::string& address) {
    Ip("link add " + name + " address " + mac + " type veth peer name far" + name);
    Ip("link set " + name + " up");
    Ip("link set far" + name + " up");
    if (!address.empty()) {
        Ip("addr add " + address + " brd + dev " + name);
    }
}

void Put(Bytes* bytes, size_t offset, const std::string& text) {
    ASSERT_LE(offset + text.size(), bytes->size());
    memcpy(bytes->data() + offset, text.data(), text.size());
}

Bytes Search(size_t size, uint8_t type = 10) {
    Bytes bytes(size);
    Put(&bytes, 0, "searching..");
    bytes[12] = type;
    return bytes;
}

struct Settings {
    const char* address = "";
    const char* netmask = "";
    const char* gateway = "";
    const char* dns = "";
    const char* mac = "";
};

// The reply as clients know it, byte by byte.
Bytes ExpectedReply(const Settings& settings) {
    using std::string_literals::operator""s;
    Bytes reply(544);
    Put(&reply, 0, "searching..");
    Put(&reply, 12, "\x0B"s);
    Put(&reply, 16, "\xBE\0\0\0\x01"s);
    Put(&reply, 24, settings.address);
    Put(&reply, 40, settings.netmask);
    Put(&reply, 56, settings.gateway);
    Put(&reply, 72, settings.dns);
    Put(&reply, 104, settings.mac);
    Put(&reply, 140, "\x02\x13\0\0IPC"s);
    Put(&reply, 240, "\0\0\0\x50\0\0\x02\x2A"s);
    Put(&reply, 256, "\0\0\0\x50"s);
    Put(&reply, 292, "\x2C\0\0\0\0\0\0\0\xF4\x01\0\0IPCAMERA"s);
    Put(&reply, 292 + 92, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    Put(&reply, 480, "admin");
    // As openssl enciphers the 32 bytes in single DES, block by block.
    Put(&reply, 512,
        "\xDA\x35\x08\x5C\x06\x73\x02\x68\xB0\x31\xE2\x00\x54\x05\x90\xA8"
        "\xDE\x88\x00\x3A\x00\xD3\x4F\x7E\xAF\x3E\xE9\x39\x01\x67\x5B\x9A"s);
    return reply;
}

// The responder's lines of a log as "LEVEL function|message".
Lines Traces(const std::string& log) {
    static const std::regex kLine(
        "\\] *\\d+ +(\\w+) kv_mini_discovery:(\\w+):\\d+ \x1b\\[m([^\n]*)\n");
    Lines lines;
    for (std::sregex_iterator it(log.begin(), log.end(), kLine), end; it != end; ++it) {
        lines.push_back((*it)[1].str() + " " + (*it)[2].str() + "|" + (*it)[3].str());
    }
    return lines;
}

class Client {
  public:
    explicit Client(const char* address = "127.0.0.1")
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        (void)setsockopt(fd_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
        const sockaddr_in local = Address(address, 0);
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)), 0);
    }
    void Send(const Bytes& bytes, const char* to = "127.0.0.1") const {
        const sockaddr_in peer = Address(to, 6789);
        EXPECT_EQ(sendto(fd_.Get(), bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The next answer; empty when none comes in time.
    Bytes Receive(int timeoutMs = kAnswerMs) const {
        Bytes bytes(2048);
        struct pollfd ready = {fd_.Get(), POLLIN, 0};
        const bool came = poll(&ready, 1, timeoutMs) == 1;
        const ssize_t got = came ? recv(fd_.Get(), bytes.data(), bytes.size(), 0) : 0;
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }

  private:
    static sockaddr_in Address(const char* text, uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = inet_addr(text);
        return address;
    }
    UniqueFd fd_;
};

class Discovery : public testing::Test {
  protected:
    void TearDown() override {
        (void)KV_MINI_DiscoverDeInit();
        (void)KV_HV_LoopPoolDeInit();
        (void)system("ip link del eth0 2>/dev/null; ip link del wlan0 2>/dev/null");
        SetDns("");
    }
    static void SetDns(const std::string& text) { std::ofstream(kv::kResolvConf) << text; }
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
    SetDns("nameserver 10.1.2.53\nnameserver 8.8.8.8\n");
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
            // The address that is of no use does not stay when wlan0 has none either.
            EXPECT_EQ(Filled(), ExpectedReply({})) << address;
            Ip("link del eth0");
        }
    }
}

TEST_F(Discovery, WhatCannotBeReadStaysZero) {
    EXPECT_EQ(Filled(), ExpectedReply({}));
    AddInterface("eth0", "02:ab:cd:ef:00:0e", "1.0.0.1/32");
    SetDns("nameserver " + std::string(200, 'n') + "\n");
    const std::string dns(31, 'n');
    EXPECT_EQ(Filled(),
              ExpectedReply({"1.0.0.1", "255.255.255.255", "", dns.c_str(), "02:AB:CD:EF:00:0E"}));
}

TEST_F(Discovery, AnswersASearchAndTracesItInOrder) {
    AddInterface("wlan0", "02:ab:cd:ef:00:0f", "10.200.2.3/24");
    ASSERT_EQ(KV_MINI_DiscoverInit(), 0);
    const Client client("10.200.2.3");
    Bytes request = Search(64);
    Put(&request, 16, "10.200.2.99");
    Put(&request, 32, "AA:BB:CC:DD:EE:FF");
    Bytes reply;
    std::string log;
    {
        const Capture capture(STDERR_FILENO);
        client.Send(request, "10.200.2.255");
        reply = client.Receive();
        KV_HV_LoopPoolSettle();
        log = capture.Text();
    }
    EXPECT_EQ(reply, ExpectedReply({"10.200.2.3", "255.255.255.0", "", "", "02:AB:CD:EF:00:0F"}));
    const std::string platform = "DEBUG __KV_MINI_GetPlatformInof|pInfo->";
    EXPECT_EQ(Traces(log),
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
    for (const auto& c : kCases) {
        Lines expected = c.traces;
        std::string log;
        Bytes reply;
        {
            const Capture capture(STDERR_FILENO);
            client.Send(c.request);
            // Datagrams are taken in order: the answer to this one shows that the other is done.
            client.Send(Search(13));
            reply = client.Receive();
            log = capture.Text();
        }
        EXPECT_EQ(reply.size(), 544U);
        EXPECT_TRUE(client.Receive(0).empty());
        Lines traces = Traces(log);
        ASSERT_GE(traces.size(), expected.size());
        expected.push_back("DEBUG __KV_MINI_OnRecvfrom|Recv DSC_MT_SEARCH");
        traces.resize(expected.size());
        EXPECT_EQ(traces, expected);
    }
}

TEST_F(Discovery, TextsOfARequestAreBounded) {
    Bytes full = Search(400);
    Put(&full, 16, std::string(384, 'T'));
    const struct {
        size_t size;
        std::string address;
        std::string mac;
    } kCases[] = {
        {400, std::string(16, 'T'), std::string(18, 'T')},
        {13, "", ""},  // nothing of the datagram before it
        {17, "T", ""},
        {32, std::string(16, 'T'), ""},
        {40, std::string(16, 'T'), std::string(8, 'T')},
    };
    ASSERT_EQ(KV_MINI_DiscoverInit(), 0);
    const Client client;
    for (const auto& c : kCases) {
        Lines traces;
        {
            const Capture capture(STDERR_FILENO);
            client.Send(Bytes(full.begin(), full.begin() + static_cast<ssize_t>(c.size)));
            EXPECT_EQ(client.Receive().size(), 544U);
            traces = Traces(capture.Text());
        }
        ASSERT_GE(traces.size(), 2U);
        EXPECT_EQ(traces[1],
                  "DEBUG __KV_MINI_ResponseSearch|Src addr:" + c.address + "  mac:" + c.mac);
    }
}

TEST_F(Discovery, AFloodIsAnsweredToEachSender) {
    constexpr int kSenders = 8;
    constexpr int kEach = 16;  // together below what the socket's buffer holds
    ASSERT_EQ(KV_MINI_DiscoverInit(), 0);
    std::vector<Client> clients;
    clients.reserve(kSenders);
    for (int i = 0; i < kSenders; ++i) {
        clients.emplace_back(("127.0.0." + std::to_string(i + 1)).c_str());
    }
    const Capture capture(STDERR_FILENO);
    for (int round = 0; round < kEach; ++round) {
        for (const Client& client : clients) {
            client.Send(Search(13));
        }
    }
    const Bytes expected = ExpectedReply({});
    int answers[kSenders] = {};
    for (int i = 0; i < kSenders; ++i) {
        while (answers[i] < kEach && clients[static_cast<size_t>(i)].Receive() == expected) {
            ++answers[i];
        }
    }
    for (int i = 0; i < kSenders; ++i) {
        EXPECT_EQ(answers[i], kEach) << i;
        EXPECT_TRUE(clients[static_cast<size_t>(i)].Receive(0).empty()) << i;
    }
}

TEST_F(Discovery, RefusesASecondStartAndASecondStop) {
    Lines traces;
    {
        const Capture capture(STDERR_FILENO);
        EXPECT_EQ(KV_MINI_DiscoverDeInit(), -1);
        EXPECT_EQ(KV_MINI_DiscoverInit(), 0);
        EXPECT_EQ(KV_MINI_DiscoverInit(), -1);
        EXPECT_EQ(KV_MINI_DiscoverDeInit(), 0);
        EXPECT_EQ(KV_MINI_DiscoverDeInit(), -1);
        traces = Traces(capture.Text());
    }
    EXPECT_EQ(traces, (Lines{"FAILED KV_MINI_DiscoverDeInit|DisCover is Stop!",
                             "DEBUG KV_MINI_DiscoverInit|Discovery Deinit Success!",
                             "FAILED KV_MINI_DiscoverInit|DisCover is Inited!",
                             "DEBUG KV_MINI_DiscoverDeInit|Discovery Deinit Success!",
                             "FAILED KV_MINI_DiscoverDeInit|DisCover is Stop!"}));
}

TEST_F(Discovery, StartsAndStopsManyTimesUnderFire) {
    const auto openFiles = [] {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::distance(begin(files), end(files));
    };
    ASSERT_EQ(KV_HV_LoopPoolStart(), 0);
    const auto before = openFiles();
    {
        const Capture capture(STDERR_FILENO);
        std::atomic<bool> done{false};
        std::thread fire([&done] {
            const Client client;
            while (!done) {
                client.Send(Search(64));
                (void)client.Receive(1);
            }
        });
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(KV_MINI_DiscoverInit(), 0) << i;
            const Client client;
            client.Send(Search(13));
            EXPECT_EQ(client.Receive().size(), 544U) << i;
            EXPECT_EQ(KV_MINI_DiscoverDeInit(), 0) << i;
        }
        done = true;
        fire.join();
    }
    EXPECT_EQ(openFiles(), before);
}

TEST_F(Discovery, ATakenPortIsAFailureThatLeavesItStopped) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(6789);
    UniqueFd taken(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(KV_MINI_DiscoverInit(), -1);
    EXPECT_EQ(KV_MINI_DiscoverDeInit(), -1);
    taken.Reset();
    EXPECT_EQ(KV_MINI_DiscoverInit(), 0);
    EXPECT_EQ(KV_MINI_DiscoverDeInit(), 0);
}

TEST_F(Discovery, VersionFileReaderTakesTheLastVersionLine) {
    ASSERT_EQ(mount("tmpfs", "/opt", "tmpfs", 0, nullptr), 0);
    char out[65] = "untouched";
    testing::internal::CaptureStdout();
    EXPECT_EQ(__KV_MINI_ReadVerIni(out), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "can't open ReadDevConfigFile /opt/app/config/Ver.ini\n");
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
        std::ofstream(kv::kVersionFile) << c.file;
        strcpy(out, "untouched");
        EXPECT_EQ(__KV_MINI_ReadVerIni(out), 0) << c.file;
        EXPECT_EQ(out, c.version) << c.file;
    }
    EXPECT_EQ(umount("/opt"), 0);
}

}  // namespace
