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
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "vboard/devices/faults.h"
#include "vboard/devices/nor_flash.h"
#include "vboard/devices/watchdog_timer.h"

using namespace vboard;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kBlock = 65536;

std::string Contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Directory {
    Directory() { EXPECT_NE(mkdtemp(path), nullptr); }
    char path[32] = "/tmp/vboard_XXXXXX";
};

// ---- models ----

TEST(NorFlash, ClearsBitsOnProgramAndSetsThemOnErase) {
    const std::string file = std::string(Directory().path) + "/nor";
    NorFlash flash(file, 2 * kBlock, kBlock);
    EXPECT_EQ(Contents(file), std::string(2 * kBlock, '\xFF'));

    EXPECT_EQ(flash.Program(kBlock - 1, "\x0F\xF0", 2).result, 2);
    const ProgramResult again = flash.Program(kBlock - 2, "\xFF\x3C\x3C", 3);
    EXPECT_EQ(again.result, 3);
    EXPECT_EQ(again.bitsKept, 4U);  // 0x30 of the first and 0x0C of the second byte
    EXPECT_EQ(again.firstKept, kBlock - 1U);
    EXPECT_EQ(Contents(file).substr(kBlock - 2, 4), "\xFF\x0C\x30\xFF");

    NorFlash reopened(file, 2 * kBlock, kBlock);
    EXPECT_EQ(reopened.Erase(kBlock, kBlock), 0);
    EXPECT_EQ(Contents(file).substr(kBlock - 2, 4), "\xFF\x0C\xFF\xFF");
}

TEST(NorFlash, KeepsToItsEndAndItsBlocks) {
    const std::string file = std::string(Directory().path) + "/nor";
    NorFlash flash(file, 2 * kBlock, kBlock);
    char buffer[8] = {};
    EXPECT_EQ(flash.Program(2 * kBlock - 3, "abcdef", 6).result, 3);
    EXPECT_EQ(flash.Program(2 * kBlock, "a", 1).result, -ENOSPC);
    EXPECT_EQ(flash.Read(2 * kBlock - 3, buffer, 8), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(flash.Read(2 * kBlock, buffer, 8), 0);

    const std::pair<uint64_t, uint64_t> refused[] = {
        {1, kBlock}, {0, kBlock - 1}, {0, 3 * kBlock}, {2 * kBlock, kBlock}, {kBlock, ~0U}};
    for (const auto& [start, length] : refused) {
        EXPECT_EQ(flash.Erase(start, length), -EINVAL) << start << " " << length;
    }
    EXPECT_EQ(Contents(file).substr(2 * kBlock - 3), "abc");

    EXPECT_THROW(NorFlash(file, kBlock, kBlock), std::runtime_error);  // the file is larger
    EXPECT_THROW(NorFlash(file + "2", kBlock + 1, kBlock), std::runtime_error);
    EXPECT_THROW(NorFlash("/nowhere/nor", kBlock, kBlock), std::runtime_error);
}

TEST(NorFlash, TakesTheChipsTimeAndCanBeCutShort) {
    const std::string file = std::string(Directory().path) + "/nor";
    NorFlash flash(file, 2 * kBlock, kBlock);
    int steps = 0;
    std::chrono::microseconds busy{0};
    const BusyWait powerFailsAtStep3 = [&](std::chrono::microseconds step) {
        busy += step;
        return ++steps < 3;
    };
    // 100 … 899 touches pages 0 … 3; the power fails in page 2.
    EXPECT_EQ(flash.Program(100, std::string(800, 'x').data(), 800, powerFailsAtStep3).result,
              -ENODEV);
    EXPECT_EQ(busy, 3 * kNorPageProgram);
    EXPECT_EQ(Contents(file).substr(0, 600),
              std::string(100, '\xFF') + std::string(412, 'x') + std::string(88, '\xFF'));

    const std::string zeros(2 * kBlock, '\0');
    ASSERT_EQ(flash.Program(0, zeros.data(), zeros.size()).result, 2 * kBlock);
    steps = 1;
    busy = 0us;
    EXPECT_EQ(flash.Erase(0, 2 * kBlock, powerFailsAtStep3), -ENODEV);
    EXPECT_EQ(busy, 300ms);
    EXPECT_EQ(Contents(file), std::string(kBlock * 3 / 2, '\xFF') + std::string(kBlock / 2, '\0'));
}

class WatchdogTimerTest : public ::testing::Test {
  protected:
    WatchdogTimer::Time At(double seconds) const {
        return WatchdogTimer::Time() + 1h +
               std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::duration<double>(seconds));
    }
    WatchdogTimer timer_;
};

TEST_F(WatchdogTimerTest, StarvesUnlessFed) {
    EXPECT_FALSE(timer_.Starved(At(1000)));
    EXPECT_EQ(timer_.Open(At(0)), 0);
    EXPECT_EQ(timer_.Open(At(0)), -EBUSY);
    EXPECT_EQ(timer_.Deadline(), At(60));
    for (const int refused : {0, -1, kWatchdogMaxTimeout + 1}) {
        EXPECT_EQ(timer_.SetTimeout(refused, At(1)), -EINVAL);
    }
    EXPECT_EQ(timer_.SetTimeout(30, At(10)), 0);  // feeds
    EXPECT_EQ(timer_.Deadline(), At(40));
    timer_.KeepAlive(At(20));
    timer_.Write("x", 1, At(30));
    timer_.Write("V", 0, At(35));
    EXPECT_EQ(timer_.TimeLeft(At(40.5)), 19);
    EXPECT_EQ(timer_.Status(At(40.5)).feeds, 3U);
    EXPECT_DOUBLE_EQ(timer_.Status(At(40.5)).secondsSinceFeed, 10.5);
    EXPECT_FALSE(timer_.Starved(At(59.999)));

    // Too late for every rescue, even if nobody has looked at the time since.
    timer_.KeepAlive(At(60));
    (void)timer_.SetTimeout(100, At(60));
    (void)timer_.SetOptions(WDIOS_DISABLECARD, At(60));
    EXPECT_TRUE(timer_.Starved(At(60)));
    EXPECT_EQ(timer_.Deadline(), At(60));
    timer_.PowerOn();
    EXPECT_FALSE(timer_.Starved(At(1000)));
    EXPECT_EQ(timer_.Timeout(), 60);
    EXPECT_EQ(timer_.Status(At(1000)).feeds, 3U);
}

TEST_F(WatchdogTimerTest, DisarmsOnlyWhenAsked) {
    EXPECT_EQ(timer_.SetOptions(0, At(0)), -EINVAL);
    EXPECT_EQ(timer_.Open(At(0)), 0);
    timer_.Write("V", 1, At(1));
    timer_.Write("x", 1, At(1));  // takes the earlier promise back
    timer_.Release(At(2));
    EXPECT_EQ(timer_.Deadline(), At(62));
    EXPECT_EQ(timer_.Open(At(3)), 0);  // no feed: it was running
    EXPECT_EQ(timer_.Deadline(), At(62));
    timer_.Write("xVx", 3, At(4));
    timer_.Release(At(5));
    EXPECT_FALSE(timer_.Deadline().has_value());

    EXPECT_EQ(timer_.Open(At(10)), 0);
    EXPECT_EQ(timer_.SetOptions(WDIOS_DISABLECARD, At(11)), 0);
    EXPECT_FALSE(timer_.Deadline().has_value());
    timer_.KeepAlive(At(12));  // of no effect while disarmed
    EXPECT_FALSE(timer_.Starved(At(1000)));
    EXPECT_EQ(timer_.SetOptions(WDIOS_ENABLECARD, At(1000)), 0);
    EXPECT_EQ(timer_.Deadline(), At(1060));
}

TEST(FaultsTest, CountEachForItself) {
    Faults faults;
    faults.Add({"mtd3", "write", EIO, 0, 2, 1});
    faults.Add({"mtd3", "write", 0, 100, 1, 2});
    const auto next = [&] {
        const auto fault = faults.Take("mtd3", "write");
        return fault ? std::make_pair(fault->error, fault->shortBytes) : std::make_pair(-1, 0U);
    };
    EXPECT_EQ(next(), std::make_pair(-1, 0U));
    EXPECT_FALSE(faults.Take("mtd4", "write") || faults.Take("mtd3", "read"));
    EXPECT_EQ(next(), std::make_pair(0, 100U));
    EXPECT_EQ(next(), std::make_pair(EIO, 0U));
    EXPECT_EQ(next(), std::make_pair(0, 100U));
    EXPECT_EQ(next(), std::make_pair(-1, 0U));
    EXPECT_THROW(faults.Add({"mtd3", "wirte", EIO}), std::runtime_error);
    EXPECT_THROW(faults.Add({"mtd3", "erase", 0}), std::runtime_error);
}

// ---- served over FUSE, driven from processes of their own ----

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

    const pid_t cut = Start(erase("mtd3"));
    const pid_t waiting = Start(erase("mtd7"));
    ASSERT_TRUE(
        Await([&] { return Log("mtd3", "open").size() == 2 && Log("mtd7", "open").size() == 2; }));
    const auto reset = std::chrono::steady_clock::now();
    auto other = std::async(std::launch::async, [&] { devices_->Detach(); });
    devices_->Detach();
    other.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - reset, 1s);
    EXPECT_GT(Finish(cut), 0);
    EXPECT_GT(Finish(waiting), 0);
    EXPECT_FALSE(devices_->Watchdog().armed);
    EXPECT_EQ(Run([&] { return open(Dev("mtd3").c_str(), O_RDWR) < 0 ? 0 : __LINE__; }), 0);
}

}  // namespace
