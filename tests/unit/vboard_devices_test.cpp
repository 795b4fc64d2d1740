#include "vboard/devices/devices.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <mtd/mtd-user.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
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

using namespace vboard;
using namespace std::chrono_literals;

namespace {

constexpr int64_t kBlock = 65536;

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

// In a client: the process ends with the number of the line that went wrong.
#define CLIENT_CHECK(condition) \
    do {                        \
        if (!(condition)) {     \
            return __LINE__;    \
        }                       \
    } while (false)

class Board : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(Mount().c_str(), 0755), 0);
        PowerOn(false);
    }
    void TearDown() override {
        devices_.reset();
        (void)umount2(Mount().c_str(), MNT_DETACH);
    }
    std::string Mount() const { return std::string(directory_.path) + "/dev"; }
    std::string Dev(const std::string& name) const { return Mount() + "/" + name; }
    std::string Backing(const std::string& name) const { return directory_.path + ("/" + name); }

    void PowerOn(bool norTiming) {
        DevicesConfig config;
        config.norTiming = norTiming;
        config.opLogFile = Backing("log");
        for (const std::string name : {"mtd3", "mtd7"}) {
            config.partitions.push_back({name, Backing(name), 8 * kBlock});
        }
        devices_ = std::make_unique<Devices>(config);
        devices_->OnWatchdogReset([this] { ++resets_; });
        Boot();
    }
    void Boot() {
        devices_->Detach();
        (void)umount2(Mount().c_str(), MNT_DETACH);
        fuseFd_ = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        ASSERT_GE(fuseFd_, 0);
        const std::string options =
            "fd=" + std::to_string(fuseFd_) + ",rootmode=40000,user_id=0,group_id=0";
        ASSERT_EQ(mount("fuse", Mount().c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()), 0)
            << strerror(errno);
        devices_->Attach(fuseFd_, ++boot_);
    }

    // A client must not keep the connection open: it would wait for itself.
    template <typename Body>
    pid_t Start(Body body) {
        const pid_t pid = fork();
        if (pid == 0) {
            (void)close(fuseFd_);
            _exit(body() % 256);
        }
        return pid;
    }
    // The line that failed (modulo 256), 0 for none; -1 when the client did not end in time.
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
    template <typename Body>
    int Run(Body body) {
        return Finish(Start(body));
    }
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

    std::vector<nlohmann::json> Log(const std::string& device, const std::string& operation) const {
        std::vector<nlohmann::json> lines;
        std::ifstream in(Backing("log"));
        for (std::string line; std::getline(in, line);) {
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
    const auto writer = [&] {
        struct stat status {};
        CLIENT_CHECK(stat(Dev("mtd3").c_str(), &status) == 0 && status.st_size == 8 * kBlock);
        CLIENT_CHECK(open(Dev("mtd9").c_str(), O_RDWR) < 0 && errno == ENOENT);
        // O_TRUNC, because a shell's redirection onto a flash device brings it.
        const int fd = open(Dev("mtd3").c_str(), O_RDWR | O_TRUNC);
        CLIENT_CHECK(fd >= 0 && ftruncate(fd, 0) < 0);
        CLIENT_CHECK(fstat(fd, &status) == 0 && status.st_size == 8 * kBlock);
        mtd_info_user info{};
        CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) == 0);
        CLIENT_CHECK(info.type == MTD_NORFLASH && info.size == 8 * kBlock &&
                     info.erasesize == kBlock && info.writesize == 1);
        int regions = -1;
        CLIENT_CHECK(ioctl(fd, MEMGETREGIONCOUNT, &regions) == 0 && regions == 0);
        CLIENT_CHECK(ioctl(fd, MEMUNLOCK, &info) < 0 && errno == ENOTTY);

        std::vector<char> chunk(2 * kBlock, 0x55);
        CLIENT_CHECK(lseek(fd, kBlock, SEEK_SET) == kBlock);
        CLIENT_CHECK(write(fd, chunk.data(), chunk.size()) == 2 * kBlock);
        CLIENT_CHECK(lseek(fd, kBlock + 16, SEEK_SET) == kBlock + 16);
        CLIENT_CHECK(write(fd, "\xFF\xF0", 2) == 2);
        char back[4] = {};
        CLIENT_CHECK(pread(fd, back, 4, kBlock + 15) == 4);
        CLIENT_CHECK(memcmp(back, "\x55\x55\x50\x55", 4) == 0);
        erase_info_user erase{2 * kBlock, kBlock};
        CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) == 0);
        erase.start = 1;
        CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) < 0 && errno == EINVAL);

        CLIENT_CHECK(pwrite(fd, chunk.data(), 100, 8 * kBlock - 10) == 10);
        CLIENT_CHECK(pwrite(fd, chunk.data(), 100, 8 * kBlock) < 0 && errno == ENOSPC);
        CLIENT_CHECK(pread(fd, back, 4, 8 * kBlock) == 0);
        const int readOnly = open(Dev("mtd3").c_str(), O_RDONLY);
        erase.start = 0;
        CLIENT_CHECK(ioctl(readOnly, MEMERASE, &erase) < 0 && errno == EPERM);
        return 0;
    };
    ASSERT_EQ(Run(writer), 0);
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
    const auto orderly = [&] {
        const int fd = open(Dev("watchdog").c_str(), O_WRONLY);
        CLIENT_CHECK(fd >= 0);
        CLIENT_CHECK(open(Dev("watchdog").c_str(), O_WRONLY) < 0 && errno == EBUSY);
        int value = 0;
        CLIENT_CHECK(ioctl(fd, WDIOC_GETTIMEOUT, &value) == 0 && value == 60);
        value = 0;
        CLIENT_CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &value) < 0 && errno == EINVAL);
        value = 1;
        CLIENT_CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &value) == 0 && value == 1);
        CLIENT_CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
        value = 30;
        CLIENT_CHECK(ioctl(fd, WDIOC_KEEPALIVE, &value) == 0 && value == 30);
        CLIENT_CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &value) == 0 && value <= 1);
        watchdog_info info{};
        CLIENT_CHECK(ioctl(fd, WDIOC_GETSUPPORT, &info) == 0);
        CLIENT_CHECK((info.options & WDIOF_MAGICCLOSE) != 0);
        CLIENT_CHECK(lseek(fd, 0, SEEK_SET) < 0 && errno == ESPIPE);
        CLIENT_CHECK(ioctl(fd, WDIOC_SETOPTIONS, 0) < 0 && errno == EFAULT);
        value = WDIOS_DISABLECARD;
        CLIENT_CHECK(ioctl(fd, WDIOC_SETOPTIONS, &value) == 0 && value == WDIOS_DISABLECARD);
        return 0;
    };
    ASSERT_EQ(Run(orderly), 0);
    ASSERT_TRUE(Await([&] { return !devices_->Watchdog().open; }));
    EXPECT_FALSE(devices_->Watchdog().armed);
    EXPECT_EQ(devices_->Watchdog().feeds, 3U);
    EXPECT_EQ(Log("watchdog", "ioctl:SETTIMEOUT").at(1)["value"], 1);

    const auto dies = [&] {
        // At once after a close, as a restarted keeper does.
        for (int i = 0; i < 20; ++i) {
            const int fd = open(Dev("watchdog").c_str(), O_WRONLY);
            CLIENT_CHECK(fd >= 0 && write(fd, "V", 1) == 1 && close(fd) == 0);
        }
        const int fd = open(Dev("watchdog").c_str(), O_WRONLY);
        int value = 1;
        CLIENT_CHECK(fd >= 0 && ioctl(fd, WDIOC_SETTIMEOUT, &value) == 0);
        return 0;
    };
    (void)poll(nullptr, 0, 1100);  // longer than the time-out: the disarmed one must not fire
    EXPECT_EQ(resets_, 0);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(Run(dies), 0);
    ASSERT_TRUE(Await([&] { return resets_ == 1; }));
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, 1s);
    EXPECT_LT(took, 6s);
    EXPECT_EQ(Log("watchdog", "starved").size(), 1U);

    Boot();
    EXPECT_FALSE(devices_->Watchdog().armed);
    EXPECT_EQ(Run(orderly), 0);
    EXPECT_EQ(resets_, 1);
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
    const auto client = [&] {
        CLIENT_CHECK(open(Dev("mtd3").c_str(), O_RDWR) < 0 && errno == EACCES);
        const int fd = open(Dev("mtd3").c_str(), O_RDWR);
        mtd_info_user info{};
        erase_info_user erase{0, kBlock};
        CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) == 0);
        CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) < 0 && errno == EIO);
        CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) < 0 && errno == EIO);
        CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) == 0);
        const std::vector<char> chunk(kBlock, 0);
        CLIENT_CHECK(write(fd, chunk.data(), kBlock) == 4096);
        CLIENT_CHECK(lseek(fd, 0, SEEK_CUR) == 4096);
        char byte = 1;
        CLIENT_CHECK(pread(fd, &byte, 1, 0) < 0 && errno == EIO);
        CLIENT_CHECK(pread(fd, &byte, 1, 4095) == 1 && byte == 0);
        CLIENT_CHECK(pread(fd, &byte, 1, 4096) == 1 && byte == '\xFF');
        CLIENT_CHECK(open(Dev("watchdog").c_str(), O_WRONLY) < 0 && errno == EBUSY);
        const int dog = open(Dev("watchdog").c_str(), O_WRONLY);
        int value = 30;
        CLIENT_CHECK(ioctl(dog, WDIOC_SETTIMEOUT, &value) < 0 && errno == ENODEV);
        CLIENT_CHECK(ioctl(dog, WDIOC_KEEPALIVE, 0) < 0 && errno == ENODEV);
        CLIENT_CHECK(ioctl(dog, WDIOC_KEEPALIVE, 0) == 0);
        return 0;
    };
    EXPECT_EQ(Run(client), 0);
}

TEST_F(Board, LogIsOneJsonObjectALineInTheOrderOfTime) {
    devices_->Note("reset", "button \"held\"\n\xFF");
    ASSERT_EQ(Run([&] { return open(Dev("mtd7").c_str(), O_RDONLY) < 0 ? __LINE__ : 0; }), 0);
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

TEST_F(Board, SlowFlashHoldsUpNeitherTheWatchdogNorTheReset) {
    PowerOn(true);
    const auto erase = [&](const char* name) {
        return [this, name] {
            const int fd = open(Dev(name).c_str(), O_RDWR);
            erase_info_user all{0, 8 * kBlock};
            CLIENT_CHECK(ioctl(fd, MEMERASE, &all) == 0);
            return 0;
        };
    };
    const auto feed = [&] {
        const int fd = open(Dev("watchdog").c_str(), O_WRONLY);
        CLIENT_CHECK(fd >= 0);
        for (int i = 0; i < 20; ++i) {
            CLIENT_CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
        }
        CLIENT_CHECK(write(fd, "V", 1) == 1);
        return 0;
    };
    const auto begin = std::chrono::steady_clock::now();
    const pid_t first = Start(erase("mtd3"));
    const pid_t second = Start(erase("mtd7"));
    ASSERT_TRUE(
        Await([&] { return !Log("mtd3", "open").empty() && !Log("mtd7", "open").empty(); }));
    EXPECT_EQ(Run(feed), 0);
    EXPECT_LT(Log("mtd3", "erase").size() + Log("mtd7", "erase").size(), 2U);
    EXPECT_EQ(Finish(first), 0);
    EXPECT_EQ(Finish(second), 0);
    // Sixteen blocks of one chip, one after the other.
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, 16 * 150ms);
    EXPECT_LT(took, 2 * 16 * 150ms);

    const auto firstByte = [&] { return Contents(Backing("mtd3")).at(0); };
    const pid_t cut = Start([&] {
        const int fd = open(Dev("mtd3").c_str(), O_RDWR);
        CLIENT_CHECK(write(fd, "", 1) == 1);
        return erase("mtd3")();
    });
    ASSERT_TRUE(Await([&] { return firstByte() == '\0'; }));
    ASSERT_TRUE(Await([&] { return firstByte() == '\xFF'; }));  // the first block is done
    const pid_t waiting = Start(erase("mtd7"));
    ASSERT_TRUE(Await([&] { return Log("mtd7", "open").size() == 2; }));
    const auto reset = std::chrono::steady_clock::now();
    auto other = std::async(std::launch::async, [&] { devices_->Detach(); });
    devices_->Detach();
    other.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - reset, 1s);
    EXPECT_GT(Finish(cut), 0);
    EXPECT_GT(Finish(waiting), 0);
    EXPECT_EQ(Log("mtd3", "erase").at(1)["result"], -ENODEV);
    EXPECT_FALSE(devices_->Watchdog().armed);
    EXPECT_EQ(Run([&] { return open(Dev("mtd3").c_str(), O_RDWR) < 0 ? 0 : __LINE__; }), 0);
}

}  // namespace
