// kvtool: how it reads a discovery reply, searches, selects devices and watches them. The system
// tests search for a real device on a board.
#include "tests/support/fake_device.h"
#include "tools/device/discovery_client.h"
#include "tools/device/follow.h"
#include "tools/device/watch.h"

using namespace kv_test;

namespace {

Bytes SearchReply() {
    return ExpectedReply(
        {"172.20.18.77", "255.255.255.0", "172.20.18.1", "172.20.18.2", "02:00:5E:10:20:30"});
}

Bytes Patched(Bytes datagram, size_t offset, const std::string& bytes) {
    Put(&datagram, offset, bytes);
    return datagram;
}

TEST(KvtoolDiscover, ReadsEveryField) {
    const Bytes bytes = SearchReply();
    kvtool::DiscoveryReply reply;
    ASSERT_EQ(kvtool::ParseDiscoveryReply(bytes.data(), bytes.size(), &reply), "");
    EXPECT_EQ(reply.ip, "172.20.18.77");
    EXPECT_EQ(reply.netmask, "255.255.255.0");
    EXPECT_EQ(reply.gateway, "172.20.18.1");
    EXPECT_EQ(reply.dns, "172.20.18.2");
    EXPECT_EQ(reply.mac, "02:00:5E:10:20:30");
    EXPECT_EQ(reply.kind, "IPC");
    EXPECT_EQ(reply.deviceType, "IPCAMERA");
    EXPECT_EQ(reply.firmware, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    EXPECT_EQ(reply.account, "admin");
    EXPECT_EQ(reply.commandPort, 80);
    EXPECT_EQ(reply.rtspPort, 554);
    EXPECT_EQ(reply.httpPort, 80);
    // Settings that the device could not read are not a fault.
    const Bytes empty = ExpectedReply({});
    EXPECT_EQ(kvtool::ParseDiscoveryReply(empty.data(), empty.size(), &reply), "");
    EXPECT_EQ(reply.mac, "");

    const auto search = kvtool::SearchRequest("10.7.0.1", "02:00:5E:10:20:31");
    Bytes expected = Search(50);
    Put(&expected, 16, "10.7.0.1");
    Put(&expected, 32, "02:00:5E:10:20:31");
    EXPECT_EQ(Bytes(search.begin(), search.end()), expected);
}

TEST(KvtoolDiscover, MalformedRepliesAreNamedAndNotTrusted) {
    Bytes small = SearchReply();
    small.pop_back();
    Bytes large = SearchReply();
    large.push_back(0);
    struct Case {
        Bytes datagram;
        const char* fault;
    };
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
        {Patched(SearchReply(), 244, std::string("\0\1\0\x50", 4)), "bad RTSP port"},
    };
    for (const Case& c : cases) {
        kvtool::DiscoveryReply reply;
        EXPECT_EQ(kvtool::ParseDiscoveryReply(c.datagram.data(), c.datagram.size(), &reply),
                  c.fault);
        EXPECT_EQ(reply.ip, "") << "the values of a refused reply are dropped";
    }
}

TEST(KvtoolDiscover, AHostsOwnAnswerEndsTheSearch) {
    kvtool::DiscoveryRequest request;
    request.host = "127.0.0.2";
    double took = 0;
    const auto finds = [&](const char* sender, int timeoutSeconds) {
        const fake::Responder responder(sender, 0, SearchReply());
        request.port = responder.Port();
        request.timeout = kvtool::Millis(timeoutSeconds * 1000);
        const auto start = kvtool::Clock::now();
        const size_t found = kvtool::Discover(request, nullptr).devices.size();
        took = kvtool::SecondsSince(start);
        return found == 1;
    };
    EXPECT_TRUE(finds("127.0.0.2", 60));
    EXPECT_LT(took, 50);
    // Another host's answer does not end it. On a busy machine that answer may come too late.
    EXPECT_TRUE(WaitUntil([&] { return finds("127.0.0.3", 2); }));
    EXPECT_GE(took, 2);
}

// The reader pauses at the first answer, so the others wait in the sockets: 500 of them or, where
// the system grants a socket much memory, more than fit in one socket.
TEST(KvtoolDiscover, LosesNoneOfFiveHundredAnswersAtOnce) {
    const UniqueFd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int room = 1 << 20;
    socklen_t size = sizeof room;
    (void)setsockopt(probe.Get(), SOL_SOCKET, SO_RCVBUF, &room, size);
    (void)getsockopt(probe.Get(), SOL_SOCKET, SO_RCVBUF, &room, &size);
    const int count = std::max(500, room / 1280 * 3 / 2);
    std::vector<Bytes> replies;
    for (int i = 0; i < count; ++i) {
        const uint8_t mac[] = {
            2, 0, 0x5E, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        const std::string address =
            "10.7." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
        replies.push_back(
            ExpectedReply({address, "255.255.0.0", "", "", kvtool::Hex(mac, sizeof mac, ":")}));
    }
    const fake::Responder responder("127.0.0.3", 0, replies);
    kvtool::DiscoveryRequest request;
    request.host = "127.0.0.2";
    request.port = responder.Port();
    request.timeout = kvtool::Millis(60000);
    request.repeat = 1;
    int seen = 0;
    const auto result = kvtool::Discover(request, [&seen, count](const kvtool::FoundDevice&) {
        if (seen == 0) {
            std::this_thread::sleep_for(milliseconds(300));
        }
        return ++seen == count;
    });
    EXPECT_EQ(result.devices.size(), static_cast<size_t>(count));
}

TEST(KvtoolDiscover, NamesWhatTwoDevicesShare) {
    kvtool::DiscoveryResult result;
    const auto add = [&result](const char* mac, const char* address, const char* sender = "") {
        kvtool::DiscoveryReply reply;
        reply.mac = mac;
        reply.ip = address;
        result.devices.push_back({reply, {*sender != '\0' ? sender : address}, false});
    };
    add("02:00:5E:00:00:01", "10.7.0.1");
    add("", "");
    add("", "");
    EXPECT_TRUE(kvtool::Conflicts(result).empty());
    add("02:00:5E:00:00:01", "10.7.0.2");
    add("02:00:5E:00:00:02", "10.7.0.2");
    const std::vector<std::string> expected = {
        "MAC address 02:00:5E:00:00:01 belongs to 2 devices, with the addresses 10.7.0.1, "
        "10.7.0.2",
        "address 10.7.0.2 belongs to 2 devices, with the MAC addresses 02:00:5E:00:00:01, "
        "02:00:5E:00:00:02"};
    EXPECT_EQ(kvtool::Conflicts(result), expected);
    // Only devices that share a MAC address, or an address that they answer from, can be confused.
    result.devices.clear();
    add("", "10.7.0.8");
    add("", "10.7.0.9");
    add("02:00:5E:00:00:01", "10.7.0.1", "10.8.0.1");
    add("02:00:5E:00:00:02", "10.7.0.1", "10.8.0.2");
    EXPECT_TRUE(kvtool::Confusable(result).empty());
    add("02:00:5E:00:00:03", "10.7.0.3", "10.8.0.2");
    add("02:00:5E:00:00:04", "10.7.0.4");
    add("02:00:5E:00:00:04", "10.7.0.5");
    const std::map<std::string, std::string> confusable = {
        {"02:00:5E:00:00:02", "another device also answers from 10.8.0.2"},
        {"02:00:5E:00:00:03", "another device also answers from 10.8.0.2"},
        {"02:00:5E:00:00:04", "two devices answer with this MAC address"}};
    EXPECT_EQ(kvtool::Confusable(result), confusable);
}

TEST(KvtoolDiscover, MatchesByPatternsOfFields) {
    kvtool::DiscoveryReply reply;
    reply.mac = "02:00:5E:00:00:01";
    reply.ip = "10.7.0.1";
    reply.firmware = "PRT7K_38QX_QJT_V1.0.0.241127_R1";
    const kvtool::FoundDevice device = {reply, {"10.7.0.1", "10.8.0.1"}, false};
    struct Case {
        std::vector<std::string> conditions;
        bool matches;
    };
    const Case cases[] = {
        {{}, true},
        {{"mac=02:00:5e:*"}, true},
        {{"firmware=*_V1.0.*"}, true},
        {{"firmware=V1.0.*"}, false},
        {{"address=10.8.*"}, true},
        {{"address=10.9.*"}, false},
        {{"mac=*:0[01]", "mac=*:0[23]"}, true},
        {{"mac=*:01", "firmware=*_V2.*"}, false},
        {{"dns="}, true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(kvtool::Matcher(c.conditions).Matches(device), c.matches)
            << testing::PrintToString(c.conditions);
    }
    for (const char* const text : {"mac", "color=red", "=x"}) {
        EXPECT_THROW(kvtool::Matcher({text}), kvtool::ToolError) << text;
    }
}

kvtool::FoundDevice Found(const char* mac, const char* address, bool conflict = false) {
    kvtool::DiscoveryReply reply;
    reply.mac = mac;
    reply.ip = address;
    return {reply, {address}, conflict};
}

// Each change as a word: "+" appeared, "~" changed, "-" gone, then the MAC address and the address.
std::string Changes(kvtool::Presence* presence, const std::vector<kvtool::FoundDevice>& answers,
                    int listened = 1000) {
    std::string text;
    for (const auto& change : presence->Take(answers, kvtool::Millis(listened))) {
        const kvtool::DiscoveryReply& reply = change.device.reply;
        text += (text.empty() ? "" : " ") + std::string(1, "+~-"[static_cast<int>(change.kind)]) +
                reply.mac + "/" + reply.ip;
    }
    return text;
}

TEST(KvtoolDiscover, AnInterfaceWithoutALinkCarriesNoSearch) {
    (void)Shell(
        "ip link add pc0 type veth peer name wire && ip link set pc0 up && "
        "ip address add 10.7.0.2/24 brd + dev pc0");
    // A new interface counts as running until the kernel has looked at its link.
    EXPECT_TRUE(WaitUntil([] { return kvtool::SearchInterfaces({}).empty(); }));
    kvtool::DiscoveryRequest request;
    request.port = 6789;
    request.timeout = kvtool::Millis(100);
    const auto result = kvtool::Discover(request, nullptr);
    EXPECT_EQ(result.sent, 0);
    EXPECT_EQ(result.problems, std::vector<std::string>{"pc0: no link"});
    (void)Shell("ip link set wire up");
    EXPECT_TRUE(WaitUntil([] { return !kvtool::SearchInterfaces({}).empty(); }));
    EXPECT_GT(kvtool::Discover(request, nullptr).sent, 0);
    (void)Shell("ip link delete pc0");
}

TEST(KvtoolDiscover, AWatchTellsWhatHasChanged) {
    kvtool::Presence presence{kvtool::Millis(3000)};
    EXPECT_EQ(Changes(&presence, {Found("A", "1"), Found("B", "2")}), "+A/1 +B/2");
    EXPECT_EQ(Changes(&presence, {Found("B", "2"), Found("A", "1")}), "");
    // A device with a new address is still the same device.
    EXPECT_EQ(Changes(&presence, {Found("B", "3"), Found("A", "1")}), "~B/3");
    // A second device with the same MAC address is a device of its own, whichever answers first.
    EXPECT_EQ(Changes(&presence, {Found("A", "4", true), Found("A", "1", true), Found("B", "3")}),
              "~A/1 +A/4");
    // Silence, also after a single answer, while this PC could search.
    EXPECT_EQ(Changes(&presence, {Found("A", "1")}, 2000), "~A/1");
    EXPECT_EQ(Changes(&presence, {}, 0), "");
    EXPECT_EQ(Changes(&presence, {Found("B", "3")}, 1000), "-A/4");
    EXPECT_EQ(Changes(&presence, {}, 2000), "-A/1");
    EXPECT_EQ(presence.Devices().size(), 1U);
    EXPECT_EQ(Changes(&presence, {Found("A", "1"), Found("B", "3")}), "+A/1");
    // Without a MAC address a device is known by where it answers from.
    EXPECT_EQ(Changes(&presence, {Found("", "5"), Found("", "6")}), "+/5 +/6");
    EXPECT_EQ(Changes(&presence, {Found("", "6"), Found("", "5")}, 1000), "");
    // A device that answers over two interfaces keeps its address until that address is silent.
    kvtool::FoundDevice twice = Found("C", "7");
    for (const auto& [senders, changes] :
         {std::pair<std::vector<std::string>, const char*>{{"8", "9"}, "+C/7"},
          {{"9", "8"}, ""},
          {{"9"}, "~C/7"},
          {{"8", "9"}, ""}}) {
        twice.senders = senders;
        EXPECT_EQ(Changes(&presence, {twice}, 0), changes) << testing::PrintToString(senders);
    }
}

TEST(KvtoolDiscover, AWatchContinuesWhenNobodyAnswers) {
    std::optional<fake::Responder> responder(std::in_place, "127.0.0.2", 0, SearchReply());
    kvtool::WatchRequest request;
    request.search.host = "127.0.0.2";
    request.search.port = responder->Port();
    request.search.timeout = kvtool::Millis(100);
    request.goneAfter = kvtool::Millis(200);
    std::vector<int> kinds;
    int rounds = 0;
    kvtool::Watch(request, [&](const kvtool::WatchRound& round) {
        for (const kvtool::DeviceChange& change : round.changes) {
            kinds.push_back(static_cast<int>(change.kind));
            responder.reset();
        }
        return ++rounds < 50 && kinds.size() < 2;
    });
    EXPECT_EQ(kinds, (std::vector<int>{0, 2}));
}

TEST(KvtoolDiscover, TakesMacAddressesAsPeopleWriteThem) {
    for (const char* const text : {"02:AA:bb:00:11:22", "02-aa-bb-00-11-22", "02aaBB001122"}) {
        EXPECT_EQ(kvtool::ParseMacAddress(text), "02:AA:BB:00:11:22") << text;
    }
    for (const char* const text : {"", "02aabb00112", "02aabb00112g", "02:aa-bb:00-11:22", "camera",
                                   "02.aa.bb.00.11.22", "192.168.10.2"}) {
        EXPECT_FALSE(kvtool::ParseMacAddress(text)) << text;
    }
}

TEST(KvtoolDiscover, AVersionIsTheWholeFirmwareOrItsEnd) {
    const std::string firmware = "PRT7K_38QX_QJT_V1.0.0.241127_R1";
    EXPECT_TRUE(kvtool::IsVersion(firmware, firmware));
    EXPECT_TRUE(kvtool::IsVersion(firmware, "1.0.0.241127_R1"));
    EXPECT_FALSE(kvtool::IsVersion(firmware, "1.0.0.241127"));
    EXPECT_FALSE(kvtool::IsVersion(firmware, ""));
    EXPECT_FALSE(kvtool::IsVersion("", "1"));
}

}  // namespace
