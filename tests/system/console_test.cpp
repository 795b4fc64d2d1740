// The debugging console, used as a developer does: through the platform's client, and with a
// watchdog. The unit test has the rest of the dialogue.
#include "tests/support/board.h"

using namespace kv_test;

TEST(Console, DialogueThroughTheCommandLink) {
    Board board;
    // The client waits ten of the board's seconds for a reply, so the clock is not much faster.
    board.Start({"--no-wifi", "--speed", "2"}, {KV_CONSOLE_HARNESS});
    ASSERT_TRUE(board.WaitConsole("console started: 0\n"));
    (void)board.OnBoard("ln -s /sbin/command_link /tmp/bin/no-such");
    const struct {
        const char* command;
        const char* reply;
        bool armed;  // before the command
    } dialogue[] = {
        {"no-such", "No Such Command! try ''\n", false},
        {"kv-watdog Start", "Watdog Start Success\n", false},
        // An unknown name repeats the last known command.
        {"no-such Start", "Watdog Start Success\n", true},
        {"kv-watdog Reboot", "Watdog Reboot Success\n", true},
    };
    for (const auto& turn : dialogue) {
        EXPECT_EQ(board.Armed(), turn.armed) << turn.command;
        const auto answer = board.OnBoard(std::string("/tmp/bin/") + turn.command);
        EXPECT_EQ(answer.output, std::string("reply:\n") + turn.reply) << turn.command;
        EXPECT_EQ(answer.status, 0) << turn.command;
    }
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_EQ(board.Reason(2), "watchdog\n");
    const Lines trace = {
        "DEBUG KV_FH_WDT_Start: Watchdog Timeout:30",
        "DEBUG KV_FH_WDT_Start: Watchdog Init successful",
        "FAILED KV_FH_WDT_Start: Watchdog is Inited!",
        "INFO KV_FH_WDT_Reboot: Start to stop feeding the dog!",
        "DEBUG KV_FH_WDT_Reboot: Wait for the watchdog to restart!",
    };
    EXPECT_EQ(board.Messages(), trace);
}
