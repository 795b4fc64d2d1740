// Start-up, signals and the watchdog on a board.
#include <csignal>

#include "tests/support/board.h"
#include "tests/support/wire.h"

using namespace kv_test;

TEST(Supervisor, ModeFollowsApplicationAndMarker) {
    Board board;
    board.InstallApplication();
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file exist!"));
    EXPECT_TRUE(Contains(board.Trace(), "  INFO upgrade_main:main:338 \033[mapp file exist!\n"));
    EXPECT_FALSE(board.Client().Connected());

    (void)board.OnBoard("touch /param/miniserver.debug");
    (void)board.Do({"reset"});
    ASSERT_TRUE(board.WaitTrace("MINI ProtocolInit Init Success!", 2));
    // The echoes have a pipe of their own.
    EXPECT_TRUE(WaitUntil([&] { return board.Echoes(2) == Lines{"rm /param/miniserver.debug"}; }))
        << board.Console(2);
    EXPECT_FALSE(Contains(board.Trace(2), "app file"));
    EXPECT_NE(board.OnBoard("test -e /param/miniserver.debug").status, 0);
    EXPECT_TRUE(board.Client().Connected());

    (void)board.Do({"reset"});
    ASSERT_TRUE(board.WaitTrace("app file exist!", 3));
}

TEST(Supervisor, RecoveryStartsInOrderAndChildrenInheritNothing) {
    Board board;
    board.StartRecovery();
    const Lines expected = {"DEBUG KV_FH_WDT_Start: Watchdog Timeout:30",
                            "DEBUG KV_FH_WDT_Start: Watchdog Init successful",
                            "__KV_WIFI_StaSupplicant: need passwd!! default WPA-PSK",
                            "DEBUG KV_HV_LoopPoolInit: LoopPoolInit Init Success!",
                            "Discovery Deinit Success!",
                            "DEBUG KV_MINI_ProtocolInit: MINI ProtocolInit Init Success!",
                            "INFO main: app file not exist!"};
    std::string all;
    for (const auto& message : board.Messages()) {
        all += message + "\n";
    }
    EXPECT_TRUE(InOrder(all, expected));

    // A shell child of the program has three standard descriptors; the fourth is opened by ls.
    board.ReplaceCommand("killall", "ls /proc/self/fd >/param/descriptors");
    board.Signal(SIGUSR2);
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_EQ(ReadFile(board.Path("param/descriptors")), "0\n1\n2\n3\n");
}

TEST(Supervisor, Sigusr1OnlyDisarms) {
    Board board;
    board.StartRecovery();
    board.Signal(SIGUSR1);
    ASSERT_TRUE(board.WaitTrace("KV_FH_WDT_Stop:176 "));
    EXPECT_FALSE(board.Armed());
    const std::string threads = board.OnBoard("cat /proc/$(pidof upgradeMain)/task/*/comm").output;
    EXPECT_TRUE(Contains(threads, "__KV_SIGNAL_Pro") && !Contains(threads, "__KV_FH_WDT"))
        << threads;
    EXPECT_FALSE(board.Status().at("watchdog").at("open"));
    // A connection gets the lowest free number. A second stop is accepted and leaves the connection
    // alone.
    const TcpClient client = board.Client();
    EXPECT_EQ(client.Ask(Frame(6)), ReplyHeader(6, 0, 0));
    board.Signal(SIGUSR1);
    EXPECT_TRUE(WaitUntil([&] { return CountOf(board.Trace(), "KV_FH_WDT_Stop:176 ") == 2; }));
    EXPECT_EQ(client.Ask(Frame(6)), ReplyHeader(6, 0, 0));
    EXPECT_EQ(CountOf(board.Trace(), "KV_FH_WDT_Stop"), 2U);
    std::map<std::string, int> operations;
    for (const auto& operation : board.Operations()) {
        ++operations[operation.at("op")];
    }
    EXPECT_EQ(operations["ioctl:SETOPTIONS"], 1);
    EXPECT_EQ(operations["release"], 1);
}

TEST(Supervisor, SecondSigtermIsAnsweredWhileTheFirstOnesJoinBlocks) {
    Board board;
    board.StartRecovery();
    // The receiver runs "sync" on its worker's thread, and the shutdown joins that thread.
    board.ReplaceCommand("sync", "until [ -e /param/go ]; do sleep 0.1; done");
    const TcpClient client = board.Client();
    ASSERT_TRUE(client.Send(UpgradeFrame(1000)));
    ASSERT_TRUE(board.WaitTrace("CMD_SYS_UPGRADE"));
    board.Signal(SIGTERM);
    ASSERT_TRUE(board.WaitTrace("upgreade_fun_sig:300 "));
    board.Signal(SIGINT);
    ASSERT_TRUE(board.WaitTrace("FAILED upgrade_main:upgreade_fun_sig:297 \033[mwait exit!"));
    WriteFile(board.Path("param/go"), "");
    ASSERT_TRUE(board.WaitTrace("LoopPoolInit DeInit Success!"));
    const std::string trace = board.Trace();
    EXPECT_LT(trace.find("wait exit!"), trace.find("LoopPoolInit DeInit Success!"));
    EXPECT_TRUE(InOrder(trace, {"Start Exit!", "KV_FH_WDT_Stop:176 ", "KV_WIFI_StaStop success!",
                                "LoopPoolInit DeInit Success!"}));
    EXPECT_EQ(CountOf(trace, "Start Exit!"), 1U);
    EXPECT_FALSE(board.Armed());
    ASSERT_TRUE(board.WaitConsole("upgradeMain ended with status 0"));
}

TEST(Supervisor, WatchdogFailuresAtStart) {
    Board board;
    // The faults below apply to later boots. This boot must have its watchdog first.
    board.StartRecovery();
    const struct {
        Lines fault;
        const char* line;
        bool open;
        bool fed;
    } rows[] = {
        {{"watchdog", "open", "--errno", "EBUSY"},
         "FAILED kv_fullhan_watdog:KV_FH_WDT_Start:119 \033[mOpen Watchdog KeepAlive Fail: Device "
         "or resource busy\n",
         false,
         false},
        // Armed and open: if nobody feeds it, it resets the device.
        {{"watchdog", "ioctl", "--errno", "EINVAL"},
         "FAILED kv_fullhan_watdog:KV_FH_WDT_Start:123 \033[mSet Watchdog TimeOut Fail: Invalid "
         "argument\n",
         true,
         false},
        {{"watchdog", "ioctl", "--errno", "EIO", "--skip", "3"},
         " ERROR kv_fullhan_watdog:__KV_FH_WDT_Keepalive:39 \033[mSet Watchdog KeepAlive Fail: "
         "Input/output error\n",
         true,
         true},
    };
    int boot = 1;
    for (const auto& row : rows) {
        board.Fault(row.fault);
        (void)board.Do({"reset"});
        ++boot;
        ASSERT_TRUE(board.WaitRecovery(boot));
        EXPECT_TRUE(board.WaitTrace(row.line, boot)) << board.Trace(boot);
        EXPECT_EQ(board.Status().at("watchdog").at("open"), row.open);
        EXPECT_EQ(board.Armed(), row.open);
    }
    // A failed feed did not stop the feeder.
    EXPECT_TRUE(board.WaitFeeds(2));
    EXPECT_EQ(board.Status().at("boot"), boot);
    std::map<int, int> feeds;
    for (const auto& operation : board.Operations()) {
        feeds[operation.at("boot")] += operation.at("op") == "ioctl:KEEPALIVE" ? 1 : 0;
    }
    boot = 1;
    for (const auto& row : rows) {
        ++boot;
        EXPECT_EQ(feeds[boot] > 0, row.fed) << row.line;
    }
}

TEST(Supervisor, ReportsATakenHeartbeatPort) {
    Board board;
    board.StartRecovery();
    (void)board.OnBoard("cd /tmp && /opt/upgrade/upgradeMain </dev/null >/dev/null 2>second &");
    EXPECT_TRUE(WaitUntil([&] {
        return Contains(board.OnBoard("cat /tmp/second").output,
                        " ERROR upgrade_main:PrepareLoop:");
    })) << board.OnBoard("cat /tmp/second").output;
    EXPECT_TRUE(
        Contains(board.OnBoard("cat /tmp/second").output,
                 "no heartbeats can be received, udp 127.0.0.1:5555: Address already in use"));
}

TEST(Supervisor, StoppedProgramIsResetByTheWatchdog) {
    Board board;
    board.StartRecovery();
    board.Signal(SIGSTOP);
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_EQ(board.Reason(2).substr(0, 8), "watchdog");
    ASSERT_TRUE(board.WaitRecovery(2));
}

TEST(Supervisor, LivesOnWithNobodyToHearIt) {
    // How the program is started, in addition to a closed standard input.
    const char* const cases[] = {">&- 2>&-", "2>&1 >/dev/null | head -n 1"};
    for (const char* const descriptors : cases) {
        SCOPED_TRACE(descriptors);
        Board board;
        board.StartRecovery();
        board.Signal(SIGTERM);
        ASSERT_TRUE(board.WaitConsole("upgradeMain ended with status 0"));
        (void)board.OnBoard("/opt/upgrade/upgradeMain <&- " + std::string(descriptors) + " &");
        ASSERT_TRUE(WaitUntil([&] { return board.Client().Connected(); }));
        const TcpClient client = board.Client();
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(client.Ask(Frame(6)), ReplyHeader(6, 0, 0));
        }
        EXPECT_TRUE(board.WaitFeeds(3));
        EXPECT_FALSE(std::filesystem::exists(board.Path("boot-2"))) << "the watchdog starved";
        const std::string standard = descriptors == cases[0] ? "012" : "0";
        for (const char number : standard) {
            EXPECT_EQ(
                board.OnBoard("readlink /proc/$(pidof upgradeMain)/fd/" + std::string(1, number))
                    .output,
                "/dev/null\n")
                << number;
        }
    }
}

TEST(Supervisor, FedWhileTheLogBlocks) {
    Board board;
    board.StartRecovery();
    // From here on nobody reads the log. Threads that log block; the feeder does not.
    (void)board.Do({"fault", "trace", "block"});
    // Only one connection, because replies to simultaneous requests may mix.
    const TcpClient client = board.Client();
    bool answered = true;
    for (int request = 0; answered && request < 4000; ++request) {
        answered = client.Send(Frame(6)) && client.Receive(32, 5000).size() == 32;
    }
    EXPECT_FALSE(answered);
    EXPECT_TRUE(board.WaitFeeds(4));
    EXPECT_FALSE(client.Readable(0));
    board.ExpectFed();
    (void)board.Do({"fault", "trace", "off"});
    EXPECT_EQ(client.Receive(32), ReplyHeader(6, 0, 0));
}
