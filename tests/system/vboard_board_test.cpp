// The virtual board itself, driven through its command line. The program that it runs is this very
// test program, which under the name "upgradeMain" plays a supervisor.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using nlohmann::json;

static std::string g_vboard;  // NOLINT: the program under test, set once by main
static std::string g_self;

// Plays the supervisor. "feed SECONDS" arms the watchdog and never feeds it again.
static int Supervise(int argc, char** argv) {
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

struct Result {
    int status;
    std::string output;  // both streams
};

static Result Shell(const std::string& command) {
    Result result{-1, ""};
    FILE* const stream = popen(("exec 2>&1; " + command).c_str(), "r");
    char buffer[4096];
    size_t length = 0;
    while ((length = fread(buffer, 1, sizeof(buffer), stream)) > 0) {
        result.output.append(buffer, length);
    }
    const int status = pclose(stream);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

class VboardTest : public testing::Test {
  protected:
    VboardTest() {
        char name[] = "/tmp/vboard_test_XXXXXX";
        state_ = mkdtemp(name);
    }
    ~VboardTest() override {
        if (runner_ > 0) {
            (void)kill(runner_, SIGTERM);
            (void)AwaitRunner();
        }
        fs::remove_all(state_);
    }

    // `arguments`: what follows "run", e.g. "--no-wifi -- PROGRAM".
    void Run(const std::string& arguments) {
        const std::string line =
            "exec " + g_vboard + " run --quiet --state " + state_ + " " + arguments;
        runner_ = fork();
        if (runner_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
            (void)execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(127);
        }
        const Result up = Vboard("wait --boot 1 --timeout 20");
        ASSERT_EQ(up.status, 0) << up.output;
    }
    int AwaitRunner() {
        int status = 0;
        (void)waitpid(runner_, &status, 0);
        runner_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    Result Vboard(const std::string& command) const {
        const size_t word = command.find(' ');
        return Shell(g_vboard + " " + command.substr(0, word) + " --state " + state_ +
                     (word == std::string::npos ? "" : command.substr(word)));
    }
    Result OnBoard(const std::string& script) const {
        return Vboard("exec --board -- sh -c '" + script + "'");
    }
    json Status() const { return json::parse(Vboard("status --json").output); }
    std::vector<std::string> Reasons() const {
        std::vector<std::string> reasons;
        const json status = Status();
        for (const json& boot : status.at("boots")) {
            reasons.push_back(boot.at("reason"));
        }
        return reasons;
    }

    std::string state_;
    pid_t runner_ = -1;
};

TEST_F(VboardTest, EachResetIsTakenForWhatItIsAndKeepsWhatADeviceKeeps) {
    Run("-- " + g_self);
    EXPECT_EQ(OnBoard("touch /param/var/kept /tmp/lost /opt/app/lost").status, 0);
    EXPECT_EQ(OnBoard("printf abc | dd of=/dev/mtd6 conv=notrunc").status, 0);
    (void)OnBoard("reboot -f");
    EXPECT_EQ(Vboard("wait --boot 2 --timeout 10").status, 0);
    EXPECT_EQ(OnBoard("ls /param/var /tmp /opt/app").output,
              "/opt/app:\n\n/param/var:\nkept\n\n/tmp:\nbin\n");
    EXPECT_EQ(OnBoard("head -c 3 /dev/mtd6").output, "abc");

    const auto start = std::chrono::steady_clock::now();
    (void)OnBoard("reboot");
    EXPECT_EQ(Vboard("wait --boot 3 --timeout 10").status, 0);
    // Everybody dies of SIGTERM, so nothing is left to be waited for.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(Vboard("reset").status, 0);
    EXPECT_EQ(Reasons(), (std::vector<std::string>{"power-on", "reboot -f", "reboot", "reset"}));
}

TEST_F(VboardTest, AnOrderlyRebootWaitsForTheStubbornButNotForever) {
    Run("--no-wifi -- " + g_self);
    const auto start = std::chrono::steady_clock::now();
    (void)OnBoard(
        "(trap \"\" TERM; echo deaf >/tmp/p; sleep infinity) >/dev/null & "
        "while [ ! -e /tmp/p ]; do :; done; reboot");
    EXPECT_EQ(Vboard("wait --boot 2 --timeout 10").status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(Reasons().back(), "reboot");
}

TEST_F(VboardTest, AStarvedWatchdogResetsAndTheLastBootEndsTheRunner) {
    Run("--no-wifi --max-boots 2 -- " + g_self + " feed 1");
    EXPECT_EQ(AwaitRunner(), 0);
    EXPECT_EQ(Shell("cat " + state_ + "/boot-*/reason").output, "power-on\nwatchdog\n");
    EXPECT_FALSE(fs::exists(state_ + "/boot-3"));
    EXPECT_NE(Vboard("log --boot 2 --console").output.find("board: down: watchdog"),
              std::string::npos);
    EXPECT_EQ(Vboard("log --boot 1").output, "supervisor runs\n");
}

TEST_F(VboardTest, AnAcceleratedClockIsThatOfTheWholeBoard) {
    const auto start = std::chrono::steady_clock::now();
    Run("--no-wifi --max-boots 2 --speed 10 -- " + g_self + " feed 60");
    EXPECT_EQ(Status().at("speed"), 10);
    EXPECT_NE(Vboard("status").output.find("boot 1, clock 10 times as fast ("), std::string::npos);
    // Both a command of the board's and what it starts.
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(OnBoard("sleep 10; sh -c \"sleep 10\"").output, "");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(8));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    // Two boots of 60 s each.
    EXPECT_EQ(AwaitRunner(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(40));
    double armed = 0;
    std::istringstream operations(Vboard("ops --json").output);
    for (std::string line; std::getline(operations, line);) {
        const json operation = json::parse(line);
        const double at = operation.at("board");
        if (operation.at("op") == "ioctl:SETTIMEOUT") {
            armed = at;
        } else if (operation.at("op") == "starved") {
            EXPECT_GE(at - armed, 59.99);
            EXPECT_LT(at - armed, 65);
        }
    }
    EXPECT_NE(armed, 0);
    EXPECT_EQ(Shell("cat " + state_ + "/boot-2/reason").output, "watchdog\n");

    if (geteuid() == 0) {
        EXPECT_EQ(Shell("unshare --mount sh -c 'mount -t tmpfs t /usr/lib/*/faketime && " +
                        g_vboard + " run --speed 2 --state " + state_ + " -- /bin/true'")
                      .output,
                  "vboard: an accelerated clock needs libfaketime, which the host lacks (Debian "
                  "package libfaketime)\n");
    }
}

TEST_F(VboardTest, TheProgramSeesADevice) {
    Run("--env COLOUR=blue -- " + g_self + " one two");
    const struct {
        const char* script;
        const char* output;
    } cases[] = {
        {"killall -0 upgradeMain && tr \"\\0\" \" \" </proc/$(pidof upgradeMain)/cmdline",
         "/opt/upgrade/upgradeMain one two "},
        {"readlink /proc/$(pidof upgradeMain)/cwd", "/\n"},
        {"readlink /proc/$(pidof upgradeMain)/fd/0", "/dev/null\n"},
        {"ls /proc/$(pidof upgradeMain)/fd | wc -l", "3\n"},
        // Signals 32 and 33 belong to the C library, which hands them on ignored.
        {"grep -E \"^Sig(Blk|Ign)\" /proc/$(pidof upgradeMain)/status | sed "
         "s/180000000$/000000000/",
         "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
        {"tr \"\\0\" \"\\n\" </proc/$(pidof upgradeMain)/environ | grep COLOUR", "COLOUR=blue\n"},
        {"cat /sys/class/gpio/GPIO26/value /etc/resolv.conf", "1\n"},
        {"echo 1 >/proc/sys/vm/drop_caches && cat /proc/sys/vm/drop_caches", "1\n"},
        {"stat -c %s /dev/mtd0 /dev/mtd7", "262144\n524288\n"},
        {"ip -o -4 address show dev eth0 | grep -o \"192.168.10.2/24\"", "192.168.10.2/24\n"},
        {"ip link show wlan0 | grep -c \"state DOWN\"", "1\n"},
        {"type reboot startapp.sh wifi_reset.sh >/dev/null && test -x /root/wifi_connect.sh", ""},
        {"exit 7", nullptr},
    };
    for (const auto& item : cases) {
        const Result result = OnBoard(item.script);
        EXPECT_EQ(result.status, item.output != nullptr ? 0 : 7) << item.script;
        EXPECT_EQ(result.output, item.output != nullptr ? item.output : "") << item.script;
    }
    // A host's switch stays the host's.
    EXPECT_NE(OnBoard("echo 1 >/proc/sys/vm/swappiness").status, 0);
    EXPECT_EQ(Vboard("exec -- ping -c 1 -W 5 192.168.10.2").status, 0);
    EXPECT_EQ(Status().at("program").at("threads").at(0).at("name"), "upgradeMain");
}

TEST_F(VboardTest, TheApplicationIsUnpackedFromFlashAndStarted) {
    const std::string image = state_ + "/app.sqfs";
    ASSERT_EQ(Shell("cd " + state_ +
                    " && mkdir -p app/bin && printf \"#!/bin/sh\\necho camera on\\nsleep 999\" "
                    ">app/bin/cameraMain && chmod +x app/bin/cameraMain && "
                    "mksquashfs app app.sqfs -all-root -quiet -no-progress")
                  .status,
              0);
    EXPECT_EQ(Vboard("flash write mtd5 " + image).status, 0);
    Run("--no-wifi -- " + g_self);
    EXPECT_EQ(Vboard("wait --console-log \"camera on\" --timeout 10").status, 0);
    EXPECT_EQ(OnBoard("killall -0 cameraMain").status, 0);

    EXPECT_EQ(Vboard("flash read mtd5 " + state_ + "/back").status, 0);
    EXPECT_EQ(Shell("cmp -n $(stat -c %s " + image + ") " + image + " " + state_ + "/back").status,
              0);
    // A cut-off image leaves the board without the application, and says so.
    ASSERT_EQ(truncate(image.c_str(), 96), 0);
    EXPECT_EQ(Vboard("flash write mtd5 " + image).status, 0);
    EXPECT_EQ(Vboard("reset").status, 0);
    EXPECT_NE(OnBoard("ls /opt/app/bin/cameraMain").status, 0);
    EXPECT_NE(Vboard("log --console").output.find("cannot be unpacked"), std::string::npos);
}

TEST_F(VboardTest, FaultsAndTheButton) {
    Run("--no-wifi -- " + g_self);
    EXPECT_EQ(Vboard("fault mtd1 open --errno EBUSY").status, 0);
    EXPECT_NE(OnBoard("head -c 1 /dev/mtd1").output.find("busy"), std::string::npos);
    EXPECT_EQ(OnBoard("head -c 1 /dev/mtd1").output, "\xFF");
    EXPECT_NE(Vboard("fault mtd1 open").status, 0);
    EXPECT_NE(Vboard("fault mtd1 open --errno EWHAT").status, 0);

    EXPECT_EQ(Vboard("fault reboot fail").status, 0);
    EXPECT_EQ(OnBoard("reboot -f").status, 1);
    EXPECT_EQ(Vboard("fault reboot hang").status, 0);
    EXPECT_EQ(OnBoard("timeout 1 reboot -f").status, 124);
    EXPECT_EQ(Vboard("reset").status, 0);  // a reset clears it
    (void)OnBoard("reboot -f");
    EXPECT_EQ(Vboard("wait --boot 3 --timeout 10").status, 0);

    // The board watches its line while the button goes down, up, down.
    const Result seen =
        Shell(g_vboard + " exec --state " + state_ +
              " --board -- sh -c 'echo; last=; n=0; while [ $n -lt 5 ]; do"
              " read -r now </sys/class/gpio/GPIO26/value; [ \"$now\" = \"$last\" ] ||"
              " { echo -n $now; last=$now; n=$((n+1)); }; done' & "
              "sleep 0.3; " +
              g_vboard + " press --state " + state_ + " --sequence '0.4 0.4 0.4'; wait");
    EXPECT_EQ(seen.output, "\n10101");
}

TEST_F(VboardTest, TheRealSupplicantJoinsTheAccessPointOnly) {
    Run("-- " + g_self);
    const auto join = [this](const std::string& psk, const std::string& more) {
        const std::string conf =
            R"(ctrl_interface=/tmp/wpa_supplicant\nupdate_config=1\nap_scan=1\n)" + more +
            R"(network={\n\tssid="test"\n\tscan_ssid=1\n)"
            R"(\tkey_mgmt=WPA-PSK WPA-EAP IEEE8021X NONE\n\tpairwise=TKIP CCMP\n)"
            R"(\tgroup=CCMP TKIP WEP104 WEP40\n\tpsk=")" +
            psk + R"("\n})";
        return OnBoard("killall -9 wpa_supplicant; printf \"%b\" \"" +
                       // The quotes of the file inside the script's.
                       [&conf] {
                           std::string text;
                           for (const char c : conf) {
                               text += c == '"' ? "\\\"" : std::string(1, c);
                           }
                           return text;
                       }() +
                       "\" >/tmp/w.conf; ifconfig wlan0 up; /root/wifi_connect.sh sta /tmp/w.conf");
    };
    const auto reaches = [this](const std::string& state) {
        return OnBoard(
                   "for i in $(seq 100); do wpa_cli -p /tmp/wpa_supplicant -i wlan0 status |"
                   " grep -q \"wpa_state=" +
                   state + "\" && exit 0; sleep 0.05; done; exit 1")
                   .status == 0;
    };
    EXPECT_NE(join("24681357", R"(no_such_option=1\n)").status, 0);
    EXPECT_EQ(join("12345678", "").status, 0);
    EXPECT_TRUE(reaches("DISCONNECTED"));
    EXPECT_EQ(join("24681357", "").status, 0);
    EXPECT_TRUE(reaches("COMPLETED"));

    EXPECT_EQ(Vboard("ap no-dhcp").status, 0);
    EXPECT_NE(OnBoard("udhcpc -i wlan0 -n -q -t 1 -T 1").status, 0);
    EXPECT_EQ(Vboard("ap dhcp").status, 0);
    EXPECT_EQ(OnBoard("udhcpc -i wlan0").status, 0);
    EXPECT_EQ(OnBoard("cat /etc/resolv.conf").output, "nameserver 172.20.18.1\n");
    EXPECT_EQ(OnBoard("ip route | grep -c \"default via 172.20.18.1 dev wlan0\"").output, "1\n");
    EXPECT_EQ(OnBoard("ping -c 1 -W 5 172.20.18.1").status, 0);

    EXPECT_EQ(Vboard("ap mute").status, 0);
    EXPECT_NE(OnBoard("ping -c 1 -W 1 172.20.18.1").status, 0);
    EXPECT_TRUE(reaches("COMPLETED"));
    EXPECT_EQ(Vboard("ap unmute").status, 0);
    EXPECT_EQ(OnBoard("ping -c 1 -W 5 172.20.18.1").status, 0);
    for (const char* const what : {"ap", "link"}) {
        EXPECT_EQ(Vboard(std::string(what) + " down").status, 0);
        EXPECT_TRUE(reaches("DISCONNECTED")) << what;
        EXPECT_EQ(Vboard(std::string(what) + " up").status, 0);
        EXPECT_TRUE(reaches("COMPLETED")) << what;
    }
}

TEST_F(VboardTest, RefusesInOneSentence) {
    const struct {
        const char* arguments;
        const char* sentence;
    } cases[] = {
        {"run -- /no/such", "vboard: not a program: /no/such\n"},
        {"run --layout mtd9=64K -- /bin/true",
         "vboard: not a partition: \"mtd9=64K\" (use mtd0=256K,…; mtd0 to mtd7)\n"},
        {"run --layout mtd1=1000 -- /bin/true",
         "vboard: the size of mtd1 is not a multiple of the erase block\n"},
        {"run --eth 192.168.10.2 -- /bin/true",
         "vboard: not an address: \"192.168.10.2\" (use ADDRESS/LEN, LEN from 8 to 30)\n"},
    };
    for (const auto& item : cases) {
        const Result result = Vboard(item.arguments);
        EXPECT_NE(result.status, 0) << item.arguments;
        EXPECT_EQ(result.output, item.sentence);
    }
    EXPECT_EQ(Vboard("status").status, 1);
    EXPECT_EQ(Vboard("wait --timeout 0.1").status, 1);
    Run("--no-wifi -- " + g_self);
    EXPECT_EQ(Vboard("run -- /bin/true").output,
              "vboard: another board runs on the state folder " + state_ + "\n");
    EXPECT_EQ(Vboard("wait --log nothing --timeout 0.2").status, 1);
    EXPECT_EQ(Vboard("ap up").output, "vboard: this board has no Wi-Fi (it runs with --no-wifi)\n");
}

// True when nothing of the board is left; killed processes need a moment to be taken apart.
static bool Vanishes(pid_t process) {
    const std::string status = "/proc/" + std::to_string(process) + "/stat";
    for (int i = 0; i < 500; ++i) {
        std::ifstream stream(status);
        std::string line;
        if (!std::getline(stream, line) || line.find(") Z ") != std::string::npos) {
            return true;
        }
        (void)usleep(10000);
    }
    return false;
}

TEST_F(VboardTest, AKilledRunnerLeavesNothing) {
    Run("-- " + g_self);
    const json status = Status();
    const pid_t init = status.at("initPid");
    const pid_t program = status.at("program").at("hostPid");
    const std::string dhcp = Shell("pgrep -P " + std::to_string(runner_) + " udhcpd").output;
    ASSERT_FALSE(dhcp.empty());
    (void)kill(runner_, SIGKILL);
    (void)AwaitRunner();
    for (const pid_t process : {init, program, std::atoi(dhcp.c_str())}) {
        EXPECT_TRUE(Vanishes(process)) << process;
    }
    EXPECT_EQ(Shell("grep -c " + state_ + " /proc/mounts").output, "0\n");
    Run("--no-wifi -- " + g_self);  // the folder is free again
    EXPECT_EQ(Vboard("stop").status, 0);
    EXPECT_EQ(AwaitRunner(), 0);
}

TEST_F(VboardTest, BoardsSideBySideDoNotMeet) {
    Run("--no-wifi -- " + g_self);
    const std::string other = state_ + "/other";
    const Result second =
        Shell(g_vboard + " run --quiet --no-wifi --state " + other + " -- " + g_self + " & " +
              g_vboard + " wait --state " + other + " --boot 1 --timeout 20 && " + g_vboard +
              " exec --state " + other + " -- ping -c 1 -W 5 192.168.10.2 >/dev/null && " +
              g_vboard + " stop --state " + other + "; wait");
    EXPECT_EQ(second.status, 0) << second.output;
    EXPECT_EQ(Vboard("exec -- ping -c 1 -W 5 192.168.10.2").status, 0);
}

TEST_F(VboardTest, AnOrdinaryUserMayHaveABoard) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "the other tests have shown it";
    }
    // In a mount namespace with a /dev/fuse for everybody, as a desktop's is.
    const std::string bin = state_ + "/vboard";
    fs::copy_file(fs::canonical(g_vboard), bin);
    fs::copy_file(g_self, state_ + "/self");
    fs::permissions(state_, fs::perms(0755));
    fs::create_directory(state_ + "/s");
    fs::permissions(state_ + "/s", fs::perms(0777));
    const std::string where = " --state " + state_ + "/s";
    const std::string script =
        bin + " run --quiet" + where + " -- " + state_ + "/self & " + bin + " wait" + where +
        " --boot 1 --timeout 20 && " + bin + " exec" + where +
        " --board -- sh -c \"head -c 1 /dev/mtd0 >/dev/null && killall -0 upgradeMain\" && " + bin +
        " exec" + where + " -- ping -c 1 -W 5 192.168.10.2 >/dev/null && " + bin + " reset" +
        where + " && " + bin + " stop" + where + " && wait && echo good";
    const Result result = Shell(
        "mkdir " + state_ + "/d && unshare --mount sh -c 'mount -t tmpfs t " + state_ +
        "/d && mknod -m 666 " + state_ + "/d/fuse c 10 229 && mount --bind " + state_ +
        "/d/fuse /dev/fuse && exec setpriv --reuid 65534 --regid 65534 --clear-groups sh -c '\\''" +
        script + "'\\'");
    EXPECT_EQ(result.output, "good\n");
}

int main(int argc, char** argv) {
    if (std::strcmp(program_invocation_short_name, "upgradeMain") == 0) {
        return Supervise(argc, argv);
    }
    testing::InitGoogleTest(&argc, argv);
    g_self = fs::canonical("/proc/self/exe");
    g_vboard = (fs::path(g_self).parent_path() / "vboard").string();
    return RUN_ALL_TESTS();
}
