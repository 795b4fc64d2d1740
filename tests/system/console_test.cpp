// The debugging console, talked to as a developer does: through the platform's client and pipes.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/board.h"

using kv_test::Board;

TEST(Console, DialogueThroughTheCommandLink) {
    Board board;
    board.Start({"--no-wifi", "--speed", "10"}, KV_CONSOLE_HARNESS);
    ASSERT_TRUE(board.WaitConsole("console started: 0\n"));
    (void)board.OnBoard("ln -s /sbin/command_link /tmp/bin/no-such");
    const struct {
        const char* command;
        const char* reply;
        bool armed;
    } dialogue[] = {
        {"no-such", "No Such Command! try ''\n", false},
        {"kv-console-cmd-print", "kv-console-cmd-print\nkv-watdog\n", false},
        // From here on an unknown name repeats the last known one.
        {"no-such", "kv-console-cmd-print\nkv-watdog\n", false},
        {"kv-watdog Stop", "Watdog Stop Success\n", false},
        {"kv-watdog", "", false},
        {"kv-watdog start", "", false},
        {"kv-watdog Start", "Watdog Start Success\n", true},
        {"no-such Start", "Watdog Start Success\n", true},
        {"kv-watdog Reboot", "Watdog Reboot Success\n", true},
    };
    for (const auto& turn : dialogue) {
        const auto answer = board.OnBoard(std::string("/tmp/bin/") + turn.command);
        EXPECT_EQ(answer.output, std::string("reply:\n") + turn.reply) << turn.command;
        EXPECT_EQ(answer.status, 0) << turn.command;
        EXPECT_EQ(board.Status().at("watchdog").at("armed").get<bool>(), turn.armed)
            << turn.command;
    }
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_EQ(board.Reason(2), "watchdog\n");
    const std::vector<std::string> trace = {
        "FAILED KV_FH_WDT_Stop: Watchdog not Inited!",
        "DEBUG KV_FH_WDT_Start: Watchdog Timeout:30",
        "DEBUG KV_FH_WDT_Start: Watchdog Init successful",
        "FAILED KV_FH_WDT_Start: Watchdog is Inited!",
        "INFO KV_FH_WDT_Reboot: Start to stop feeding the dog!",
        "DEBUG KV_FH_WDT_Reboot: Wait for the watchdog to restart!",
    };
    EXPECT_EQ(board.Messages(), trace);

    ASSERT_TRUE(board.WaitConsole("console started: 0\n", 2));
    EXPECT_EQ(board.OnBoard("cd /tmp/bin; ./kv-watdog Start; ./kv-watdog Stop").output,
              "reply:\nWatdog Start Success\nreply:\nWatdog Stop Success\n");
    EXPECT_FALSE(board.Status().at("watchdog").at("armed").get<bool>());
}

TEST(Console, ClientRefusesWhatCannotBeSent) {
    Board board;
    board.Start({"--no-wifi"});
    const auto alone = board.OnBoard("ln -s /sbin/command_link /tmp/bin/x; /tmp/bin/x");
    EXPECT_EQ(alone.output, "command_link: no console is running\n");
    EXPECT_EQ(alone.status, 1);
    EXPECT_EQ(board.OnBoard("/tmp/bin/x $(seq -s _ 400)").status, 101);
}
