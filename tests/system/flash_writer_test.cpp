// The flash writer on virtual NOR: what it writes and logs, and that it always ends in a reboot.
#include <csignal>

#include "tests/support/board.h"
#include "tests/support/wire.h"

using namespace kv_test;

namespace {

constexpr size_t kBlock = 65536;

// Small partitions keep the tests short. The boot loader's keep their sizes.
const Lines kLayout = {"--no-wifi", "--layout", "mtd3=256K,mtd4=192K,mtd5=256K,mtd6=128K,mtd7=64K"};

// Flashes one package after another on one board. Each run is a boot.
class FlashWriter : public testing::Test {
  protected:
    void SetUp() override { board_.Start(kLayout); }

    // Installs `package`, raises SIGUSR2 and waits for the next boot. Returns the run's messages
    // without the progress lines. "reboot -f" resets at once, so no message follows the last
    // entry's.
    Lines Flash(const std::string& package, const std::vector<Lines>& faults = {}) {
        EXPECT_TRUE(board_.WaitRecovery(boot_));
        if (!package.empty()) {
            WriteFile(board_.Path("param/package"), package);
            (void)board_.OnBoard("cp /param/package /tmp/upGradeFile.FLS");
        }
        for (const auto& fault : faults) {
            board_.Fault(fault);
        }
        board_.Signal(SIGUSR2);
        EXPECT_TRUE(board_.WaitBoot(boot_ + 1));
        EXPECT_EQ(board_.Reason(boot_ + 1).substr(0, 9), "reboot -f");
        return RunMessages(boot_++);
    }

    Lines RunMessages(int boot) const {
        Lines messages;
        bool begun = false;
        for (const std::string& message : board_.Messages(boot)) {
            begun = begun || message == "INFO KV_UPGRADE_Proc: Scalable partition:";
            // The Wi-Fi thread may log at any time.
            const bool writers = message.find(" KV_UPGRADE_") != std::string::npos ||
                                 message.find(" KV_FH_WDT_") != std::string::npos;
            if (begun && writers && message.find("64 Kibyte @") == std::string::npos) {
                messages.push_back(message);
            }
        }
        return messages;
    }

    // Whether `messages` contains `expected` in this order and without gaps.
    static testing::AssertionResult HasRun(const Lines& messages, const Lines& expected) {
        if (std::search(messages.begin(), messages.end(), expected.begin(), expected.end()) !=
            messages.end()) {
            return testing::AssertionSuccess();
        }
        testing::AssertionResult failure = testing::AssertionFailure() << "in this run:";
        for (const auto& message : messages) {
            failure << "\n  " << message;
        }
        return failure;
    }

    Board board_;
    int boot_ = 1;
};

std::string ErasedBehind(const std::string& bytes, size_t size) {
    return bytes + std::string(size - bytes.size(), '\xFF');
}

}  // namespace

TEST_F(FlashWriter, WritesEveryImageAndLogsIt) {
    const std::string kernel = Noise(100000, 1);
    const std::string rootfs = Noise(3 * kBlock, 2);
    const std::string boot = Noise(300 * 1024, 3);
    // "kern" selects nothing. "rootfs" fills its partition exactly. The boot loader comes last.
    const auto messages = Flash(BuildPackage(
        {{"kernel2", kernel}, {"kern", "skipped"}, {"rootfs.img", rootfs}, {"uboot", boot}}));
    // The chunk that ends an image includes the bytes that follow it.
    EXPECT_EQ(board_.Flash("mtd3"),
              ErasedBehind(kernel + ("skipped" + rootfs).substr(0, 2 * kBlock - kernel.size()),
                           4 * kBlock));
    EXPECT_EQ(board_.Flash("mtd4"), rootfs);
    EXPECT_EQ(board_.Flash("mtd0"), boot.substr(0, 4 * kBlock));
    EXPECT_EQ(board_.Flash("mtd1"), ErasedBehind(boot.substr(4 * kBlock), kBlock));
    EXPECT_EQ(board_.Flash("mtd2"), std::string(4 * kBlock, '\xFF'));

    EXPECT_EQ(messages[1], "INFO KV_UPGRADE_Proc: name: kernel, mtd: /dev/mtd3");
    EXPECT_EQ(messages[3], "INFO KV_UPGRADE_Proc: name:    app, mtd: /dev/mtd5");
    EXPECT_TRUE(HasRun(
        messages,
        {"DEBUG KV_UPGRADE_Proc: cmd:killall -9 cameraMain",
         "DEBUG KV_UPGRADE_Proc: cmd:killall -9 udhcpc", "INFO KV_UPGRADE_Proc: ic is PRT7K",
         "INFO KV_UPGRADE_Proc: sensorType is 38QX", "INFO KV_UPGRADE_Proc: file total len is 1",
         "INFO KV_UPGRADE_Proc: update file number : 4",
         "INFO KV_UPGRADE_Proc: fileNum: 0, fileName: kernel2, dataLen: 100000",
         "INFO KV_UPGRADE_Proc: upgrate mtd: /dev/mtd3, name: kernel, start...",
         "INFO KV_UPGRADE_ErasePartition: erase mtd: /dev/mtd3",
         "INFO KV_UPGRADE_ErasePartition: ", "INFO KV_UPGRADE_WritePartition: write mtd: /dev/mtd3",
         "INFO KV_UPGRADE_Proc: upgrate mtd: /dev/mtd3, name: kernel, end...",
         "INFO KV_UPGRADE_Proc: fileNum: 1, fileName: kern, dataLen: 7",
         "INFO KV_UPGRADE_Proc: fileNum: 2, fileName: rootfs.img, dataLen: 196608"}));
    EXPECT_TRUE(
        HasRun(messages, {"INFO KV_UPGRADE_EraseUbootPartition: erase mtd: /dev/mtd2 ",
                          "INFO KV_UPGRADE_EraseUbootPartition: ",
                          "INFO KV_UPGRADE_WriteUbootPartition: write mtd: /dev/mtd0 ",
                          "INFO KV_UPGRADE_WriteUbootPartition: write mtd: /dev/mtd1 ",
                          "INFO KV_UPGRADE_WriteUbootPartition: write mtd: /dev/mtd2 ",
                          "INFO KV_UPGRADE_Proc: upgrate mtd: /dev/mtd0, name: uboot, end..."}));
    const std::string trace = board_.Trace();
    for (const char* progress :
         {"Erase 64 Kibyte @ 10000 -- 25 % complete", "Erase 64 Kibyte @ 40000 -- 100 % complete",
          "Write 64 Kibyte @ 10000 -- 66 % complete", "Write 64 Kibyte @ 20000 -- 100 % complete",
          "Write 64 Kibyte @ 10000 -- 21 % complete", "Write 64 Kibyte @ b000 -- 100 % complete"}) {
        EXPECT_NE(trace.find(progress), std::string::npos) << progress;
    }
    for (const auto& operation : board_.Operations()) {
        EXPECT_EQ(operation.count("bitsKept"), 0U) << operation;
    }
}

TEST_F(FlashWriter, PackagesThatCannotBeReadEndInAReboot) {
    // Before the writer opens the package, it pauses twice for a second, runs "sync" and drops the
    // caches.
    board_.ReplaceCommand("sync", "echo synced");
    (void)board_.OnBoard(
        "touch /param/caches && mount --bind /param/caches /proc/sys/vm/drop_caches");
    ASSERT_TRUE(board_.WaitRecovery());
    const auto start = Clock::now();
    EXPECT_TRUE(HasRun(Flash(""), {"ERROR KV_UPGRADE_Proc: open /tmp/upGradeFile.FLS error"}));
    EXPECT_GT(SecondsSince(start), 2);
    EXPECT_EQ(ReadFile(board_.Path("param/caches")), "1\n");
    EXPECT_TRUE(Contains(board_.Console(1), "synced\n"));
    EXPECT_TRUE(
        HasRun(Flash("PRT7K"), {"ERROR KV_UPGRADE_Proc: read upgrate header error return is 5"}));
    EXPECT_TRUE(HasRun(Flash(BuildPackage({}, {"ANY", "ONE", 0, 0})),
                       {"INFO KV_UPGRADE_Proc: update file number : 0"}));
}

TEST_F(FlashWriter, BootLoaderThatOvershootsContinuesInTheNextDevice) {
    const std::string boot = Noise(300 * 1024, 14);
    const std::string app = Noise(3 * kBlock, 15);
    const std::string rest = (boot + app).substr(5 * kBlock);
    (void)Flash(BuildPackage({{"uboot", boot}, {"app", app}}));
    EXPECT_EQ(board_.Flash("mtd1"),
              boot.substr(4 * kBlock) + app.substr(0, 5 * kBlock - boot.size()));
    EXPECT_EQ(board_.Flash("mtd2"), ErasedBehind(rest, 4 * kBlock));
    EXPECT_EQ(board_.Flash("mtd5"), ErasedBehind(app, 4 * kBlock));
    // A boot loader that ends exactly at the end of a device leaves the next device erased.
    (void)Flash(BuildPackage({{"uboot", boot.substr(0, 4 * kBlock)}, {"app", app}}));
    EXPECT_EQ(board_.Flash("mtd0"), boot.substr(0, 4 * kBlock));
    EXPECT_EQ(board_.Flash("mtd1"), std::string(kBlock, '\xFF'));
}

TEST_F(FlashWriter, BadCheckCodeEndsTheEntries) {
    const std::string first = Noise(kBlock, 4);
    const auto messages = Flash(BuildPackage(
        {{"kernel", first}, {"rootfs\n\033[2J", Noise(100, 5), 74564}, {"app", Noise(100, 6)}}));
    EXPECT_TRUE(
        HasRun(messages, {"INFO KV_UPGRADE_Proc: fileNum: 1, fileName: rootfs??[2J, dataLen: 100",
                          "ERROR KV_UPGRADE_Proc: check code verify failed!!!, 74564"}));
    EXPECT_EQ(board_.Flash("mtd3"), ErasedBehind(first, 4 * kBlock));
    EXPECT_EQ(board_.Flash("mtd5"), std::string(4 * kBlock, '\xFF'));
}

TEST_F(FlashWriter, ImageLargerThanItsPartitionIsSkipped) {
    const std::string app = Noise(4 * kBlock, 7);
    const std::string region = Noise(9 * kBlock + 1, 8);
    const auto messages = Flash(
        BuildPackage({{"uboot", region}, {"rootfs", Noise(3 * kBlock + 1, 9)}, {"app", app}}));
    EXPECT_TRUE(
        HasRun(messages, {"ERROR KV_UPGRADE_Proc: update file is too big, /dev/mtd0 failed!!",
                          "INFO KV_UPGRADE_Proc: fileNum: 1, fileName: rootfs, dataLen: "
                          "196609"}));
    EXPECT_TRUE(
        HasRun(messages, {"ERROR KV_UPGRADE_Proc: update file is too big, /dev/mtd4 failed!!"}));
    EXPECT_EQ(board_.Flash("mtd4"), std::string(3 * kBlock, '\xFF'));
    EXPECT_EQ(board_.Flash("mtd5"), app);
}

TEST_F(FlashWriter, DeviceFailuresAreLoggedAndTheNextEntryIsWritten) {
    const std::string image = Noise(1000, 10);
    const std::string last = Noise(kBlock, 11);
    const struct {
        const char* name;
        std::vector<Lines> faults;
        Lines expected;
    } rows[] = {
        {"app",
         {{"mtd5", "open", "--errno", "EIO", "--count", "2"}},
         {"ERROR KV_UPGRADE_GetPartitionSize: open partiton:/dev/mtd5 fail!!!",
          "INFO KV_UPGRADE_ErasePartition: erase mtd: /dev/mtd5",
          "ERROR KV_UPGRADE_ErasePartition: open partiton:/dev/mtd5 fail!!!",
          "ERROR KV_UPGRADE_Proc: erase /dev/mtd5 failed!!",
          "INFO KV_UPGRADE_Proc: fileNum: 1, fileName: var, dataLen: 65536"}},
        {"app",
         {{"mtd5", "ioctl", "--errno", "EIO", "--count", "2"}},
         {"ERROR KV_UPGRADE_GetPartitionSize: ioctl memgetinfo fail!!!",
          "INFO KV_UPGRADE_ErasePartition: erase mtd: /dev/mtd5",
          "ERROR KV_UPGRADE_ErasePartition: ioctl memgetinfo fail!!!",
          "ERROR KV_UPGRADE_Proc: erase /dev/mtd5 failed!!"}},
        {"app",
         {{"mtd5", "erase", "--errno", "EIO", "--skip", "1"}},
         {"ERROR KV_UPGRADE_ErasePartition: ioctl MEMERASE fail!!!",
          "ERROR KV_UPGRADE_Proc: erase /dev/mtd5 failed!!"}},
        {"app",
         {{"mtd5", "open", "--errno", "EIO", "--skip", "2"}},
         {"INFO KV_UPGRADE_WritePartition: write mtd: /dev/mtd5",
          "ERROR KV_UPGRADE_WritePartition: open mtd error ",
          "ERROR KV_UPGRADE_Proc: write data to /dev/mtd5 failed!!!"}},
        {"uboot",
         {{"mtd1", "open", "--errno", "EIO", "--count", "2"}},
         {"ERROR KV_UPGRADE_GetUbootPartitionSize: /dev/mtd1 open partiton fail!!!",
          "INFO KV_UPGRADE_EraseUbootPartition: erase mtd: /dev/mtd0 ",
          "INFO KV_UPGRADE_EraseUbootPartition: ",
          "INFO KV_UPGRADE_EraseUbootPartition: erase mtd: /dev/mtd1 ",
          "ERROR KV_UPGRADE_EraseUbootPartition: /dev/mtd1 open partiton fail!!!",
          "ERROR KV_UPGRADE_Proc: erase /dev/mtd0 failed!!"}},
        {"uboot",
         {{"mtd2", "ioctl", "--errno", "EIO", "--skip", "2"}},
         {"INFO KV_UPGRADE_WriteUbootPartition: write mtd: /dev/mtd2 ",
          "ERROR KV_UPGRADE_WriteUbootPartition: /dev/mtd2 ioctl memgetinfo fail!!!",
          "ERROR KV_UPGRADE_Proc: write data to /dev/mtd0 failed!!!"}},
    };
    for (const auto& row : rows) {
        const auto messages = Flash(BuildPackage({{row.name, image}, {"var", last}}), row.faults);
        EXPECT_TRUE(HasRun(messages, row.expected));
        EXPECT_EQ(board_.Flash("mtd6"), ErasedBehind(last, 2 * kBlock));
    }
}

TEST_F(FlashWriter, ShortAndFailedWritesCountAsReturned) {
    const std::string image = Noise(2 * kBlock, 12);
    (void)Flash(BuildPackage({{"app", image}}), {{"mtd5", "write", "--short", "4096"}});
    // 4096 bytes of the first chunk, then the second chunk, and no third.
    EXPECT_NE(board_.Trace(1).find("Write 64 Kibyte @ 1000 -- 3 % complete"), std::string::npos);
    EXPECT_EQ(board_.Flash("mtd5"),
              ErasedBehind(image.substr(0, 4096) + image.substr(kBlock), 4 * kBlock));
    (void)Flash(BuildPackage({{"app", image}}), {{"mtd5", "write", "--errno", "EIO"}});
    EXPECT_NE(board_.Trace(2).find("Write 64 Kibyte @ ffffffff -- 100 % complete"),
              std::string::npos);
    EXPECT_EQ(board_.Flash("mtd5"), std::string(4 * kBlock, '\xFF'));
    // The second of three chunks fails. The third goes to the offset that the -1 left.
    const std::string three = image + Noise(kBlock, 16);
    (void)Flash(BuildPackage({{"app", three}}),
                {{"mtd5", "write", "--errno", "EIO", "--skip", "1", "--count", "1"}});
    EXPECT_EQ(board_.Flash("mtd5"),
              ErasedBehind(three.substr(0, kBlock - 1) +
                               static_cast<char>(three[kBlock - 1] & three[2 * kBlock]) +
                               three.substr(2 * kBlock + 1),
                           4 * kBlock));
}

TEST(RealNor, DelaysNeitherTheFeederNorAReset) {
    constexpr size_t kBlocks = 128;
    const std::string layout = "mtd3=8192K,mtd4=192K,mtd5=256K";
    const std::string old = Noise(kBlocks * kBlock, 17);
    Board board;
    WriteFile(board.Path("old"), old);
    (void)board.Do({"flash", "write", "mtd3", board.Path("old"), "--layout", layout});
    board.StartRecovery({"--no-wifi", "--nor-timing", "--layout", layout});
    const auto flash = [&board](const char* name, size_t blocks) {
        WriteFile(board.Path("param/package"), BuildPackage({{name, Noise(blocks * kBlock, 13)}}));
        (void)board.OnBoard("cp /param/package /tmp/upGradeFile.FLS");
        board.Signal(SIGUSR2);
    };
    const auto start = Clock::now();
    flash("app", 4);
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_GT(SecondsSince(start), 4 * 0.15) << "the time that four blocks take to erase";
    board.ExpectFed();
    ASSERT_TRUE(board.WaitRecovery(2));
    flash("kernel", 1);
    // One block is erased. The last one is blank 19 s later, and the feeder does not wait for it.
    ASSERT_TRUE(board.WaitTrace("Erase 64 Kibyte @ 10000 -- ", 2));
    EXPECT_TRUE(board.WaitFeeds(1));
    (void)board.Do({"reset"});
    EXPECT_EQ(board.Reason(3), "reset\n");
    const size_t last = (kBlocks - 1) * kBlock;
    EXPECT_TRUE(board.Flash("mtd3").substr(last) == old.substr(last));
    ASSERT_TRUE(board.WaitRecovery(3));
}

class RebootCommand : public FlashWriter {
  protected:
    void SetUp() override {
        Lines options = kLayout;
        options.insert(options.end(), {"--speed", "10"});
        board_.Start(options);
    }
};

TEST_F(RebootCommand, LeavesTheResetToTheWatchdogWhenItFailsOrHangs) {
    for (const char* const fault : {"fail", "hang"}) {
        SCOPED_TRACE(fault);
        ASSERT_TRUE(board_.WaitRecovery(boot_));
        board_.Fault({"reboot", fault});
        // Looked up once, because the reset is only seconds away.
        const pid_t program = board_.ProgramPid();
        (void)kill(program, SIGUSR2);
        // A second request waits until the first has ended. It then finds a device that is about to
        // be reset.
        ASSERT_TRUE(board_.WaitTrace("Scalable partition:", boot_));
        (void)kill(program, SIGUSR2);
        ASSERT_TRUE(board_.WaitBoot(boot_ + 1));
        EXPECT_EQ(board_.Reason(boot_ + 1).substr(0, 8), "watchdog");
        const Lines messages = RunMessages(boot_++);
        const Lines expected = {"ERROR KV_UPGRADE_Proc: open /tmp/upGradeFile.FLS error",
                                "ERROR KV_UPGRADE_Reboot: do reboot failed!!!",
                                "INFO KV_FH_WDT_Reboot: Start to stop feeding the dog!",
                                "DEBUG KV_FH_WDT_Reboot: Wait for the watchdog to restart!"};
        EXPECT_TRUE(HasRun(messages, expected));
        EXPECT_EQ(messages.back(), expected.back());
    }
}
