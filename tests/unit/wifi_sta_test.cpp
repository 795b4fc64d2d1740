// The station: its decisions over made-up time, then the whole of it on a veth "wlan0".
#include "wifi/kv_wifi_sta.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/scripted_supplicant.h"
#include "wifi/kv_wifi_conf.h"
#include "wifi/kv_wifi_sta_step.h"

namespace {

using kv::StaGo;
using kv::StaLink;
using kv::StaMachine;
using kv::StaState;
using kv::StaVerdict;
using kv_test::Capture;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kMac[] = "02:00:00:00:00:01";

// --- decisions ---

TEST(StaStep, TimeOutsMakeRoundsOfThreeWithThreeSoftResets) {
    StaMachine machine;
    std::vector<int> softResets = {StaPlanConnect(&machine, StaGo::kSoftReset)};
    for (int i = 1; i < 40; ++i) {
        softResets.push_back(StaPlanConnect(&machine, StaGo::kConnect));
    }
    std::vector<int> expected(40, 0);
    expected[3] = expected[6] = expected[9] = 1;
    EXPECT_EQ(softResets, expected);
}

TEST(StaStep, BadAddressesGiveThreeSoftResetsAndNeverAnother) {
    StaMachine machine;
    std::vector<int> softResets = {StaPlanConnect(&machine, StaGo::kSoftReset)};
    for (int i = 1; i < 1000; ++i) {
        EXPECT_EQ(StaOnVerify(&machine, "", nullptr, kMac), StaVerdict::kNoAddress);
        softResets.push_back(StaPlanConnect(&machine, StaGo::kSoftReset));
    }
    std::vector<int> expected(1000, 0);
    expected[1] = expected[2] = expected[3] = 1;
    EXPECT_EQ(softResets, expected);
    // A verified link starts the series anew.
    EXPECT_EQ(StaOnVerify(&machine, "1.2.3.4", nullptr, kMac), StaVerdict::kGood);
    EXPECT_EQ(StaOnLink(&machine, StaLink::kDead), StaGo::kSoftReset);
    EXPECT_EQ(StaPlanConnect(&machine, StaGo::kSoftReset), 1);
}

TEST(StaStep, AFailureInARoundsLastAttemptPassesTheSoftResetPointTwice) {
    StaMachine machine;
    (void)StaPlanConnect(&machine, StaGo::kSoftReset);
    (void)StaPlanConnect(&machine, StaGo::kConnect);
    (void)StaPlanConnect(&machine, StaGo::kConnect);
    (void)StaOnVerify(&machine, "", nullptr, kMac);
    EXPECT_EQ(StaPlanConnect(&machine, StaGo::kSoftReset), 2);
    EXPECT_EQ(machine.retryCount, 2);
    EXPECT_EQ(machine.attemptCount, 1);
}

// Every sequence of eight failures and successes: between two verified links there are never more
// than three soft resets, and never a fourth attempt in a row without one while they last.
TEST(StaStep, SoftResetsAreBoundedWhateverHappens) {
    for (int sequence = 0; sequence < 4 * 4 * 4 * 4 * 4 * 4 * 4 * 4; ++sequence) {
        StaMachine machine;
        int softResets = 0;
        int withoutReset = 1;
        (void)StaPlanConnect(&machine, StaGo::kSoftReset);
        for (int step = 0, left = sequence; step < 8; ++step, left /= 4) {
            StaGo go = StaGo::kConnect;
            if (left % 4 == 1) {
                (void)StaOnVerify(&machine, "", nullptr, kMac);
                go = StaGo::kSoftReset;
            } else if (left % 4 > 1) {
                (void)StaOnVerify(&machine, "1.2.3.4", nullptr, kMac);
                softResets = 0;
                withoutReset = 0;
                go = StaOnLink(&machine, left % 4 == 2 ? StaLink::kDead : StaLink::kNotRunning);
            }
            const int now = StaPlanConnect(&machine, go);
            softResets += now;
            withoutReset = now > 0 ? 1 : withoutReset + 1;
            ASSERT_LE(softResets, 3) << sequence;
            ASSERT_TRUE(withoutReset <= 3 || softResets == 3) << sequence;
        }
    }
}

TEST(StaStep, AssociatingTimesOutSixtySecondsAfterTheLastChange) {
    const struct {
        const char* wpaState;  // the last one was "SCANNING", at 100
        bool guardEnable;
        int64_t now;
        StaGo go;
        StaState state;
        int64_t lastChange;
    } cases[] = {
        {"SCANNING", true, 160, StaGo::kStay, StaState::kAssociating, 100},
        {"SCANNING", true, 161, StaGo::kConnect, StaState::kAssociating, 100},
        {"SCANNING", false, 1000000, StaGo::kStay, StaState::kAssociating, 100},
        {nullptr, true, 160, StaGo::kStay, StaState::kAssociating, 100},
        {nullptr, true, 161, StaGo::kConnect, StaState::kAssociating, 100},
        {nullptr, false, 1000000, StaGo::kStay, StaState::kAssociating, 100},
        {"ASSOCIATING", true, 161, StaGo::kStay, StaState::kAssociating, 161},
        {"", true, 161, StaGo::kStay, StaState::kAssociating, 161},
        {"COMPLETED", true, 161, StaGo::kStay, StaState::kAddressing, 161},
        {"COMPLETED2", true, 161, StaGo::kStay, StaState::kAssociating, 161},
    };
    for (const auto& c : cases) {
        StaMachine machine;
        (void)StaPlanConnect(&machine, StaGo::kSoftReset);
        StaOnConnected(&machine, 90);
        EXPECT_EQ(StaOnStatus(&machine, "SCANNING", true, 100), StaGo::kStay);
        EXPECT_EQ(StaOnStatus(&machine, c.wpaState, c.guardEnable, c.now), c.go) << c.now;
        EXPECT_EQ(machine.state, c.state) << c.now;
        EXPECT_EQ(machine.lastChange, c.lastChange) << c.now;
        // The connect sequence forgets the text: the same one is a change again.
        StaOnConnected(&machine, 5000000);
        EXPECT_EQ(StaOnStatus(&machine, "SCANNING", true, 5000061), StaGo::kStay);
    }
}

TEST(StaStep, AStateThatKeepsChangingPostponesTheTimeOut) {
    StaMachine machine;
    for (int64_t now = 0; now < 100000; now += 60) {
        ASSERT_EQ(StaOnStatus(&machine, now % 120 == 0 ? "SCANNING" : "DISCONNECTED", true, now),
                  StaGo::kStay);
    }
}

TEST(StaStep, Verifying) {
    const struct {
        const char* ip;
        const char* wantedIp;
        const char* mac;
        StaVerdict verdict;
    } cases[] = {
        {"1.2.3.4", nullptr, kMac, StaVerdict::kGood},
        {"", nullptr, kMac, StaVerdict::kNoAddress},
        {"1.2.3.4", "1.2.3.4", kMac, StaVerdict::kGood},
        {"1.2.3.4", "1.2.3.5", kMac, StaVerdict::kNoAddress},
        {"", "1.2.3.4", kMac, StaVerdict::kNoAddress},
        {"1.2.3.4", nullptr, "", StaVerdict::kNoMac},
        {"", nullptr, "", StaVerdict::kNoAddress},
        // A failed read leaves the last command in the buffer, which passes.
        {"1.2.3.4", nullptr, "udhcpc -i wlan0", StaVerdict::kGood},
    };
    for (const auto& c : cases) {
        StaMachine machine;
        machine.state = StaState::kVerifying;
        machine.retryCount = 2;
        machine.attemptCount = 3;
        EXPECT_EQ(StaOnVerify(&machine, c.ip, c.wantedIp, c.mac), c.verdict) << c.ip;
        const bool good = c.verdict == StaVerdict::kGood;
        EXPECT_EQ(machine.state, good ? StaState::kGuarding : StaState::kVerifying) << c.ip;
        EXPECT_EQ(machine.retryCount, good ? 0 : 3) << c.ip;
        EXPECT_EQ(machine.attemptCount, good ? 0 : 3) << c.ip;
    }
}

TEST(StaStep, GuardLooksAtTheLinkAfterSixMissesInARow) {
    const struct {
        StaLink link;
        StaGo go;
        int retries;
    } cases[] = {
        {StaLink::kDead, StaGo::kSoftReset, 1},
        {StaLink::kNotRunning, StaGo::kConnect, 0},
        {StaLink::kFine, StaGo::kStay, 0},
    };
    for (const auto& c : cases) {
        StaMachine machine;
        machine.lastChange = 100;
        EXPECT_FALSE(StaPingDue(machine, 105));
        EXPECT_TRUE(StaPingDue(machine, 106));
        int64_t now = 106;
        const auto miss = [&] {
            EXPECT_TRUE(StaPingDue(machine, now));
            const bool look = StaOnPing(&machine, false, now);
            EXPECT_FALSE(StaPingDue(machine, now + 5));
            now += 6;
            return look;
        };
        for (int i = 0; i < 5; ++i) {
            EXPECT_FALSE(miss());
        }
        EXPECT_FALSE(StaOnPing(&machine, true, now));  // a reply starts the count anew
        now += 6;
        for (int i = 0; i < 5; ++i) {
            EXPECT_FALSE(miss());
        }
        EXPECT_TRUE(miss());
        EXPECT_EQ(StaOnLink(&machine, c.link), c.go);
        EXPECT_EQ(machine.retryCount, c.retries);
        EXPECT_EQ(machine.pingFailCount, 0);
    }
}

// --- the whole station ---

std::string Read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void Shell(const std::string& command) {
    ASSERT_EQ(system(command.c_str()), 0) << command;
}

bool WaitFor(const std::function<bool()>& condition) {
    const auto end = steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(20));
    }
    return true;
}

// Whether `parts` stand in `text` in this order.
bool InOrder(const std::string& text, const std::vector<std::string>& parts) {
    size_t at = 0;
    for (const std::string& part : parts) {
        at = text.find(part, at);
        if (at == std::string::npos) {
            ADD_FAILURE() << "missing or out of order: " << part << "\nin:\n" << text;
            return false;
        }
        at += part.size();
    }
    return true;
}

ScriptedSupplicant::Script InState(const std::string& state) {
    return [state](const std::string&) {
        return std::vector<ScriptedSupplicant::Message>{{"wpa_state=" + state + "\n"}};
    };
}

KV_WIFI_STA_PARAM Param(const char* ip) {
    KV_WIFI_STA_PARAM param{};
    param.pcScriptPath = "/root/wifi_connect.sh";
    param.pcWorkPath = "/param";
    param.ucGuardEnable = 1;
    param.ucDhcp = ip == nullptr ? 1 : 0;
    (void)snprintf(param.acIpAddr, sizeof(param.acIpAddr), "%s", ip != nullptr ? ip : "");
    (void)snprintf(param.acNetmask, sizeof(param.acNetmask), "255.255.255.0");
    return param;
}

class Station : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        Shell("ip link add wlan0 type veth peer name air && ip link set wlan0 up");
        Shell("ip link set air up && : >/tmp/commands.log");
    }
    void SetUp() override { Udhcpc(""); }
    void TearDown() override { Shell("ip addr flush dev wlan0 && : >/tmp/commands.log"); }
    static void Udhcpc(const std::string& action) {
        std::ofstream("/tmp/stubs/udhcpc.new")
            << "#!/bin/sh\necho \"udhcpc $*\" >>/tmp/commands.log\n"
            << action << "\n";
        (void)chmod("/tmp/stubs/udhcpc.new", 0755);
        (void)rename("/tmp/stubs/udhcpc.new", "/tmp/stubs/udhcpc");
    }
    static std::string Commands() { return Read("/tmp/commands.log"); }
};

constexpr char kSequence[] =
    "killall -9 udhcpc\nifconfig wlan0 down\nifconfig wlan0 up\nkillall -9 wpa_supplicant\n";

TEST_F(Station, RefusesAndReportsWithoutAStation) {
    KV_WIFI_STA_PARAM param = Param(nullptr);
    param.pcScriptPath = nullptr;
    const Capture trace(2);
    EXPECT_EQ(KV_WIFI_StaConnect(&param), -1);
    param = Param(nullptr);
    param.pcWorkPath = nullptr;
    EXPECT_EQ(KV_WIFI_StaConnect(&param), -1);
    EXPECT_EQ(KV_WIFI_StaStop(), -1);
    EXPECT_EQ(KV_WIFI_StaGetState(), -1);
    EXPECT_EQ(KV_WIFI_StaSetStaticIP("1.2.3.4"), -1);
    const std::string log = trace.Text();
    InOrder(log, {"FAILED kv_wifi_sta:KV_WIFI_StaConnect:", "wifi ScriptPath is NULL!\n",
                  "wifi WorkPath is NULL!\n", "KV_WIFI_StaStop:", "wifi sta is stop!\n",
                  "KV_WIFI_StaGetState:", "wifi sta is stop!\n",
                  "KV_WIFI_StaSetStaticIP:", "wifi sta is stop!\n"});
}

// The service network from start to guard, then a replacement.
TEST_F(Station, ServiceNetworkAndReplacement) {
    Udhcpc("ip addr add 172.20.18.77/24 dev wlan0");
    ScriptedSupplicant supplicant(InState("SCANNING"));
    const Capture trace(2);
    const Capture echo(1);
    EXPECT_EQ(__KV_WIFI_StaSupplicant(), 0);
    EXPECT_EQ(KV_WIFI_StaGetState(), 0);
    EXPECT_TRUE(WaitFor([&] { return supplicant.Count("STATUS") >= 2; }));
    supplicant.SetScript(InState("COMPLETED"));
    EXPECT_TRUE(WaitFor([] { return KV_WIFI_StaGetState() == 3; }));
    EXPECT_EQ(Commands(), std::string(kSequence) +
                              "wifi_connect.sh sta /tmp/wpa_supplicant.conf\nudhcpc -i wlan0\n");
    // No default route, so the fixed target; nobody there answers.
    EXPECT_TRUE(WaitFor([&] {
        return trace.Text().find("NetWork ping failed cnt:1 172.20.18.1\n") != std::string::npos;
    }));
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    EXPECT_EQ(KV_WIFI_StaGetState(), 0);
    EXPECT_EQ(KV_WIFI_StaStop(), 0);

    InOrder(trace.Text(), {"kv_wifi_sta:KV_WIFI_StaStop:", "wifi sta is stop!\n",
                           "gpWorkPath:/tmp\n", "kv_wifi_sta:handle_result:", "state:SCANNING\n",
                           "state:COMPLETED\n", "into wifi guard\n",
                           " INFO kv_wifi_sta:__KV_WIFI_STA_HandleProc:", "KV_WIFI_StaStop start\n",
                           "KV_WIFI_StaStop success!\n", "gpWorkPath:/tmp\n",
                           "KV_WIFI_StaStop start\n", "KV_WIFI_StaStop success!\n"});
    InOrder(echo.Text(), {"# killall -9 udhcpc\r\n# ifconfig wlan0 down\r\n# ifconfig wlan0 up\r\n"
                          "# killall -9 wpa_supplicant\r\n"
                          "# /root/wifi_connect.sh sta /tmp/wpa_supplicant.conf\r\n"
                          "# udhcpc -i wlan0\r\n"});
}

// No lease: a soft reset. The address given by hand meanwhile is what the next sequence sets.
TEST_F(Station, NoAddressThenAStaticOne) {
    ScriptedSupplicant supplicant(InState("COMPLETED"));
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    const Capture trace(2);
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    EXPECT_TRUE(WaitFor(
        [] { return Commands().find("wifi_reset.sh soft\nkillall") != std::string::npos; }));
    EXPECT_EQ(KV_WIFI_StaSetStaticIP("172.20.18.99"), 0);
    EXPECT_TRUE(WaitFor([] { return KV_WIFI_StaGetState() == 3; }));
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    InOrder(trace.Text(), {" ERROR kv_wifi_sta:__KV_WIFI_STA_HandleProc:",
                           "No correct IP!!!!,SoftReset\n", "into wifi guard\n"});
    const std::string sequence =
        std::string(kSequence) + "wifi_connect.sh sta /param/wpa_supplicant.conf\n";
    EXPECT_EQ(Commands(), sequence + "udhcpc -i wlan0\nwifi_reset.sh soft\n" + sequence);
    Shell("ip addr show dev wlan0 | grep -q 'inet 172.20.18.99/24'");
}

TEST_F(Station, StopsWithinASecondAndTouchesNothingAfterwards) {
    Udhcpc("sleep 1; ip addr add 172.20.18.77/24 dev wlan0");
    ScriptedSupplicant supplicant(InState("SCANNING"));
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    const struct {
        const char* what;
        const char* state;
        std::function<bool()> reached;
    } cases[] = {
        {"before the connect sequence", "SCANNING", [] { return true; }},
        {"associating", "SCANNING", [&] { return supplicant.Count("STATUS") > 0; }},
        {"addressing", "COMPLETED",
         [] { return Commands().find("udhcpc -i") != std::string::npos; }},
    };
    for (const auto& c : cases) {
        Shell(": >/tmp/commands.log");
        supplicant.SetScript(InState(c.state));
        EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
        EXPECT_TRUE(WaitFor(c.reached)) << c.what;
        const auto start = steady_clock::now();
        EXPECT_EQ(KV_WIFI_StaStop(), 0);
        EXPECT_LT(steady_clock::now() - start, milliseconds(1500)) << c.what;
        const std::string commands = Commands();
        const int asked = supplicant.Count("STATUS");
        std::this_thread::sleep_for(milliseconds(300));
        EXPECT_EQ(Commands(), commands) << c.what;
        EXPECT_EQ(supplicant.Count("STATUS"), asked) << c.what;
    }
}

TEST_F(Station, StartAndStopFromTwoThreadsTakeTurns) {
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    const auto work = [&] {
        for (int i = 0; i < 3; ++i) {
            starts += KV_WIFI_StaConnect(&param) == 0 ? 1 : 0;
            stops += KV_WIFI_StaStop() == 0 ? 1 : 0;
        }
    };
    const Capture trace(2);
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(starts, 6);
    EXPECT_EQ(KV_WIFI_StaStop(), -1);
    // Each thread that was started was joined once: by a stop or by the start that replaced it.
    const std::string log = trace.Text();
    int joins = 0;
    for (size_t at = log.find("success!"); at != std::string::npos; at = log.find("success!", at)) {
        ++joins;
        ++at;
    }
    EXPECT_EQ(joins, 6);
    EXPECT_LE(stops, 6);
}

TEST_F(Station, DebugCommand) {
    ScriptedSupplicant supplicant(
        [](const std::string&) { return std::vector<ScriptedSupplicant::Message>{{"OK\n"}}; });
    Shell("mkdir -p /tmp/bound && mount --bind /tmp/bound /param 2>/dev/null || true");
    const auto command = [](std::vector<const char*> words) {
        std::array<char*, 8> argv{};
        for (size_t i = 0; i < words.size(); ++i) {
            argv[i] = const_cast<char*>(words[i]);
        }
        char reply[64] = "";
        (void)KV_WIFI_STA_DebugCmd(static_cast<int>(words.size()), "kv-wifi", argv.data(), reply);
        EXPECT_STREQ(reply, "");
    };
    const Capture trace(2);
    command({});
    command({"CMD"});
    command({"Unknown", "PING"});
    command({"CMD", "SAVE_CONFIG"});
    command({"SCAN"});
    command({"RECV", "text"});
    EXPECT_TRUE(WaitFor([&] { return supplicant.Count("ATTACH") == 1; }));
    command({"RECV", "again"});
    command({"CONNECT", "net", "passphrase"});
    EXPECT_EQ(KV_WIFI_StaGetState(), 0);
    EXPECT_TRUE(WaitFor([] { return Commands().find("wifi_connect.sh") != std::string::npos; }));
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    EXPECT_EQ(supplicant.Count("PING"), 0);
    EXPECT_EQ(supplicant.Count("SAVE_CONFIG"), 1);
    EXPECT_EQ(supplicant.Count("SCAN"), 1);
    EXPECT_EQ(supplicant.Count("SCAN_RESULTS"), 1);
    EXPECT_NE(Commands().find("wifi_connect.sh sta /param/wpa_supplicant.conf\n"),
              std::string::npos);
    InOrder(trace.Text(), {"RECV----:text\n", "RECV----:again\n", "__KV_WIFI_StaSupplicantDebug:"});
}

}  // namespace
