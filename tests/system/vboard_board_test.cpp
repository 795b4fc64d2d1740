// The virtual board itself, driven through its command line. The program on it is this test
// program, which plays a supervisor when its name is "upgradeMain". What the other system tests use
// all the time (Wi-Fi, failing devices, a watchdog that is fed) is not tested again here.
#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>

#include <csignal>
#include <sstream>

#include "tests/support/board.h"

using namespace kv_test;
namespace fs = std::filesystem;

namespace {

std::string g_self;  // NOLINT: this program, set once by main

// Plays the supervisor. "feed SECONDS" arms the watchdog and never feeds it.
int Supervise(int argc, char** argv) {
    (void)fprintf(stderr, "supervisor runs\n");
    if (argc > 2 && std::string(argv[1]) == "feed") {
        const int watchdog = open("/dev/watchdog", O_WRONLY | O_CLOEXEC);
        int seconds = std::atoi(argv[2]);
        if (ioctl(watchdog, WDIOC_SETTIMEOUT, &seconds) != 0) {
            perror("watchdog");
        }
    }
    for (;;) {
        (void)pause();
    }
}

class Vboard : public testing::Test {
  protected:
    void Run(const Lines& options, const Lines& program = {g_self}) {
        board_.Start(options, program);
    }
    // Runs a command on the board, which must succeed. Returns its output.
    std::string OnBoard(const std::string& script) {
        const CommandResult result = board_.OnBoard(script);
        EXPECT_EQ(result.status, 0) << script;
        return result.output;
    }

    Board board_;
};

}  // namespace

TEST_F(Vboard, EachResetHasItsReasonAndKeepsPersistentData) {
    Run({});
    (void)OnBoard("touch /param/var/kept /tmp/lost /opt/app/lost");
    (void)OnBoard("printf abc | dd of=/dev/mtd6 conv=notrunc");
    (void)board_.OnBoard(
        "for i in 1 2 3 4 5 6; do (reboot -f; echo after >/param/var/seen) & done; wait");
    ASSERT_TRUE(board_.WaitBoot(2));
    EXPECT_EQ(OnBoard("ls /param/var /tmp /opt/app"),
              "/opt/app:\n\n/param/var:\nkept\n\n/tmp:\nbin\n");
    EXPECT_EQ(OnBoard("head -c 3 /dev/mtd6"), "abc");

    // Seconds until the last reset, without the boot after it.
    const auto resetAfter = [this](Clock::time_point start) {
        double at = 0;
        for (const auto& operation : board_.Operations()) {
            at = operation.at("op") == "reset" ? operation.at("t").get<double>() : at;
        }
        return at - std::chrono::duration<double>(start.time_since_epoch()).count();
    };
    auto start = Clock::now();
    (void)board_.OnBoard("reboot");
    ASSERT_TRUE(board_.WaitBoot(3));
    EXPECT_LT(resetAfter(start), 3) << "SIGTERM ends every process";
    start = Clock::now();
    (void)board_.OnBoard(
        "(trap '' TERM; echo deaf >/tmp/p; sleep infinity) >/dev/null & "
        "while [ ! -e /tmp/p ]; do :; done; reboot");
    ASSERT_TRUE(board_.WaitBoot(4));
    EXPECT_GE(resetAfter(start), 3) << "a process that ignores SIGTERM gets some time";
    const auto held = [this] {
        const std::string runner = "/proc/" + std::to_string(board_.Runner());
        return std::stoi(Shell("ls " + runner + "/fd " + runner + "/task | wc -l"));
    };
    const int before = held();
    for (int i = 0; i < 5; ++i) {
        // No process sees the reset, not even those whose flash fails.
        (void)OnBoard(
            "for i in 1 2 3 4 5 6; do (while dd if=/dev/zero of=/dev/mtd7 bs=64k count=4; "
            "do :; done; echo after >/param/var/seen) >/dev/null 2>&1 & done");
        (void)board_.Do({"reset"});
    }
    // The runner closes a requester's connection some time after the requester has ended.
    EXPECT_TRUE(WaitUntil([&] { return held() <= before; }))
        << "a boot leaves descriptors or threads behind: " << held() << " after " << before;
    EXPECT_FALSE(fs::exists(board_.Path("param/var/seen")));
    const char* const reasons[] = {"power-on", "reboot -f", "reboot", "reboot", "reset"};
    for (int boot = 1; boot <= 5; ++boot) {
        EXPECT_EQ(board_.Reason(boot), std::string(reasons[boot - 1]) + "\n");
    }
}

TEST_F(Vboard, AfterAPowerCutTheBoardStaysOffUntilItIsSwitchedOn) {
    Run({});
    (void)OnBoard("touch /param/var/kept /tmp/lost");
    for (const Lines& wrong :
         std::vector<Lines>{{"fault", "power"},
                            {"fault", "power", "--after", "0"},
                            {"fault", "power", "--after", "1", "--inside", "1"},
                            {"fault", "power", "off", "--after", "1"},
                            {"fault", "power", "--after", "1", "--half", "first"},
                            {"fault", "mtd6", "--errno", "EIO"},
                            {"power", "on"}}) {
        EXPECT_NE(board_.Try(wrong).status, 0) << testing::PrintToString(wrong);
    }
    board_.Fault({"power", "--inside", "1"});
    board_.Fault({"power", "off"});
    (void)OnBoard("printf abc | dd of=/dev/mtd7 conv=notrunc");
    // Three pages in one write. Nothing on the board sees the cut.
    board_.Fault({"power", "--inside", "2", "--half", "second"});
    (void)board_.OnBoard(
        "head -c 768 /dev/zero | dd of=/dev/mtd6 bs=768 conv=notrunc; echo after >/param/var/seen");
    ASSERT_TRUE(board_.WaitConsole("board: down: power cut"));
    EXPECT_TRUE(board_.Flash("mtd6").substr(0, 768) ==
                std::string(256, '\0') + std::string(128, '\xFF') + std::string(128, '\0') +
                    std::string(256, '\xFF'));
    EXPECT_FALSE(fs::exists(board_.Path("param/var/seen")));
    EXPECT_EQ(board_.Status().at("state"), "off");
    for (const Lines& needsPower : std::vector<Lines>{{"reset"},
                                                      {"link", "up"},
                                                      {"fault", "trace", "block"},
                                                      {"exec", "--board", "--", "true"}}) {
        EXPECT_EQ(board_.Try(needsPower).status, 1) << needsPower[0];
    }
    EXPECT_EQ(board_.Status().at("program").at("running"), false);
    (void)board_.Do({"ap", "down"});
    board_.Fault({"power", "--after", "1"});
    (void)board_.Do({"power", "on"});
    EXPECT_EQ(board_.Reason(2), "power-on\n");
    (void)OnBoard("ip link set wlan0 up && ip link show wlan0 | grep NO-CARRIER");
    EXPECT_EQ(OnBoard("ls /param/var /tmp"), "/param/var:\nkept\n\n/tmp:\nbin\n");
    // A cut that is due survives a reset.
    (void)board_.Do({"reset"});
    (void)board_.OnBoard("printf abc | dd of=/dev/mtd5 conv=notrunc");
    ASSERT_TRUE(board_.WaitConsole("board: down: power cut", 3));
    EXPECT_EQ(board_.Flash("mtd5").substr(0, 4), "abc\xFF");
    (void)board_.Do({"power", "on"});
    (void)board_.Do({"power", "off"});
    EXPECT_EQ(board_.Status().at("state"), "off");
}

TEST_F(Vboard, AnAcceleratedClockAppliesToTheWholeBoardAndTheLastBootEndsTheRunner) {
    Run({"--no-wifi", "--max-boots", "2", "--speed", "10"}, {g_self, "feed", "60"});
    EXPECT_TRUE(Contains(board_.Do({"status"}), "boot 1, clock 10 times as fast ("));
    // The clock applies to a command on the board and to the processes that it starts.
    const auto before = Clock::now();
    EXPECT_EQ(OnBoard("sleep 6; sh -c 'sleep 6'"), "");
    EXPECT_LT(SecondsSince(before), 6);
    EXPECT_GE(SecondsSince(before), 1.2);
    // Two boots of 60 s each.
    EXPECT_EQ(board_.Await(), 0);
    EXPECT_LT(SecondsSince(before), 90);
    double armed = 0;
    for (const auto& operation : board_.Operations()) {
        const double at = operation.at("board");
        if (operation.at("op") == "ioctl:SETTIMEOUT") {
            armed = at;
        } else if (operation.at("op") == "starved") {
            EXPECT_GE(at - armed, 59);
            EXPECT_LT(at - armed, 300);
        }
    }
    EXPECT_NE(armed, 0);
    EXPECT_EQ(board_.Reason(2), "watchdog\n");
    EXPECT_FALSE(fs::exists(board_.Path("boot-3")));
    EXPECT_TRUE(Contains(board_.Do({"log", "--boot", "2", "--console"}), "board: down: watchdog"));
    EXPECT_EQ(board_.Do({"log", "--boot", "1"}), "supervisor runs\n");

    if (geteuid() == 0) {
        EXPECT_EQ(kv_test::Run("unshare --mount sh -c 'mount -t tmpfs t /usr/lib/*/faketime && " +
                               BinDir() + "/vboard run --speed 2 --state " + board_.Path("") +
                               " -- /bin/true'")
                      .output,
                  "vboard: an accelerated clock needs libfaketime, which the host lacks (Debian "
                  "package libfaketime)\n");
    }
}

TEST_F(Vboard, TheProgramSeesADevice) {
    Run({"--env", "COLOUR=blue"}, {g_self, "one", "two"});
    const struct {
        const char* script;
        const char* output;
    } cases[] = {
        {"killall -0 upgradeMain && tr '\\0' ' ' </proc/$(pidof upgradeMain)/cmdline",
         "/opt/upgrade/upgradeMain one two "},
        {"readlink /proc/$(pidof upgradeMain)/cwd", "/\n"},
        {"readlink /proc/$(pidof upgradeMain)/fd/0", "/dev/null\n"},
        {"ls /proc/$(pidof upgradeMain)/fd | wc -l", "3\n"},
        // Signals 32 and 33 belong to the C library, which leaves them ignored in a child.
        {"grep -E '^Sig(Blk|Ign)' /proc/$(pidof upgradeMain)/status | sed "
         "s/180000000$/000000000/",
         "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
        {"tr '\\0' '\\n' </proc/$(pidof upgradeMain)/environ | grep COLOUR", "COLOUR=blue\n"},
        {"cat /sys/class/gpio/GPIO26/value /etc/resolv.conf", "1\n"},
        {"echo 1 >/proc/sys/vm/drop_caches && cat /proc/sys/vm/drop_caches", "1\n"},
        {"stat -c %s /dev/mtd0 /dev/mtd7", "262144\n524288\n"},
        {"ip -o -4 address show dev eth0 | grep -o '192.168.10.2/24'", "192.168.10.2/24\n"},
        {"ip link show wlan0 | grep -c 'state DOWN'", "1\n"},
        {"type reboot startapp.sh wifi_reset.sh >/dev/null && test -x /root/wifi_connect.sh", ""},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(OnBoard(item.script), item.output) << item.script;
    }
    EXPECT_EQ(board_.OnBoard("exit 7").status, 7);
    // The board cannot change a setting of the host.
    EXPECT_NE(board_.OnBoard("echo 1 >/proc/sys/vm/swappiness").status, 0);
    EXPECT_EQ(board_.Status().at("program").at("threads").at(0).at("name"), "upgradeMain");
}

TEST_F(Vboard, ATruncatedApplicationAndTheButton) {
    WriteFile(board_.Path("cut"), ReadFile(MakeApplicationImage(board_)).substr(0, 96));
    (void)board_.Do({"flash", "write", "mtd5", board_.Path("cut")});
    (void)board_.Do({"flash", "read", "mtd5", board_.Path("back")});
    EXPECT_EQ(ReadFile(board_.Path("back")).substr(0, 96), ReadFile(board_.Path("cut")));
    Run({"--no-wifi"});
    EXPECT_NE(board_.OnBoard("ls /opt/app/bin/cameraMain").status, 0);
    EXPECT_TRUE(Contains(board_.Console(), "cannot be unpacked"));

    // The board reads its line while the button goes down, up, down.
    const CommandResult seen = board_.OnBoard(
        "(echo ready >/param/ready; last=; n=0; while [ $n -lt 5 ]; do"
        " read -r now </sys/class/gpio/GPIO26/value; [ \"$now\" = \"$last\" ] ||"
        " { printf $now; last=$now; n=$((n+1)); }; sleep 0.1; done) >/param/seen 2>&1 &");
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(board_.Path("param/seen")) == "1"; }));
    (void)board_.Do({"press", "--sequence", "2 2 2"});
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(board_.Path("param/seen")) == "10101"; }));
}

TEST_F(Vboard, RefusesInOneSentence) {
    const struct {
        Lines arguments;
        const char* sentence;
    } cases[] = {
        {{"run", "--", "/no/such"}, "not a program: /no/such"},
        {{"run", "--layout", "mtd9=64K", "--", "/bin/true"},
         "not a partition: \"mtd9=64K\" (use mtd0=256K,…; mtd0 to mtd7)"},
        {{"run", "--layout", "mtd1=1000", "--", "/bin/true"},
         "the size of mtd1 is not a multiple of the erase block"},
        {{"run", "--eth", "192.168.10.2", "--", "/bin/true"},
         "not an address: \"192.168.10.2\" (use ADDRESS/LEN, LEN from 8 to 30)"},
    };
    for (const auto& item : cases) {
        const CommandResult result = board_.Try(item.arguments);
        EXPECT_NE(result.status, 0) << item.sentence;
        EXPECT_EQ(result.output, std::string("vboard: ") + item.sentence + "\n");
    }
    EXPECT_EQ(board_.Try({"status"}).status, 1);
    // Unreadable or for no partition: nothing is written.
    WriteFile(board_.Path("empty"), "");
    EXPECT_EQ(board_.Try({"flash", "write", "mtd0", board_.Folder()}).status, 1);
    EXPECT_EQ(board_.Try({"flash", "write", "mtd9", board_.Path("empty")}).status, 1);
    EXPECT_FALSE(fs::exists(board_.Path("flash")));
    fs::create_directories(board_.Path("flash/mtd8.bin"));
    EXPECT_EQ(board_.Try({"flash", "read", "mtd8", board_.Path("back")}).status, 1);
    Run({"--no-wifi"});
    EXPECT_EQ(
        board_.Try({"run", "--", "/bin/true"}).output,
        "vboard: another board or site is running with the state folder " + board_.Folder() + "\n");
    EXPECT_EQ(board_.Try({"wait", "--log", "nothing", "--timeout", "0.2"}).status, 1);
    EXPECT_EQ(board_.Try({"ap", "up"}).output,
              "vboard: this board has no Wi-Fi (it runs with --no-wifi)\n");
    EXPECT_EQ(board_.Try({"press", "--sequence", "0.1 -1"}).status, 1);
    EXPECT_EQ(board_.Try({"site", "status"}).output,
              "vboard: " + board_.Folder() + " is the state folder of a board, not of a site\n");
    EXPECT_NE(board_.Try({"fault", "mtd1", "open"}).status, 0);
    EXPECT_NE(board_.Try({"fault", "mtd1", "open", "--errno", "EWHAT"}).status, 0);
}

TEST_F(Vboard, AKilledRunnerLeavesNothing) {
    Run({});
    const pid_t runner = board_.Runner();
    Lines processes = ChildrenOf(runner);
    processes.push_back(std::to_string(board_.Status().at("initPid").get<pid_t>()));
    processes.push_back(std::to_string(board_.ProgramPid()));
    EXPECT_GE(processes.size(), 4U);  // among them the DHCP server
    (void)kill(runner, SIGKILL);
    (void)board_.Await();
    ExpectGone(processes);
    EXPECT_FALSE(Contains(ReadFile("/proc/mounts"), board_.Folder()));
    Run({"--no-wifi"});  // the folder is free again
    (void)board_.Do({"stop"});
    EXPECT_EQ(board_.Await(), 0);
}

TEST_F(Vboard, AnOrdinaryUserMayRunABoard) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "without root the other tests already run as an ordinary user";
    }
    // In a mount namespace where everybody may use /dev/fuse, as on a desktop.
    const std::string state = board_.Folder();
    fs::copy_file(BinDir() + "/vboard", state + "/vboard");
    fs::copy_file(g_self, state + "/self");
    fs::permissions(state, fs::perms(0755));
    fs::create_directory(state + "/s");
    fs::permissions(state + "/s", fs::perms(0777));
    WriteFile(state + "/script", "where='--state " + state + "/s'; cd " + state + R"(
        ./vboard run --quiet $where -- $PWD/self &
        ./vboard wait $where --boot 1 --timeout 60 &&
        ./vboard exec $where --board -- sh -c 'head -c 1 /dev/mtd0 >/dev/null && killall -0 upgradeMain' &&
        ./vboard exec $where -- ping -c 1 -W 60 192.168.10.2 >/dev/null &&
        ./vboard reset $where && ./vboard stop $where && wait && echo good)");
    const CommandResult result =
        kv_test::Run("cd " + state +
                     " && mkdir d && unshare --mount sh -ec 'mount -t tmpfs t d;"
                     " mknod -m 666 d/fuse c 10 229; mount --bind d/fuse /dev/fuse;"
                     " exec setpriv --reuid 65534 --regid 65534 --clear-groups sh ./script'");
    EXPECT_EQ(result.output, "good\n");
}

int main(int argc, char** argv) {
    if (std::string(program_invocation_short_name) == "upgradeMain") {
        return Supervise(argc, argv);
    }
    testing::InitGoogleTest(&argc, argv);
    g_self = fs::canonical("/proc/self/exe");
    return RUN_ALL_TESTS();
}
