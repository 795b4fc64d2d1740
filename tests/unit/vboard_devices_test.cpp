#include "vboard/devices/devices.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <mtd/mtd-user.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tests/support/board_clients.h"

using namespace vboard;
using namespace std::chrono_literals;

namespace {

constexpr int64_t kBlock = 65536;
constexpr char kClientWord[] = "--client";

std::string Contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Directory {
    Directory() { EXPECT_NE(mkdtemp(path), nullptr); }
    ~Directory() { std::filesystem::remove_all(path); }
    char path[32] = "/tmp/vboard_XXXXXX";
};

// The devices as the board's programs see them: served over FUSE, driven from other processes.
class Board : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(Mount().c_str(), 0755), 0);
        PowerOn(false, 8);
    }
    void TearDown() override {
        devices_.reset();
        (void)umount2(Mount().c_str(), MNT_DETACH);
    }
    std::string Mount() const { return std::string(directory_.path) + "/dev"; }
    std::string Backing(const std::string& name) const { return directory_.path + ("/" + name); }

    void PowerOn(bool norTiming, int64_t blocks) {
        devices_.reset();
        DevicesConfig config;
        config.norTiming = norTiming;
        config.opLogFile = Backing("log");
        for (const std::string name : {"mtd3", "mtd7"}) {
            (void)unlink(Backing(name).c_str());
            config.partitions.push_back(
                {name, Backing(name), static_cast<uint64_t>(blocks * kBlock)});
        }
        devices_ = std::make_unique<Devices>(config);
        devices_->OnWatchdogReset([this] { ++resets_; });
        Boot();
    }
    void Boot() {
        OpenFuse();
        ASSERT_TRUE(MountFuse(fuseFd_, Mount())) << strerror(errno);
        devices_->Attach(fuseFd_, ++boot_);
    }
    void OpenFuse() {
        devices_->Detach();
        (void)umount2(Mount().c_str(), MNT_DETACH);
        fuseFd_ = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        ASSERT_GE(fuseFd_, 0);
    }

    // Runs a client with no more open than it is given, a source descriptor as each target.
    pid_t Start(const char* client, const char* more = "",
                const std::vector<std::pair<int, int>>& descriptors = {}) {
        posix_spawn_file_actions_t actions;
        (void)posix_spawn_file_actions_init(&actions);
        for (const auto& [from, to] : descriptors) {
            (void)posix_spawn_file_actions_adddup2(&actions, from, to);
        }
        std::string words[] = {"vboard_devices_test", kClientWord, client, Mount(), more};
        char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                             words[3].data(), words[4].data(), nullptr};
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, arguments, environ), 0);
        (void)posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    // The client's line that failed, 0 for none; -1 when the client did not end in time.
    int Finish(pid_t pid) {
        const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        pollfd event{handle, POLLIN, 0};
        const bool ended = poll(&event, 1, 20000) == 1;
        (void)close(handle);
        if (!ended) {
            (void)kill(pid, SIGKILL);
            devices_->Detach();
        }
        int status = 0;
        (void)waitpid(pid, &status, 0);
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int Run(const char* client, const char* more = "") { return Finish(Start(client, more)); }
    template <typename Condition>
    static bool Await(Condition condition, std::chrono::milliseconds limit = 10s) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            (void)poll(nullptr, 0, 5);
        }
        return true;
    }

    static bool Waits(pid_t client, unsigned int request) {
        const std::string call = Contents("/proc/" + std::to_string(client) + "/syscall");
        char number[16];
        (void)snprintf(number, sizeof number, " 0x%x ", request);
        return call.find(number) != std::string::npos;
    }

    std::vector<nlohmann::json> Log(const std::string& device, const std::string& operation) const {
        std::vector<nlohmann::json> lines;
        std::ifstream in(Backing("log"));
        for (std::string line; std::getline(in, line);) {
            if (in.eof()) {
                break;  // a line still being written, of which only the first page is visible
            }
            auto entry = nlohmann::json::parse(line);
            if (entry["dev"] == device && entry["op"] == operation) {
                lines.push_back(std::move(entry));
            }
        }
        return lines;
    }

    Directory directory_;
    std::unique_ptr<Devices> devices_;
    std::atomic<int> resets_{0};
    int boot_ = 0;
    int fuseFd_ = -1;
};

TEST_F(Board, FlashAnswersTheCallsOfAWriter) {
    ASSERT_EQ(Run("writer"), 0);
    std::string expected(8 * kBlock, '\xFF');
    expected.replace(kBlock, kBlock, kBlock, 0x55);
    expected[kBlock + 17] = 0x50;
    expected.replace(8 * kBlock - 10, 10, 10, 0x55);
    EXPECT_TRUE(Contents(Backing("mtd3")) == expected);

    const auto writes = Log("mtd3", "write");
    ASSERT_EQ(writes.size(), 4U);  // one write(2), one operation
    EXPECT_EQ(writes[0]["off"], kBlock);
    EXPECT_EQ(writes[0]["len"], 2 * kBlock);
    EXPECT_EQ(writes[0]["result"], 2 * kBlock);
    EXPECT_EQ(writes[0]["boot"], 1);
    EXPECT_FALSE(writes[0].contains("bitsKept"));
    EXPECT_EQ(writes[1]["bitsKept"], 6);
    EXPECT_EQ(writes[1]["firstKept"], kBlock + 16);
    EXPECT_EQ(writes[3]["result"], -ENOSPC);
    EXPECT_EQ(Log("mtd3", "erase").size(), 3U);
    EXPECT_EQ(Log("mtd3", "ioctl:MEMGETINFO").size(), 1U);
    EXPECT_TRUE(Await([&] { return Log("mtd3", "release").size() == 2; }));
}

TEST_F(Board, WatchdogAnswersItsKeeperAndResetsWhenStarved) {
    ASSERT_EQ(Run("orderly keeper"), 0);
    ASSERT_TRUE(Await([&] { return !devices_->Watchdog().open; }));
    EXPECT_FALSE(devices_->Watchdog().armed);
    EXPECT_EQ(devices_->Watchdog().feeds, 3U);
    EXPECT_EQ(Log("watchdog", "ioctl:SETTIMEOUT").at(1)["value"], 1);

    (void)poll(nullptr, 0, 1100);  // longer than the time-out: the disarmed one must not fire
    EXPECT_EQ(resets_, 0);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(Run("dying keeper"), 0);
    ASSERT_TRUE(Await([&] { return resets_ == 1; }));
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, 1s);
    EXPECT_LT(took, 6s);
    EXPECT_EQ(Log("watchdog", "starved").size(), 1U);

    EXPECT_TRUE(devices_->Watchdog().armed);
    devices_->Detach();
    EXPECT_FALSE(devices_->Watchdog().armed);
    Boot();
    EXPECT_EQ(Run("orderly keeper"), 0);
    EXPECT_EQ(resets_, 1);
}

// The kernel numbers callers as the mounting process would: right when that is in our namespace,
// another process's number when it is not, and then nobody's memory may be read.
TEST_F(Board, ReadsArgumentsOfCallersInAPidNamespaceOfTheirOwn) {
    // What a stranger would be read for.
    int* own = IntAtFixedAddress();
    ASSERT_NE(own, nullptr);
    *own = WDIOS_DISABLECARD;
    for (const bool mountInside : {false, true}) {
        OpenFuse();
        int mounted[2];
        ASSERT_EQ(pipe2(mounted, O_CLOEXEC), 0);
        const pid_t client = Start("namespaced", mountInside ? "inside" : "outside",
                                   {{fuseFd_, kClientFuseFd}, {mounted[1], kClientReadyFd}});
        (void)close(mounted[1]);
        char byte = 0;
        EXPECT_EQ(read(mounted[0], &byte, 1), 1);
        (void)close(mounted[0]);
        devices_->Attach(fuseFd_, ++boot_);
        EXPECT_EQ(Finish(client), 0) << mountInside;
        EXPECT_EQ(devices_->Watchdog().armed, mountInside);
    }
    EXPECT_EQ(Log("watchdog", "ioctl:SETOPTIONS").at(0)["value"], WDIOS_DISABLECARD);
}

TEST_F(Board, FaultsReachTheCaller) {
    devices_->AddFault({"mtd3", "open", EACCES});
    devices_->AddFault({"mtd3", "ioctl", EIO});
    devices_->AddFault({"mtd3", "erase", EIO, 0, 1});
    devices_->AddFault({"mtd3", "write", 0, 4096});
    devices_->AddFault({"mtd3", "read", EIO});
    devices_->AddFault({"watchdog", "ioctl", ENODEV, 0, 0, 2});
    devices_->AddFault({"watchdog", "open", EBUSY});
    EXPECT_THROW(devices_->AddFault({"mtd9", "open", EIO}), std::runtime_error);
    EXPECT_EQ(Run("faulty"), 0);
}

TEST_F(Board, LogIsOneJsonObjectALineInTheOrderOfTime) {
    devices_->Note("reset", "button \"held\"\n\xFF");
    ASSERT_EQ(Run("open", "mtd7"), 0);
    Boot();
    devices_->Note("boot", "second");
    EXPECT_EQ(Log("board", "reset").at(0)["text"], "button \"held\"\n\xEF\xBF\xBD");
    EXPECT_EQ(Log("board", "boot").at(0)["boot"], 2);
    std::ifstream in(Backing("log"));
    std::string last;
    int lines = 0;
    for (std::string line; std::getline(in, line); ++lines) {
        const std::string time = line.substr(0, line.find(','));
        EXPECT_EQ(time.rfind('.'), time.size() - 7) << line;
        EXPECT_LE(std::make_pair(last.size(), last), std::make_pair(time.size(), time));
        last = time;
    }
    EXPECT_GE(lines, 3);
}

TEST_F(Board, AttachmentsLeaveNothingBehind) {
    const auto count = [](const char* directory) {
        const std::filesystem::directory_iterator entries(directory);
        return std::distance(begin(entries), end(entries));
    };
    const auto descriptors = count("/proc/self/fd");
    const auto threads = count("/proc/self/task");
    for (int i = 0; i < 20; ++i) {
        Boot();
        if (i % 2 == 0) {
            EXPECT_EQ(Run("open", "mtd3"), 0);
        }
    }
    EXPECT_EQ(count("/proc/self/fd"), descriptors);
    EXPECT_EQ(count("/proc/self/task"), threads);
    EXPECT_THROW(devices_->Attach(-1, 0), std::runtime_error);
    devices_->Detach();
    EXPECT_EQ(count("/proc/self/fd"), descriptors - 3);  // session, stop, alarm
    EXPECT_EQ(count("/proc/self/task"), threads - 3);    // server, chip, watchdog
}

TEST_F(Board, SlowFlashHoldsUpNeitherTheWatchdogNorTheReset) {
    PowerOn(true, 8);
    const auto begin = std::chrono::steady_clock::now();
    const pid_t first = Start("erase", "mtd3");
    const pid_t second = Start("erase", "mtd7");
    ASSERT_TRUE(
        Await([&] { return !Log("mtd3", "open").empty() && !Log("mtd7", "open").empty(); }));
    EXPECT_EQ(Run("feed"), 0);
    EXPECT_LT(Log("mtd3", "erase").size() + Log("mtd7", "erase").size(), 2U);
    EXPECT_EQ(Finish(first), 0);
    EXPECT_EQ(Finish(second), 0);
    // Sixteen blocks of one chip, one after the other.
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, 16 * 150ms);
    EXPECT_LT(took, 2 * 16 * 150ms);

    // Long enough that a reset in its midst is one however slow this machine is.
    PowerOn(true, 80);
    ASSERT_EQ(Run("program zero", "mtd3"), 0);
    const pid_t cut = Start("erase", "mtd3");
    // Its first block is done, so it is in the middle of the others.
    ASSERT_TRUE(Await([&] { return Contents(Backing("mtd3")).at(0) == '\xFF'; }));
    const pid_t waiting = Start("erase", "mtd7");
    ASSERT_TRUE(Await([&] { return Waits(waiting, MEMERASE); }));
    ASSERT_EQ(Run("feed"), 0);  // requests are taken in order, so the erase is waiting for the chip
    const auto reset = std::chrono::steady_clock::now();
    auto other = std::async(std::launch::async, [&] { devices_->Detach(); });
    devices_->Detach();
    other.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - reset, 5s);
    EXPECT_GT(Finish(cut), 0);
    EXPECT_GT(Finish(waiting), 0);
    EXPECT_EQ(Log("mtd3", "erase").at(1)["result"], -ENODEV);
    EXPECT_EQ(Log("mtd7", "erase").size(), 1U);  // the one that waited was not begun
    EXPECT_FALSE(devices_->Watchdog().armed);
    EXPECT_GT(Run("open", "mtd3"), 0);
}

}  // namespace

// The test program is its own client, as an executed one shares nothing with the serving threads.
int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], kClientWord) == 0) {
        // Past the leak checker, which cannot start its thread after unshare(CLONE_NEWPID).
        _exit(RunBoardClient(argv[2], argv[3], argv[4]));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
