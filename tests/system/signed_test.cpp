// Signed packages on a device: the program that trusts two keys, and the one that trusts anybody.
#include <csignal>

#include "tests/support/board.h"
#include "tests/support/wire.h"

using namespace kv_test;

namespace {

const Lines kLayout = {"--no-wifi", "--layout", "mtd3=256K,mtd4=192K,mtd5=256K,mtd6=128K,mtd7=64K"};
const std::string kKeys = KV_TEST_KEYS;

class SignedPackages : public testing::Test {
  protected:
    SignedPackages() {
        WriteFile(board_.Path("app.img"), Noise(100000, 1));
        WriteFile(board_.Path("uboot.img"), Noise(300 * 1024, 2));
        Pack("unsigned", {});
        Pack("signed", {"--sign", kKeys + "/two.key"});
        Pack("foreign", {"--sign", kKeys + "/other.key"});
    }
    void Pack(const std::string& name, const Lines& options) {
        Lines command = {BinDir() + "/kvtool", "pack", "-o", board_.Path(name)};
        command.insert(command.end(), options.begin(), options.end());
        command.push_back("app=" + board_.Path("app.img"));
        command.push_back("uboot=" + board_.Path("uboot.img"));
        const CommandResult packed = RunCommand(command);
        ASSERT_EQ(packed.status, 0) << packed.output;
    }
    int Upgrade(const std::string& package) {
        return board_
            .OnBench(BinDir() + "/kvtool upgrade --no-follow " + kBoardAddress + " " +
                     board_.Path(package))
            .status;
    }
    std::string Flash() {
        std::string bytes;
        for (const char* const device : {"mtd0", "mtd1", "mtd2", "mtd5"}) {
            bytes += board_.Flash(device);
        }
        return bytes;
    }
    // Errors of the upgrade. The Wi-Fi thread may log its own at any time.
    Lines Errors(int boot) {
        Lines errors;
        for (const std::string& message : board_.Messages(boot)) {
            if (message.rfind("ERROR ", 0) == 0 && message.find("WIFI") == std::string::npos &&
                message.find("wifi") == std::string::npos) {
                errors.push_back(message);
            }
        }
        return errors;
    }

    Board board_;
};

}  // namespace

TEST_F(SignedPackages, AreLikeAnyOtherForAProgramWithoutKeys) {
    board_.StartRecovery(kLayout);
    const std::string empty = Flash();
    EXPECT_EQ(Upgrade("signed"), 0);
    ASSERT_TRUE(board_.WaitRecovery(2));
    const std::string flash = Flash();
    EXPECT_FALSE(empty == flash);
    EXPECT_EQ(Upgrade("unsigned"), 0);
    ASSERT_TRUE(board_.WaitRecovery(3));
    EXPECT_TRUE(flash == Flash()) << "the signature changed what is flashed";
}

TEST_F(SignedPackages, AreAllThatAProgramWithKeysAccepts) {
    board_.Start(kLayout, {KV_SIGNED_PROGRAM});
    int boot = 1;
    const std::string empty = Flash();
    const Lines refusal = {"ERROR __KV_KorvanUpgradeRead: signature check fail!",
                           "ERROR __KV_KorvanUpgradeRead: upgrade failed,restart system now ..."};
    for (const char* const package : {"unsigned", "foreign"}) {
        ASSERT_TRUE(board_.WaitRecovery(boot));
        EXPECT_EQ(Upgrade(package), 8);
        ASSERT_TRUE(board_.WaitBoot(++boot));
        EXPECT_EQ(board_.Reason(boot), "reboot\n");
        EXPECT_EQ(Errors(boot - 1), refusal);
    }
    // A package that reaches the flash writer in another way.
    ASSERT_TRUE(board_.WaitRecovery(boot));
    WriteFile(board_.Path("param/package"), ReadFile(board_.Path("unsigned")));
    (void)board_.OnBoard("cp /param/package /tmp/upGradeFile.FLS");
    board_.Signal(SIGUSR2);
    ASSERT_TRUE(board_.WaitBoot(++boot));
    EXPECT_EQ(board_.Reason(boot).substr(0, 9), "reboot -f");
    EXPECT_EQ(Errors(boot - 1), Lines{"ERROR KV_UPGRADE_Proc: open /tmp/upGradeFile.FLS error"});
    EXPECT_TRUE(Flash() == empty);

    ASSERT_TRUE(board_.WaitRecovery(boot));
    EXPECT_EQ(Upgrade("signed"), 0);
    ASSERT_TRUE(board_.WaitBoot(++boot));
    EXPECT_EQ(Errors(boot - 1), Lines{});
    EXPECT_TRUE(Contains(board_.Trace(boot - 1), ": PRT7K 38QX\n")) << "the signer is logged";
    const auto verified = RunCommand(
        {BinDir() + "/kvtool", "verify", board_.Path("signed"),
         "app=" + board_.Path("flash/mtd5.bin"), "uboot=" + board_.Path("flash/mtd0.bin"),
         "uboot=" + board_.Path("flash/mtd1.bin"), "uboot=" + board_.Path("flash/mtd2.bin")});
    EXPECT_EQ(verified.status, 0) << verified.output;
}
