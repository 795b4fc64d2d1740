// The whole station on a veth "wlan0", with stand-in commands and a scripted supplicant.
#include "wifi/kv_wifi_sta.h"

#include <array>

#include "tests/support/capture.h"
#include "tests/support/scripted_supplicant.h"
#include "tests/support/surroundings.h"

using namespace kv_test;

namespace {

ScriptedSupplicant::Script InState(const std::string& state) {
    return ScriptedSupplicant::Always("wpa_state=" + state + "\n");
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
        RequireSandbox();
        (void)Shell("ip link add wlan0 type veth peer name air && ip link set wlan0 up");
        (void)Shell("ip link set air up && : >/tmp/commands.log");
    }
    void SetUp() override { Udhcpc(""); }
    void TearDown() override { (void)Shell("ip addr flush dev wlan0 && : >/tmp/commands.log"); }
    static void Udhcpc(const std::string& action) {
        WriteFile("/tmp/stubs/udhcpc.new",
                  "#!/bin/sh\necho \"udhcpc $*\" >>/tmp/commands.log\n" + action + "\n");
        (void)Shell("cd /tmp/stubs && chmod +x udhcpc.new && mv udhcpc.new udhcpc");
    }
    static std::string Commands() { return ReadFile("/tmp/commands.log"); }
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
    EXPECT_TRUE(InOrder(trace.Text(),
                        {"FAILED kv_wifi_sta:KV_WIFI_StaConnect:", "wifi ScriptPath is NULL!\n",
                         "wifi WorkPath is NULL!\n", "KV_WIFI_StaStop:", "wifi sta is stop!\n",
                         "KV_WIFI_StaGetState:", "wifi sta is stop!\n",
                         "KV_WIFI_StaSetStaticIP:", "wifi sta is stop!\n"}));
}

// The service network from start to guard.
TEST_F(Station, ServiceNetwork) {
    Udhcpc("ip addr add 172.20.18.77/24 dev wlan0");
    ScriptedSupplicant supplicant(InState("SCANNING"));
    const Capture trace(2);
    const Capture echo(1);
    const auto start = Clock::now();
    EXPECT_EQ(__KV_WIFI_StaSupplicant(), 0);
    EXPECT_EQ(KV_WIFI_StaGetState(), 0);
    EXPECT_TRUE(WaitUntil([&] { return Contains(echo.Text(), "# killall -9 udhcpc"); }));
    EXPECT_GE(SecondsSince(start), 2);
    EXPECT_TRUE(WaitUntil([&] { return supplicant.Count("STATUS") >= 2; }));
    supplicant.SetScript(InState("COMPLETED"));
    const auto completed = Clock::now();
    EXPECT_TRUE(WaitUntil([] { return KV_WIFI_StaGetState() == 3; }));
    // Without a default route the target is the fixed one, where nobody answers.
    EXPECT_TRUE(WaitUntil(
        [&] { return Contains(trace.Text(), "NetWork ping failed cnt:1 172.20.18.1\n"); }));
    EXPECT_GT(SecondsSince(completed), 5);
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    EXPECT_TRUE(InOrder(trace.Text(),
                        {"kv_wifi_sta:KV_WIFI_StaStop:", "wifi sta is stop!\n", "gpWorkPath:/tmp\n",
                         "kv_wifi_sta:handle_result:", "state:SCANNING\n", "state:COMPLETED\n",
                         "into wifi guard\n", " INFO kv_wifi_sta:__KV_WIFI_STA_HandleProc:",
                         "KV_WIFI_StaStop start\n", "KV_WIFI_StaStop success!\n"}));
    EXPECT_EQ(echo.Text().substr(0, echo.Text().find("# udhcpc")),
              "# killall -9 udhcpc\r\n# ifconfig wlan0 down\r\n# ifconfig wlan0 up\r\n"
              "# killall -9 wpa_supplicant\r\n"
              "# /root/wifi_connect.sh sta /tmp/wpa_supplicant.conf\r\n");
}

// No lease: a soft reset. The next sequence then sets the static address given meanwhile.
TEST_F(Station, NoAddressThenAStaticOne) {
    ScriptedSupplicant supplicant(InState("COMPLETED"));
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    const Capture trace(2);
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    EXPECT_TRUE(WaitUntil([] { return Contains(Commands(), "wifi_reset.sh soft\n"); }));
    EXPECT_EQ(KV_WIFI_StaSetStaticIP("172.20.18.99"), 0);
    EXPECT_TRUE(WaitUntil([] { return KV_WIFI_StaGetState() == 3; }));
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    // The run path is "/tmp", whatever the work directory.
    EXPECT_TRUE(
        InOrder(trace.Text(), {"gpWorkPath:/tmp\n", " ERROR kv_wifi_sta:__KV_WIFI_STA_HandleProc:",
                               "No correct IP!!!!,SoftReset\n", "into wifi guard\n"}));
    const std::string sequence =
        std::string(kSequence) + "wifi_connect.sh sta /param/wpa_supplicant.conf\n";
    EXPECT_EQ(Commands(), sequence + "udhcpc -i wlan0\nwifi_reset.sh soft\n" + sequence);
    (void)Shell("ip addr show dev wlan0 | grep -q 'inet 172.20.18.99/24'");
}

// A lease that arrives afterwards does not replace it.
TEST_F(Station, StaticAddressGivenWhileALeaseIsAwaited) {
    Udhcpc(
        ": >/tmp/asked; until [ -e /tmp/given ]; do sleep 0.1; done; "
        "ip addr add 172.20.18.77/24 dev wlan0");
    ScriptedSupplicant supplicant(InState("COMPLETED"));
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists("/tmp/asked"); }));
    EXPECT_EQ(KV_WIFI_StaSetStaticIP("172.20.18.99"), 0);
    WriteFile("/tmp/given", "");
    EXPECT_TRUE(WaitUntil([] { return KV_WIFI_StaGetState() == 3; }));
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    (void)Shell("ip addr show dev wlan0 | grep -q 'inet 172.20.18.99/24'");
}

// A MAC that cannot be read does not count as missing. A ping that cannot be sent is reported once
// and counted as missed each time.
TEST_F(Station, GuardsAnInterfaceThatIsGone) {
    (void)Shell("ip link set wlan0 down && ip link set wlan0 name gone");
    ScriptedSupplicant supplicant(InState("COMPLETED"));
    const KV_WIFI_STA_PARAM param = Param("");
    std::string said;
    {
        const Capture trace(2);
        const Capture echo(1);
        EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
        EXPECT_TRUE(WaitUntil(
            [&] { return Contains(trace.Text(), "NetWork ping failed cnt:2 172.20.18.1\n"); }));
        EXPECT_EQ(KV_WIFI_StaStop(), 0);
        EXPECT_FALSE(Contains(trace.Text(), "No correct "));
        said = echo.Text();
    }
#ifdef KV_HV_SYSTEM
    // An installed libhv's ping does not distinguish this from a missing reply.
    constexpr size_t kSaid = 0;
#else
    constexpr size_t kSaid = 1;
#endif
    EXPECT_EQ(CountOf(said, "ping 172.20.18.1 cannot be sent, counted as missed\n"), kSaid);
    (void)Shell("ip link set gone name wlan0 && ip link set wlan0 up");
}

TEST_F(Station, StopsWithinASecondAndTouchesNothingAfterwards) {
    Udhcpc("sleep 1; touch /tmp/leased");
    ScriptedSupplicant supplicant(InState("SCANNING"));
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    const auto logged = [](const char* text) { return Contains(Commands(), text); };
    const struct {
        const char* what;
        const char* state;
        std::function<bool()> reached;
        std::function<bool()> stopped;
    } cases[] = {
        // During the sleep before the commands: no command starts.
        {"connecting", "SCANNING",
         [] {
             std::this_thread::sleep_for(milliseconds(100));
             return true;
         },
         [] { return Commands().empty(); }},
        {"associating", "SCANNING", [&] { return supplicant.Count("STATUS") > 0; },
         [&] { return !logged("udhcpc -i"); }},
        // The stop waits for the current command.
        {"addressing", "COMPLETED", [&] { return logged("udhcpc -i"); },
         [] { return std::filesystem::exists("/tmp/leased"); }},
    };
    constexpr double kLimit = 1.7;
    for (const auto& c : cases) {
        double took = kLimit;
        for (int i = 0; i < 5 && took >= kLimit; ++i) {  // a busy machine may delay some
            (void)Shell(": >/tmp/commands.log; rm -f /tmp/leased");
            supplicant.SetScript(InState(c.state));
            EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
            EXPECT_TRUE(WaitUntil(c.reached)) << c.what;
            const auto start = Clock::now();
            EXPECT_EQ(KV_WIFI_StaStop(), 0);
            took = SecondsSince(start);
            EXPECT_TRUE(c.stopped()) << c.what;
            const std::string commands = Commands();
            const int asked = supplicant.Count("STATUS");
            std::this_thread::sleep_for(milliseconds(300));
            EXPECT_EQ(Commands(), commands) << c.what;
            EXPECT_EQ(supplicant.Count("STATUS"), asked) << c.what;
        }
        EXPECT_LT(took, kLimit) << c.what;
    }
}

// Each started thread is joined once, by the start that replaces it or by one of the stops.
TEST_F(Station, StartsAndStopsFromTwoThreadsTakeTurns) {
    const KV_WIFI_STA_PARAM param = Param(nullptr);
    const Capture trace(2);
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    std::this_thread::sleep_for(milliseconds(100));  // during its sleep
    std::thread start([&param] { EXPECT_EQ(KV_WIFI_StaConnect(&param), 0); });
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    start.join();
    int other = 0;
    std::thread stop([&other] { other = KV_WIFI_StaStop(); });
    const int own = KV_WIFI_StaStop();
    stop.join();
    EXPECT_EQ(own + other, -1);
    EXPECT_EQ(CountOf(trace.Text(), "success!"), 3U);
}

TEST_F(Station, DebugCommand) {
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always("OK\n"));
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
    KV_WIFI_STA_PARAM param = Param(nullptr);
    param.pcWorkPath = "/tmp";
    EXPECT_EQ(KV_WIFI_StaConnect(&param), 0);
    command({});
    // Any use moves the connect sequence that follows.
    EXPECT_TRUE(WaitUntil(
        [] { return Contains(Commands(), "wifi_connect.sh sta /param/wpa_supplicant.conf\n"); }));
    command({"CMD"});
    command({"Unknown", "PING"});
    command({"CMD", "SAVE_CONFIG"});
    command({"SCAN"});
    command({"RECV", "text"});
    EXPECT_TRUE(WaitUntil([&] { return supplicant.Count("ATTACH") == 1; }));
    command({"RECV", "again"});
    command({"CONNECT", "net", "passphrase"});
    EXPECT_EQ(KV_WIFI_StaGetState(), 0);
    EXPECT_TRUE(WaitUntil([] { return CountOf(Commands(), "wifi_connect.sh sta /param/") == 2; }));
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    EXPECT_EQ(supplicant.Count("PING"), 0);
    EXPECT_EQ(supplicant.Count("SAVE_CONFIG"), 1);
    EXPECT_EQ(supplicant.Count("SCAN"), 1);
    EXPECT_EQ(supplicant.Count("SCAN_RESULTS"), 1);
    EXPECT_TRUE(InOrder(trace.Text(),
                        {"RECV----:text\n", "RECV----:again\n", "__KV_WIFI_StaSupplicantDebug:"}));
}

}  // namespace
