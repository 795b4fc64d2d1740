// Supervision of the application on a board with the stand-in application, mostly on an accelerated
// clock.
#include <csignal>

#include "tests/support/board.h"

using namespace kv_test;

namespace {

// At this speed a board's second takes 50 ms of the host, so the host's scheduling matters.
constexpr char kSpeed[] = "20";
constexpr long kTick = 3;   // seconds between two checks of the monitor
constexpr long kLag = 100;  // seconds of the board lost to the host's scheduling, at most
constexpr char kMarker[] = "param/var/miniserver_reboot";
constexpr char kOfflineLine[] =
    "INFO upgrade_main:__KV_cameraMainProcessHandle:254 Process "
    "[cameraMain] offline";

const Lines kRestart = {"killall -9 wpa_supplicant", "sync", "echo 3 > /proc/sys/vm/drop_caches",
                        "sleep 3", "startapp.sh"};
const Lines kReboot = {"touch /param/var/miniserver_reboot", "reboot -f"};
const Lines kRemoveMarker = {"rm /param/var/miniserver_reboot"};

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// A check that found the application silent.
struct Check {
    long at;
    int silence;
};

std::vector<Check> Checks(const Board& board, int boot) {
    std::vector<Check> checks;
    for (const Board::TimedLine& line : board.Timed(boot)) {
        int silence = 0;
        if (sscanf(line.text.c_str(),
                   "DEBUG upgrade_main:__KV_cameraMainProcessHandle:216 Proces->start_timeout = "
                   "120, cameraMain off time = %d",
                   &silence) == 1) {
            checks.push_back({line.at, silence});
        }
    }
    return checks;
}

// Checks the two escalations of a boot whose application never sent anything, and the silent checks
// before and between them. The unit test of the monitor's decisions has the exact seconds.
void ExpectLadder(const Board& board, int boot) {
    SCOPED_TRACE("boot " + std::to_string(boot) + "\n" + board.Trace(boot));
    std::vector<Check> escalations;
    std::vector<long> periods;
    const std::vector<Check> checks = Checks(board, boot);
    ASSERT_FALSE(checks.empty());
    EXPECT_GT(checks[0].silence, 5);
    EXPECT_LE(checks[0].silence, 5 + kTick + kLag);
    for (size_t i = 0; i < checks.size(); ++i) {
        if (checks[i].silence > 120) {
            escalations.push_back(checks[i]);
            EXPECT_LE(checks[i].silence, 120 + kTick + kLag);
        } else if (i + 1 < checks.size()) {
            periods.push_back(checks[i + 1].at - checks[i].at);
        }
    }
    ASSERT_EQ(escalations.size(), 2U);
    std::sort(periods.begin(), periods.end());
    EXPECT_GE(periods[periods.size() / 2], kTick);
    EXPECT_LE(periods[periods.size() / 2], 4 * kTick);
    EXPECT_EQ(checks.back().at, escalations[1].at);
    EXPECT_GE(escalations[1].at - escalations[0].at, 60);
    EXPECT_LE(escalations[1].at - escalations[0].at, 60 + kTick + kLag);
    const std::vector<Board::TimedLine> lines = board.Timed(boot);
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const Board::TimedLine& line) {
        return line.text == kOfflineLine;
    }));
}

}  // namespace

TEST(Monitor, PermanentSilenceClimbsTheLadderOverTwoBoots) {
    Board board;
    board.StartSilent(kSpeed);
    ASSERT_TRUE(board.WaitTrace("MINI ProtocolInit Init Success!", 2));
    EXPECT_EQ(board.Reason(2), "reboot -f\n");
    ExpectLadder(board, 1);
    EXPECT_EQ(board.Echoes(), kRestart + kReboot);
    // The echoes have a pipe of their own. Those of recovery follow.
    Lines second;
    ASSERT_TRUE(WaitUntil([&] {
        second = board.Echoes(2);
        return second.size() > kRestart.size();
    }));
    second.resize(kRestart.size() + 1);
    EXPECT_EQ(second, kRestart + kRemoveMarker);
    EXPECT_FALSE(std::filesystem::exists(board.Path(kMarker)));
    const Lines messages = board.Messages(1);
    ASSERT_GE(messages.size(), 3U);
    EXPECT_EQ(Lines(messages.end() - 2, messages.end()),
              (Lines{"INFO KV_FH_WDT_Reboot: Start to stop feeding the dog!",
                     "DEBUG KV_FH_WDT_Reboot: Wait for the watchdog to "
                     "restart!"}));

    // In recovery the monitor logs nothing more.
    ASSERT_TRUE(board.WaitFeeds(15));
    ExpectLadder(board, 2);
}

TEST(Monitor, FlashingKeepsItQuiet) {
    Board board;
    board.InstallApplication();
    board.Start({"--no-wifi", "--speed", kSpeed});
    ASSERT_TRUE(board.WaitTrace("app file exist!"));
    // The writer's first two commands take 300 s. An application that stays silent for 120 s makes
    // the monitor restart it. It beats until the writer runs, so that the host may be slow.
    board.ReplaceCommand("killall", "sleep 150");
    board.Signal(SIGUSR2);
    ASSERT_TRUE(board.WaitTrace("Scalable partition:"));
    (void)board.Do({"app", "silent"});
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_EQ(board.Reason(2), "reboot -f\n");
    EXPECT_TRUE(board.Echoes().empty());
    const std::vector<Board::TimedLine> timed = board.Timed(1);
    EXPECT_GE(timed.back().at - timed.front().at, 200) << board.Trace();
}

TEST(Monitor, FlashingStopsTheStepThatIsUnderWay) {
    // The command that runs when the writer starts, and the last one that may have run.
    const struct {
        bool marker;
        std::string command;
        std::string line;
        Lines done;
    } rows[] = {{false, "killall", kRestart[0], Lines(kRestart.begin(), kRestart.end() - 1)},
                {false, "touch", kReboot[0], kRestart + Lines{kReboot[0]}},
                {true, "rm", kRemoveMarker[0], kRestart + kRemoveMarker}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        Board board;
        board.InstallApplication();
        board.Start({"--no-wifi", "--speed", kSpeed});
        const auto steps = [&] { return CountOf(board.Trace(), "Process [cameraMain] offline"); };
        // The monitor's command lasts until the writer has begun, and the writer's first command
        // until the monitor has ended its step.
        const std::string wait =
            "case $2 in cameraMain | udhcpc) until=step ;; *) until=writer ;; esac;"
            " until [ -e /param/$until ]; do sleep 1; done";
        board.ReplaceCommand(row.command, wait);
        // The application falls silent only now, because the monitor runs the command soon after.
        const size_t beating = steps();
        (void)board.Do({"app", "silent"});
        ASSERT_TRUE(WaitUntil([&] { return steps() > beating; }));
        if (row.marker) {
            WriteFile(board.Path(kMarker), "");  // a heartbeat would remove it
        }
        ASSERT_TRUE(board.WaitConsole("# " + row.line));
        board.ReplaceCommand("killall", wait);
        board.Signal(SIGUSR2);
        ASSERT_TRUE(board.WaitTrace("Scalable partition:"));
        const size_t before = steps();
        WriteFile(board.Path("param/writer"), "");
        EXPECT_TRUE(WaitUntil([&] { return steps() > before; }));
        WriteFile(board.Path("param/step"), "");
        ASSERT_TRUE(board.WaitBoot(2));
        EXPECT_EQ(board.Reason(2), "reboot -f\n");
        EXPECT_EQ(board.Echoes(), row.done);
        const std::string trace = board.Trace();
        EXPECT_FALSE(Contains(trace, "LoopPoolInit"));
        EXPECT_TRUE(Contains(trace, "open /tmp/upGradeFile.FLS error")) << trace;
        EXPECT_FALSE(Contains(trace, "Start to stop feeding the dog!")) << trace;
    }
}

TEST(Monitor, WhatCountsAsAHeartbeat) {
    Board board;
    board.InstallApplication();
    (void)board.Do({"app", "silent"});
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file exist!"));
    // The marker cannot be removed here, so each heartbeat tries to.
    (void)board.OnBoard(
        "touch /param/var/miniserver_reboot && mount --bind /bin/false /usr/bin/rm");
    const Lines ignored = {"b''",
                           "b'c'",
                           "b'A' * 32",
                           "b'A' * 33",
                           "b'A' * 65507",
                           "b'\\0' + b'cameraMain' * 5",
                           "b'cameramain'.ljust(33, b'\\0')"};
    const Lines counted = {"b'cameraMain'.ljust(33, b'\\0')",  // not ready: still clears the marker
                           "b'<< cameraMain >>'.ljust(32, b'\\0') + b'\\1'", "b'cameraMain'",
                           kBeat};
    board.SendBeats(ignored + counted);
    ASSERT_TRUE(WaitUntil([&] { return board.Echoes().size() >= counted.size(); }));
    EXPECT_EQ(board.Echoes(), kRemoveMarker + kRemoveMarker + kRemoveMarker + kRemoveMarker);
    EXPECT_EQ(board.Reason(1), "power-on\n");

    // A long command of the monitor delays the monitor, not the feeder.
    board.ReplaceCommand("rm", "sleep 15; echo slept");
    board.SendBeats({kBeat});
    ASSERT_TRUE(board.WaitConsole("slept\n"));
    EXPECT_EQ(board.Echoes().size(), counted.size() + 1)
        << "counted a datagram that is not a heartbeat";
    board.ExpectFed();

    // Beats come every second and are logged every fourth. The script may still be running, which
    // makes its file busy.
    (void)board.OnBoard(
        "for i in $(seq 100); do mountpoint -q /usr/bin/rm || break; umount /usr/bin/rm ||"
        " sleep 0.1; done; rm /param/var/miniserver_reboot");
    (void)board.Do({"app", "beat"});
    ASSERT_TRUE(board.WaitTrace(
        "  DEBUG upgrade_main:__KV_cameraMainProcessHandle:204 \033[mProcess cameraMain online\n"));
}

TEST(Monitor, LogsEachFaultOfAnApplication) {
    const char* const online = "Process cameraMain online\n";
    const char* const offline = "Process [cameraMain] offline\n";
    const struct {
        Lines mode;
        Lines told;
        const char* laterMode;
        const char* toldLater;
        const char* never;   // never logged
        const char* status;  // exit status of one more application run; 124: ended by timeout
    } rows[] = {
        {{"late", "30"}, {offline, online}, "beat", online, "# startapp.sh", "124\n"},
        {{"not-ready"}, {online}, "not-ready", online, offline, "124\n"},
        {{"beat"}, {online}, "crash", offline, "# startapp.sh", "134\n"},
        {{"never"}, {offline}, "never", offline, online, "1\n"},
    };
    Board board;
    board.InstallApplication();
    int boot = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode[0] + ", " + row.laterMode);
        Lines mode = row.mode;
        mode.insert(mode.begin(), "app");
        (void)board.Do(mode);
        if (++boot == 1) {
            board.Start({"--no-wifi", "--speed", "5"});
        } else {
            (void)board.Do({"reset"});
        }
        ASSERT_TRUE(WaitUntil([&] { return InOrder(board.Trace(boot), row.told); }));
        (void)board.Do({"app", row.laterMode});
        // A busy host delays heartbeats now and then, but not each time.
        EXPECT_TRUE(WaitUntil([&] {
            const size_t before = board.Trace(boot).size();
            const auto since = [&] { return board.Trace(boot).substr(before); };
            return WaitUntil([&] { return Contains(since(), row.toldLater); }) &&
                   !Contains(since() + board.Console(boot), row.never);
        })) << board.Trace(boot);
        const std::string further = "timeout 10 /opt/app/bin/cameraMain 2>/dev/null; echo $?";
        EXPECT_EQ(board.OnBoard(further).output, row.status);
    }
}

TEST(Monitor, WithABeatingApplicationItRests) {
    Board board;
    board.InstallApplication();
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("Process cameraMain online"));
    // Each second: a feed, which waits for the driver's answer, and a beat. Every three seconds: a
    // check. This measures a span of time, so it sleeps.
    board.ExpectRest({{"__KV_FH_WDT_Pro", {2, 4}}, {"upgradeMain", {1 + 1.0 / 3, 1}}},
                     [] { std::this_thread::sleep_for(std::chrono::seconds(10)); });
}
