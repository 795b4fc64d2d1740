// Start-up, signals and the watchdog, on a board.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <regex>
#include <string>

#include "tests/support/board.h"
#include "tests/support/mini_client.h"

using kv_test::Board;
using kv_test::CountOf;
using kv_test::WaitUntil;

TEST(Supervisor, ModeFollowsApplicationAndMarker) {
    Board board;
    (void)board.Do({"flash", "write", "mtd5", kv_test::MakeApplicationImage(board)});
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file exist!"));
    EXPECT_TRUE(std::regex_search(
        board.Trace(), std::regex("  INFO upgrade_main:main:338 \033\\[mapp file exist!\n")));
    EXPECT_EQ(board.Connect("tcp", 80), -1);

    (void)board.OnBoard("touch /param/miniserver.debug");
    (void)board.Do({"reset"});
    ASSERT_TRUE(board.WaitTrace("MINI ProtocolInit Init Success!", 2));
    EXPECT_NE(board.Console(2).find("# rm /param/miniserver.debug\r\n"), std::string::npos);
    EXPECT_EQ(board.Trace(2).find("app file"), std::string::npos);
    EXPECT_NE(board.OnBoard("test -e /param/miniserver.debug").status, 0);
    const int client = board.Connect("tcp", 80);
    EXPECT_GE(client, 0);
    (void)close(client);

    (void)board.Do({"reset"});
    ASSERT_TRUE(board.WaitTrace("app file exist!", 3));
}

TEST(Supervisor, RecoveryStartsInOrderAndChildrenInheritNothing) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const auto messages = board.Messages();
    const char* const order[] = {"DEBUG KV_FH_WDT_Start: Watchdog Timeout:30",
                                 "DEBUG KV_FH_WDT_Start: Watchdog Init successful",
                                 "DEBUG KV_HV_LoopPoolInit: LoopPoolInit Init Success!",
                                 "DEBUG KV_MINI_ProtocolInit: MINI ProtocolInit Init Success!",
                                 "INFO main: app file not exist!"};
    size_t next = 0;
    for (const auto& message : messages) {
        if (next < std::size(order) && message == order[next]) {
            ++next;
        }
    }
    EXPECT_EQ(next, std::size(order)) << board.Trace();

    // What a shell child of the program finds: three standard descriptors and its own listing's.
    kv_test::WriteFile(board.Path("param/ls"), "#!/bin/sh\nls /proc/self/fd >/param/descriptors\n");
    (void)board.OnBoard("chmod +x /param/ls && mount --bind /param/ls /usr/bin/killall");
    board.Signal(SIGUSR2);
    ASSERT_TRUE(board.WaitBoot(2, 60));
    EXPECT_EQ(kv_test::ReadFile(board.Path("param/descriptors")), "0\n1\n2\n3\n");
}

TEST(Supervisor, Sigusr1DisarmsAndNothingElse) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    board.Signal(SIGUSR1);
    ASSERT_TRUE(board.WaitTrace("KV_FH_WDT_Stop:176 "));
    EXPECT_FALSE(board.Status().at("watchdog").at("armed").get<bool>());
    // A second stop disarms the old number again and is not refused.
    board.Signal(SIGUSR1);
    EXPECT_TRUE(WaitUntil([&] { return CountOf(board.Trace(), "KV_FH_WDT_Stop:176 ") == 2; }));
    const int client = board.Connect("tcp", 80);
    EXPECT_EQ(kv_test::Exchange(client, kv_test::Frame(6)).size(), 32U);
    (void)close(client);
}

TEST(Supervisor, SecondSigtermIsAnsweredWhileTheFirstOnesJoinBlocks) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    // The receiver pauses for a second on its worker's thread, which the shutdown joins.
    const int client = board.Connect("tcp", 80);
    ASSERT_TRUE(kv_test::SendAll(client, kv_test::UpgradeFrame(1000)));
    ASSERT_TRUE(board.WaitTrace("CMD_SYS_UPGRADE"));
    const pid_t program = board.ProgramPid();
    (void)kill(program, SIGTERM);
    ASSERT_TRUE(board.WaitTrace("upgreade_fun_sig:300 "));
    (void)kill(program, SIGINT);
    ASSERT_TRUE(board.WaitTrace("FAILED upgrade_main:upgreade_fun_sig:297 \033[mwait exit!"));
    ASSERT_TRUE(board.WaitTrace("LoopPoolInit DeInit Success!"));
    const std::string trace = board.Trace();
    EXPECT_LT(trace.find("wait exit!"), trace.find("LoopPoolInit DeInit Success!"));
    EXPECT_EQ(CountOf(trace, "Start Exit!"), 1U);
    EXPECT_FALSE(board.Status().at("watchdog").at("armed").get<bool>());
    ASSERT_TRUE(board.WaitConsole("upgradeMain ended with status 0"));
    (void)close(client);
}

TEST(Supervisor, WatchdogFailuresAtStart) {
    Board board;
    board.Start({"--no-wifi"});
    // The faults below are for later boots: this one has to have its watchdog first.
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const struct {
        std::vector<std::string> fault;
        const char* line;
    } rows[] = {
        {{"watchdog", "open", "--errno", "EBUSY"},
         "FAILED kv_fullhan_watdog:KV_FH_WDT_Start:119 \033[mOpen Watchdog KeepAlive Fail: Device "
         "or resource busy\n"},
        {{"watchdog", "ioctl", "--errno", "EINVAL"},
         "FAILED kv_fullhan_watdog:KV_FH_WDT_Start:123 \033[mSet Watchdog TimeOut Fail: Invalid "
         "argument\n"},
        {{"watchdog", "ioctl", "--errno", "EIO", "--skip", "3"},
         " ERROR kv_fullhan_watdog:__KV_FH_WDT_Keepalive:39 \033[mSet Watchdog KeepAlive Fail: "
         "Input/output error\n"},
    };
    int boot = 1;
    for (const auto& row : rows) {
        std::vector<std::string> words = {"fault"};
        words.insert(words.end(), row.fault.begin(), row.fault.end());
        (void)board.Do(words);
        (void)board.Do({"reset"});
        ++boot;
        ASSERT_TRUE(board.WaitTrace("app file not exist!", boot));
        EXPECT_TRUE(board.WaitTrace(row.line, boot)) << board.Trace(boot);
    }
    // A failed feed did not stop the feeding.
    const uint64_t feeds = board.Status().at("watchdog").at("feeds");
    EXPECT_TRUE(WaitUntil(
        [&] { return board.Status().at("watchdog").at("feeds").get<uint64_t>() > feeds + 1; }));
}

TEST(Supervisor, StoppedProgramIsResetByTheWatchdog) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    board.Signal(SIGSTOP);
    ASSERT_TRUE(board.WaitBoot(2, 40));
    EXPECT_EQ(board.Reason(2).substr(0, 8), "watchdog");
    ASSERT_TRUE(board.WaitTrace("app file not exist!", 2));
}

TEST(Supervisor, FedWhileTheLogBlocks) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    // Nobody reads the log from here on: whoever traces blocks, the feeder does not.
    (void)board.Do({"fault", "trace", "block"});
    const int client = board.Connect("tcp", 80);
    for (int i = 0; i < 4000; ++i) {
        if (!kv_test::SendAll(client, kv_test::Frame(0x7777))) {
            break;
        }
    }
    const uint64_t feeds = board.Status().at("watchdog").at("feeds");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    while (std::chrono::steady_clock::now() < end) {
        (void)usleep(100000);
    }
    EXPECT_GE(board.Status().at("watchdog").at("feeds").get<uint64_t>(), feeds + 3);
    EXPECT_LT(kv_test::LargestFeedGap(board.Operations()), 1.3);
    (void)close(client);
}
