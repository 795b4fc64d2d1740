// The Wi-Fi station on a board: the real supplicant, DHCP client and server, ifconfig, killall. An
// accelerated clock shortens long silences.
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>

#include <csignal>

#include "tests/support/board.h"
#include "tests/support/wifi_conf.h"

using namespace kv_test;

namespace {

const Lines kConnect = {"killall -9 udhcpc", "ifconfig wlan0 down", "ifconfig wlan0 up",
                        "killall -9 wpa_supplicant",
                        "/root/wifi_connect.sh sta /tmp/wpa_supplicant.conf"};
constexpr char kLease[] = "udhcpc -i wlan0";
constexpr char kReset[] = "wifi_reset.sh soft";
constexpr char kGuard[] = "into wifi guard";
constexpr char kTimedOut[] = "FAILED __KV_WIFI_STA_HandleProc: connection timed out";

const Lines kFast = {"--no-eth", "--speed", "20"};

// The echoed commands, each whole connect sequence as one "connect".
Lines Steps(const Board& board, int boot = 1) {
    Lines steps;
    for (const std::string& echo : board.Echoes(boot)) {
        if (echo == kConnect.back()) {
            steps.push_back("connect");
        } else if (echo == kReset) {
            steps.push_back("reset");
        } else if (echo == kLease) {
            steps.push_back("lease");
        }
    }
    return steps;
}

size_t Count(const Lines& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

// Waits until the trace of a boot contains `message` `count` times.
bool WaitMessages(const Board& board, int boot, const std::string& message, size_t count) {
    return WaitUntil([&] { return Count(board.Messages(boot), message) >= count; });
}

std::string Miss(int count) {
    return "INFO __KV_WIFI_STA_HandleProc: NetWork ping failed cnt:" + std::to_string(count) +
           " 172.20.18.1";
}

std::string Guarding() {
    return std::string("DEBUG __KV_WIFI_STA_HandleProc: ") + kGuard;
}

// Waits for the next echo request at the access point. Returns whether it came.
bool AwaitEcho(int socket) {
    const auto start = Clock::now();
    while (SecondsSince(start) < kPatienceSeconds) {
        struct pollfd readable = {socket, POLLIN, 0};
        char packet[256] = {};
        if (poll(&readable, 1, 1000) == 1 && recv(socket, packet, sizeof(packet), 0) > 28 &&
            packet[20] == ICMP_ECHO) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST(Station, JoinsTheServiceNetworkAndGuardsIt) {
    Board board;
    board.Start({"--no-eth"});
    ASSERT_TRUE(board.WaitTrace(kGuard));
    Lines expected = kConnect;
    expected.emplace_back(kLease);
    EXPECT_EQ(board.Echoes(), expected);
    EXPECT_EQ(board.OnBoard("cat /tmp/wpa_supplicant.conf").output, kServiceNetwork);
    // A ping every six seconds, because the station counts whole seconds.
    const UniqueFd echoes = board.Connect("icmp", 0, "0.0.0.0");
    ASSERT_TRUE(AwaitEcho(echoes.Get()));
    auto first = Clock::now();
    // No other thread wakes up meanwhile, neither the event loops nor the signal thread. A feed
    // sleeps twice, once in the device.
    board.ExpectRest(
        {{"upgradeMain", {1.0 / 3, 2}}, {"__KV_FH_WDT_Pro", {2, 4}}, {"__KV_WIFI_STA_H", {2, 6}}},
        [&] {
            for (int i = 0; i < 2; ++i) {
                EXPECT_TRUE(AwaitEcho(echoes.Get()));
            }
            EXPECT_NEAR(SecondsSince(first), 12, 3.9);
            first = Clock::now();
        });
    EXPECT_EQ(board.Trace().find("NetWork ping failed"), std::string::npos);
}

TEST(Station, SilentAccessPointTimesOutAndThreeSequencesMakeARound) {
    Board board;
    board.Start(kFast);
    (void)board.Do({"ap", "down"});
    (void)board.Do({"reset"});
    ASSERT_TRUE(WaitMessages(board, 2, kTimedOut, 4));
    Lines steps = Steps(board, 2);
    ASSERT_GE(steps.size(), 5U);
    steps.resize(5);
    EXPECT_EQ(steps, (Lines{"connect", "connect", "connect", "reset", "connect"}));
    // Sixty seconds with the same answer, asked once a second, give a time-out.
    std::string answer;
    int answers = 0;
    long since = 0;
    for (const Board::TimedLine& line : board.Timed(2)) {
        const size_t state = line.text.find("state:");
        if (state != std::string::npos) {
            EXPECT_FALSE(Contains(line.text, "state:COMPLETED"));
            const bool same = line.text.substr(state) == answer;
            answer = line.text.substr(state);
            answers = same ? answers + 1 : 1;
            since = same ? since : line.at;
        } else if (Contains(line.text, "connection timed out")) {
            EXPECT_GE(line.at - since, 60);
            EXPECT_LE(line.at - since, 110);
            EXPECT_GE(answers, 5);
            EXPECT_LE(answers, 70);
            answer = "";
        }
    }
    (void)board.Do({"ap", "up"});
    EXPECT_TRUE(board.WaitTrace(kGuard, 2));
}

TEST(Station, MuteAccessPointIsStillPinged) {
    Board board;
    board.Start(kFast);
    ASSERT_TRUE(board.WaitTrace(kGuard));
    (void)board.Do({"ap", "mute"});
    ASSERT_TRUE(WaitMessages(board, 1, Miss(1), 2));
    // The link is fine, so the count starts over and nothing else happens.
    EXPECT_GE(Count(board.Messages(), Miss(6)), 1U);
    EXPECT_EQ(Count(board.Messages(), Miss(7)), 0U);
    EXPECT_NE(board.Console().find("wlan0 LINK up\n"), std::string::npos);
    (void)board.Do({"ap", "unmute"});
    const UniqueFd echoes = board.Connect("icmp", 0, "0.0.0.0");
    EXPECT_TRUE(AwaitEcho(echoes.Get()));
    EXPECT_EQ(Steps(board), (Lines{"connect", "lease"}));
}

TEST(Station, LostLinkIsResetAndJoinedAgain) {
    const struct {
        const char* name;
        Lines lose;
        std::string onBoard;
        Lines regain;
        const char* said;
        Lines steps;
    } rows[] = {
        {"carrier", {"ap", "down"}, "", {"ap", "up"}, "wlan0 LINK down\n", {"reset"}},
        {"interface", {"link", "down"}, "", {}, "wlan0 LINK down\n", {"reset"}},
        // Up and with a carrier, but not running. The new sequence gets it running again.
        {"dormant",
         {"ap", "mute"},
         "ip link set wlan0 state dormant",
         {"ap", "unmute"},
         "wlan0 LINK up\n",
         {}},
    };
    Board board;
    board.Start(kFast);
    int boot = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(board.WaitTrace(kGuard, boot));
        (void)board.Do(row.lose);
        if (!row.onBoard.empty()) {
            EXPECT_EQ(board.OnBoard(row.onBoard).status, 0);
        }
        ASSERT_TRUE(WaitMessages(board, boot, Miss(6), 1));
        EXPECT_TRUE(board.WaitConsole(row.said, boot));
        if (!row.regain.empty()) {
            (void)board.Do(row.regain);
        }
        EXPECT_TRUE(WaitMessages(board, boot, Guarding(), 2));
        Lines expected = {"connect", "lease"};
        expected.insert(expected.end(), row.steps.begin(), row.steps.end());
        expected.insert(expected.end(), {"connect", "lease"});
        EXPECT_EQ(Steps(board, boot), expected);
        (void)board.Do({"reset"});
        ++boot;
    }
}

TEST(Station, SigtermEndsItWhereverItIs) {
    const struct {
        const char* accessPoint;
        const char* reached;
        // Includes a second for the watchdog's feeder, which stops before the station, and many
        // for the host.
        double bound;
        double atLeast = 0;
    } rows[] = {
        {"up", "app file not exist!", 14},             // before the connect sequence
        {"down", "state:DISCONNECTED", 14},            // associating
        {"no-dhcp", "broadcasting discover", 45, 15},  // waiting for a lease: killed after 15 s
        {"mute", "NetWork ping failed cnt:1 ", 14},    // guarding
    };
    Board board;
    board.Start({"--no-eth"});
    int boot = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reached);
        const bool mute = std::string(row.accessPoint) == "mute";
        (void)board.Do({"ap", mute ? "up" : row.accessPoint});
        if (mute) {
            (void)board.Do({"ap", "dhcp"});
        }
        (void)board.Do({"reset"});
        ++boot;
        if (mute) {
            ASSERT_TRUE(board.WaitTrace(kGuard, boot));
            (void)board.Do({"ap", "mute"});
        }
        ASSERT_TRUE(board.WaitTrace(row.reached, boot));
        const auto start = Clock::now();
        board.Signal(SIGTERM);
        EXPECT_TRUE(board.WaitConsole("upgradeMain ended with status 0", boot));
        EXPECT_LT(SecondsSince(start), row.bound);
        EXPECT_GE(SecondsSince(start), row.atLeast);
        (void)board.Do({"ap", "up"});
    }
}
