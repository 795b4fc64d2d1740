// kvtool ladder and the log keeper against virtual boards on an accelerated clock.
#include <memory>

#include "tests/support/board.h"

using namespace kv_test;

namespace {

constexpr char kSpeed[] = "20";
constexpr double kCheckPeriod = 3;
// At this speed a second of the host is 20 s of the board.
constexpr double kLag = 60;

// An application that does `steps`, a shell script that calls `mode MODE [SECONDS]`. Each start
// ends the one before, as the contract of startapp.sh requires.
void InstallLife(Board* board, const std::string& steps) {
    const std::string bin = board->Path("life/bin");
    std::filesystem::create_directories(bin);
    std::filesystem::copy_file(BinDir() + "/cameraMain", bin + "/beater");
    WriteFile(bin + "/cameraMain", R"(#!/bin/sh
kill $(cat /tmp/life.pid 2>/dev/null) 2>/dev/null
killall -9 beater 2>/dev/null
echo $$ >/tmp/life.pid
# The beater would beat once if it found the file empty.
set_mode() { echo "$1" >/run/board/app.new; mv /run/board/app.new /run/board/app; }
mode() { set_mode "$1"; sleep "${2:-infinity}"; }
set_mode silent
/opt/app/bin/beater </dev/null &
)" + steps + "\n");
    std::filesystem::permissions(bin + "/cameraMain", std::filesystem::perms(0755));
    const CommandResult made = Run("mksquashfs " + board->Path("life") + " " +
                                   board->Path("life.img") + " -quiet -no-progress -all-root");
    ASSERT_EQ(made.status, 0) << made.output;
    (void)board->Do({"flash", "write", "mtd5", board->Path("life.img")});
}

struct Step {
    std::string name;
    double at;
};

// The steps of one boot as its trace shows them.
std::vector<Step> TracedSteps(Board& board, int boot) {
    std::vector<Step> steps;
    long start = 0;
    bool silent = false;
    bool restarted = false;
    for (const Board::TimedLine& line : board.Timed(boot)) {
        const auto at = static_cast<double>(line.at - start);
        const size_t off = line.text.find("cameraMain off time = ");
        if (Contains(line.text, "app file exist!")) {
            start = line.at;
        } else if (Contains(line.text, "Process cameraMain online") && silent) {
            silent = false;
            steps.push_back({"online", at});
        } else if (off != std::string::npos) {
            if (!silent) {
                steps.push_back({"offline", at});
            }
            silent = true;
            if (std::stol(line.text.substr(off + 22)) > 120) {
                const bool reboots = board.Reason(boot + 1) == "reboot -f\n";
                steps.push_back({!restarted ? "restart" : reboots ? "reboot" : "recovery", at});
                restarted = true;
            }
        }
    }
    return steps;
}

nlohmann::json Ladder(const Lines& arguments) {
    Lines command = {BinDir() + "/kvtool", "ladder", "--json"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, 0) << result.output;
    return nlohmann::json::parse(result.output);
}

// The same steps of a boot in kvtool's answer.
std::vector<Step> ReplayedSteps(const nlohmann::json& answer, int boot) {
    std::vector<Step> steps;
    for (const auto& event : answer["boots"][static_cast<size_t>(boot) - 1]["events"]) {
        const std::string name = event["event"];
        if (name == "offline" || name == "online" || name == "restart" || name == "reboot" ||
            name == "recovery") {
            steps.push_back({name, event["at"]});
        }
    }
    return steps;
}

// Drops silences that are shorter than those of the scripts: a busy host delayed the heartbeats.
std::vector<Step> WithoutStalls(const std::vector<Step>& steps) {
    std::vector<Step> left;
    for (const Step& step : steps) {
        const bool stall = step.name == "online" && !left.empty() &&
                           left.back().name == "offline" && step.at - left.back().at < 20;
        if (stall) {
            left.pop_back();
        } else {
            left.push_back(step);
        }
    }
    return left;
}

// A heartbeat is logged up to 3 s after it came. `lag`: seconds lost to the host's scheduling.
void ExpectSame(const std::vector<Step>& replay, const std::vector<Step>& trace, double lag) {
    const std::vector<Step> replayed = WithoutStalls(replay);
    const std::vector<Step> traced = WithoutStalls(trace);
    ASSERT_EQ(replayed.size(), traced.size());
    for (size_t i = 0; i < replayed.size(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        EXPECT_EQ(replayed[i].name, traced[i].name);
        const double later = replayed[i].name == "online" ? 3 : 0;
        EXPECT_NEAR(replayed[i].at, traced[i].at, kCheckPeriod + lag + later);
    }
}

}  // namespace

TEST(Ladder, TakesTheStepsOfABoard) {
    const struct {
        const char* script;
        const char* life;
        int boots;  // whole ones
    } rows[] = {
        {"silent", "mode silent", 2},
        {"silent 40s, beat 40s, silent; restart: beat 40s, silent",
         "[ ! -e /tmp/again ] || { mode beat 40; mode silent; }; : >/tmp/again; mode silent 40; "
         "mode beat 40; mode silent",
         1},
        {"beat 10s, silent 60s, beat 40s, silent; restart: silent",
         "[ ! -e /tmp/again ] || mode silent; : >/tmp/again; mode beat 10; mode silent 60; "
         "mode beat 40; mode silent",
         1},
    };
    std::vector<std::unique_ptr<Board>> boards;
    for (const auto& row : rows) {
        boards.push_back(std::make_unique<Board>());
        InstallLife(boards.back().get(), row.life);
        boards.back()->Start({"--no-wifi", "--speed", kSpeed});
    }
    for (size_t i = 0; i < boards.size(); ++i) {
        SCOPED_TRACE(rows[i].script);
        Board& board = *boards[i];
        if (rows[i].boots == 2) {
            ASSERT_TRUE(board.WaitTrace("MINI ProtocolInit Init Success!", 2))
                << board.Status() << board.Trace(1) << board.Trace(2);
        } else {
            ASSERT_TRUE(board.WaitBoot(2));
        }
        const nlohmann::json script = Ladder({"--script", rows[i].script});
        Lines log = {"--log"};
        for (int boot = 1; boot <= rows[i].boots; ++boot) {
            log.push_back(board.Path("boot-" + std::to_string(boot) + "/trace.log"));
        }
        const nlohmann::json replay = Ladder(log);
        for (int boot = 1; boot <= rows[i].boots; ++boot) {
            SCOPED_TRACE("boot " + std::to_string(boot) + "\n" + board.Trace(boot));
            const std::vector<Step> traced = TracedSteps(board, boot);
            ExpectSame(ReplayedSteps(script, boot), traced, kLag);
            ExpectSame(ReplayedSteps(replay, boot), traced, 6);
        }
    }
}

namespace {

// Starts the supervisor as a board with busybox does: through the start script, with busybox's
// shell and commands, and with the log keeper.
constexpr char kBusyboxBoot[] = R"sh(#!/bin/sh
for name in reboot startapp.sh wifi_reset.sh; do
    ln -sf /opt/board/bin/$name /sbin/$name
    for folder in /usr/sbin /usr/bin; do
        [ ! -e $folder/$name ] || mount --bind /opt/board/bin/$name $folder/$name
    done
done
for name in cat cp grep head mkdir mv rm sleep tail wc dash; do
    mount --bind /usr/bin/busybox "$(command -v $name)"
done
# It would wait for the disks of the host.
mount --bind /usr/bin/true /usr/bin/sync
mkdir -p /etc/default
echo 'PROGRAM=/param/bin/upgradeMain PREPARE= OUTPUT=/param/out' >/etc/default/upgrademain
echo 'KEEPER=/param/bin/upgrade_keep_log.sh KEEP_LOG=/param/log KEEP_KIND=ram' \
    >>/etc/default/upgrademain
busybox sh /param/bin/S50upgrademain start
exec sleep 1000000
)sh";

Lines KeptLogs(const Board& board) {
    Lines files;
    for (const auto& entry : std::filesystem::directory_iterator(board.Path("param/log"))) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string Kept(const Board& board, const std::string& boot) {
    return ReadFile(board.Path("param/log/boot-" + boot + "-001.log"));
}

}  // namespace

TEST(LogKeeper, KeepsWhatABoardPrintedBeforeItsResets) {
    Board board;
    board.InstallApplication();
    (void)board.Do({"app", "silent"});
    const std::string bin = board.Path("param/bin");
    std::filesystem::create_directories(bin);
    std::filesystem::create_directories(board.Path("param/var"));
    const std::string packaging = KV_PACKAGING;
    std::filesystem::copy_file(BinDir() + "/upgradeMain", bin + "/upgradeMain");
    std::filesystem::copy_file(packaging + "/init/S50upgrademain", bin + "/S50upgrademain");
    std::filesystem::copy_file(packaging + "/scripts/upgrade_keep_log.sh",
                               bin + "/upgrade_keep_log.sh");
    WriteFile(board.Path("busybox-boot"), kBusyboxBoot);
    std::filesystem::permissions(board.Path("busybox-boot"), std::filesystem::perms(0755));
    board.Start({"--no-wifi", "--speed", kSpeed}, {board.Path("busybox-boot")});

    // A forced reboot, then recovery.
    ASSERT_TRUE(board.WaitBoot(2)) << Kept(board, "000001");
    ASSERT_TRUE(WaitUntil([&] {
        return Contains(Kept(board, "000002"), "MINI ProtocolInit Init Success!");
    })) << Kept(board, "000002");
    EXPECT_TRUE(Contains(Kept(board, "000002"), "boot 000002, marker exists\n"));
    EXPECT_TRUE(Contains(ReadFile(board.Path("param/out")), "# startapp.sh\r\n"));
    Lines log = KeptLogs(board);
    log.insert(log.begin(), "--log");
    const nlohmann::json replay = Ladder(log);
    ASSERT_EQ(replay["boots"].size(), 2U) << replay;
    EXPECT_EQ(replay["boots"][1]["end"], "recovery");
    EXPECT_TRUE(replay["boots"][1]["marker"]);
    EXPECT_GE(ReplayedSteps(replay, 1).size(), 2U) << replay;
    EXPECT_EQ(ReplayedSteps(replay, 1)[1].name, "restart");

    // Power losses: four more boots leave the present one and three before it.
    for (int boot = 3; boot <= 6; ++boot) {
        (void)board.Do({"reset"});
        const std::string name = "00000" + std::to_string(boot);
        ASSERT_TRUE(WaitUntil([&] { return Contains(Kept(board, name), "app file exist!"); }))
            << name;
    }
    const Lines left = KeptLogs(board);
    ASSERT_EQ(left.size(), 4U) << testing::PrintToString(left);
    EXPECT_TRUE(Contains(left.front(), "boot-000003-"));
}
