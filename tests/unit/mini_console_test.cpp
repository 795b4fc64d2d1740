#include "common/kv_mini_console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <future>

#include "common/kv_raii.h"
#include "flash/kv_fullhan_watdog.h"
#include "tests/support/capture.h"

using namespace kv_test;

namespace {

constexpr char kCommandPipe[] = "/tmp/bin/cmd_link_snd";
constexpr char kReplyPipe[] = "/tmp/bin/cmd_link_ack";

// Does what "/sbin/command_link" does when it runs under a command's name.
class Client {
  public:
    std::string Say(const std::string& name, const std::vector<std::string>& arguments) {
        std::string tail;
        for (const auto& argument : arguments) {
            tail += argument + '\0';
        }
        return Raw(static_cast<int32_t>(arguments.size()), name, tail);
    }
    std::string Raw(int32_t argc, const std::string& name, const std::string& tail) {
        std::string message(reinterpret_cast<const char*>(&argc), sizeof(argc));
        message += name + std::string(64 - name.size(), '\0') + tail;
        EXPECT_EQ(write(command_.Get(), message.data(), message.size()),
                  static_cast<ssize_t>(message.size()));
        struct pollfd ready = {reply_.Get(), POLLIN, 0};
        if (poll(&ready, 1, 60000) != 1) {
            return "no reply";
        }
        char text[8200];
        const ssize_t got = read(reply_.Get(), text, sizeof(text));
        return std::string(text, got > 0 ? static_cast<size_t>(got) : 0);
    }

  private:
    UniqueFd command_ = UniqueFd(open(kCommandPipe, O_WRONLY));
    UniqueFd reply_ = UniqueFd(open(kReplyPipe, O_RDWR));
};

}  // namespace

// A process has one console, so the missing pipe and the dialogue each need their own process.
TEST(MiniConsoleDeathTest, MissingPipeIsReportedOnceAndNotRetried) {
    EXPECT_EXIT(
        {
            std::string text;
            int first = 0;
            int second = 0;
            {
                const Capture out(1);
                first = KV_Console_Init();
                second = KV_Console_Init();
                text = out.Text();
            }
            _exit(first == -1 && second == 0 &&
                          text == "Can not Open snd link:/tmp/bin/cmd_link_snd,ret=-1\n"
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

// After a reboot request without a feeder the lock stays held, so a second request blocks.
TEST(KeeperDeathTest, RebootRequestWithoutAFeederHoldsTheLock) {
    EXPECT_EXIT(
        {
            std::promise<void> asks;
            std::promise<void> returned;
            bool first = KV_FH_WDT_Reboot() == 0;
            std::thread([&] {
                asks.set_value();
                (void)KV_FH_WDT_Reboot();
                returned.set_value();
            }).detach();
            asks.get_future().wait();
            const bool held =
                returned.get_future().wait_for(milliseconds(300)) == std::future_status::timeout;
            _exit(first && held ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(MiniConsole, Dialogue) {
    {
        const Capture err(2);
        EXPECT_EQ(KV_Console_DeInit(), -1);
        EXPECT_NE(err.Text().find("FAILED /kv_mini_console:KV_Console_DeInit:263 \033[mConsole is "
                                  "DeInit\n"),
                  std::string::npos);
    }
    ASSERT_EQ(mkdir("/tmp/bin", 0755), 0);
    ASSERT_EQ(mkfifo(kCommandPipe, 0600), 0);
    ASSERT_EQ(mkfifo(kReplyPipe, 0600), 0);
    ASSERT_EQ(KV_Console_Init(), 0);
    char target[64] = {};
    EXPECT_GT(readlink("/tmp/bin/kv-watdog", target, sizeof(target) - 1), 0);
    EXPECT_STREQ(target, "/sbin/command_link");

    Client client;
    const Capture err(2);
    EXPECT_EQ(client.Say("nothing", {}), "reply:\nNo Such Command! try ''\n");
    EXPECT_EQ(client.Say("kv-console-cmd-print", {}), "reply:\nkv-console-cmd-print\nkv-watdog\n");
    EXPECT_EQ(client.Say("kv-watdog", {}), "reply:\n");
    EXPECT_EQ(client.Say("kv-watdog", {"stop"}), "reply:\n");
    EXPECT_EQ(client.Say("kv-watdog", {"Stop"}), "reply:\nWatdog Stop Success\n");
    EXPECT_NE(err.Text().find("KV_FH_WDT_Stop:167 \033[mWatchdog not Inited!"), std::string::npos);
    // An unknown name repeats the last command, with the new arguments.
    EXPECT_EQ(client.Say("nothing", {"Start", "x"}), "reply:\nWatdog Start Success\n");
    EXPECT_NE(err.Text().find("KV_FH_WDT_Start:119 "), std::string::npos);
    EXPECT_EQ(client.Say("kv-watdog", {"Reboot"}), "reply:\nWatdog Reboot Success\n");

    // A count that the vector cannot hold, or arguments without an end, run no command.
    EXPECT_EQ(client.Raw(9, "kv-watdog", std::string("Stop\0", 5)), "reply:\n");
    EXPECT_EQ(client.Raw(-1, "kv-watdog", std::string("Stop\0", 5)), "reply:\n");
    EXPECT_EQ(client.Raw(1, "kv-watdog", std::string(1024, 'x')), "reply:\n");
    const std::vector<std::string> eight = {"Stop", "", "", "", "", "", "", ""};
    EXPECT_EQ(client.Say("kv-watdog", eight), "reply:\nWatdog Stop Success\n");
    // Bytes that were not sent count as zero.
    EXPECT_EQ(client.Raw(1, "kv-watdog", "Stop"), "reply:\nWatdog Stop Success\n");
    EXPECT_EQ(client.Raw(1, std::string(64, 'n'), std::string("Stop\0", 5)),
              "reply:\nWatdog Stop Success\n");

    EXPECT_EQ(KV_Console_Init(), 0);
    EXPECT_EQ(KV_Console_DeInit(), 0);
    EXPECT_EQ(KV_Console_DeInit(), -1);
}
