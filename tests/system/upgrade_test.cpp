// An upgrade over the network, from the first byte on the wire to the next boot. The receiver's
// unit tests cover chunk boundaries and failures.
#include "tests/support/board.h"
#include "tests/support/wire.h"

using namespace kv_test;

namespace {

const Lines kLayout = {"--no-wifi", "--layout", "mtd3=256K,mtd4=192K,mtd5=256K,mtd6=128K,mtd7=64K"};
const std::string kAccepted("\0\0\1\1\2\x20\0\0", 8);
const std::string kBusy("\0\0\1\1\2\x20\xFF\xFF", 8);

// Selects no partition, so flashing it changes nothing.
std::string HarmlessPackage() {
    return BuildPackage({{"none", Noise(164, 21)}});
}

// One upload on its own connection, piece by piece.
class Upload {
  public:
    explicit Upload(Board* board) : board_(board), client_(board->Client()) {}
    ~Upload() { Leave(); }
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;

    // Sends the request and waits until the device has read it, so the next bytes arrive as a chunk
    // of their own.
    void Begin(const std::string& request) {
        const size_t before = Traced("CMD_SYS_UPGRADE");
        EXPECT_TRUE(client_.Send(request));
        EXPECT_TRUE(WaitUntil([&] { return Traced("CMD_SYS_UPGRADE") > before; }));
    }
    bool Send(const std::string& bytes) { return client_.Send(bytes); }
    // The device's answer to a piece, without the session's bytes: the status, then zeros.
    std::string Answer() {
        const std::string reply = client_.Receive(32);
        EXPECT_EQ(reply.substr(std::min<size_t>(reply.size(), 12)),
                  std::string(reply.empty() ? 0 : 20, '\0'));
        return reply.substr(0, 8);
    }
    bool Ends() { return client_.Ends(); }
    // Closes and waits until the device has noticed.
    void Leave() {
        if (client_.Connected()) {
            const size_t before = Traced("__KV_KorvanProtocolClose");
            client_.Close();
            (void)WaitUntil([&] { return Traced("__KV_KorvanProtocolClose") > before; }, 5);
        }
    }

  private:
    size_t Traced(const char* text) { return CountOf(board_->Trace(), text); }
    Board* board_;
    TcpClient client_;
};

std::string UploadWhole(Board* board, const std::string& package) {
    Upload upload(board);
    upload.Begin(UpgradeFrame(package.size()));
    (void)upload.Send(package + Trailer(package));
    return upload.Answer();
}

}  // namespace

TEST(Upgrade, JourneyFromImagesToTheRunningApplication) {
    Board board;
    board.StartRecovery(kLayout);
    const struct {
        const char* name;
        std::vector<const char*> devices;
        std::string bytes;
    } images[] = {{"uboot", {"mtd0", "mtd1", "mtd2"}, Noise(300 * 1024, 31)},
                  {"kernel", {"mtd3"}, Noise(200000, 32)},
                  {"rootfs", {"mtd4"}, Noise(192 * 1024, 33)},
                  {"var", {"mtd6"}, Noise(1, 34)},
                  {"app", {"mtd5"}, ReadFile(MakeApplicationImage(board))}};
    const std::string package = board.Path("firmware.FLS");
    Lines pack = {BinDir() + "/kvtool", "pack", "-o", package};
    for (const auto& image : images) {
        const std::string file = board.Path(std::string(image.name) + ".img");
        WriteFile(file, image.bytes);
        pack.push_back(std::string(image.name) + "=" + file);
    }
    const auto packed = RunCommand(pack);
    ASSERT_EQ(packed.status, 0) << packed.output;

    const auto upgraded =
        board.OnBench(BinDir() + "/kvtool upgrade " + kBoardAddress + " " + package);
    EXPECT_EQ(upgraded.status, 0) << upgraded.output;
    EXPECT_NE(upgraded.output.find("observed: alive: port 554"), std::string::npos)
        << upgraded.output;
    ASSERT_TRUE(board.WaitTrace("app file exist!", 2));
    EXPECT_EQ(board.Reason(2).substr(0, 9), "reboot -f");
    for (const auto& image : images) {
        std::string flash;
        for (const char* const device : image.devices) {
            flash += board.Flash(device);
        }
        EXPECT_TRUE(flash.compare(0, image.bytes.size(), image.bytes) == 0) << image.name;
    }
    EXPECT_TRUE(board.WaitFeeds(1));
    board.ExpectFed();
}

TEST(Upgrade, ToolReportsARefusalAndARecoveryThatComesBack) {
    Board board;
    board.StartRecovery(kLayout);
    const std::string upgrade = BinDir() + "/kvtool upgrade " + std::string(kBoardAddress) + " ";
    WriteFile(board.Path("none.FLS"), HarmlessPackage());
    const auto accepted = board.OnBench(upgrade + "--force " + board.Path("none.FLS"));
    EXPECT_EQ(accepted.status, 9) << accepted.output;
    ASSERT_TRUE(board.WaitRecovery(2));
    WriteFile(board.Path("other.FLS"), BuildPackage({{"none", "x"}}, {"OTHER", "38QX", 1}));
    EXPECT_EQ(board.OnBench(upgrade + board.Path("other.FLS")).status, 3);
    // The device does not answer a package that it refuses. It restarts with an ordinary reboot.
    const auto refused =
        board.OnBench(upgrade + "--force --force-identity " + board.Path("other.FLS"));
    EXPECT_EQ(refused.status, 8) << refused.output;
    ASSERT_TRUE(board.WaitBoot(3));
    EXPECT_EQ(board.Reason(3), "reboot\n");
}

TEST(Upgrade, ATransferThatEndsEarlyLeavesRoomForTheNext) {
    const std::string package = HarmlessPackage();
    const std::string stream = package + Trailer(package);
    Board board;
    board.StartRecovery(kLayout);
    // The device stays alive after an acceptance.
    board.Fault({"reboot", "hang"});
    // A transfer that never completes is closed after twenty seconds of silence. The announced size
    // is less than a trailer, so the package's length wraps to nearly 4 GiB.
    Upload endless(&board);
    endless.Begin(Frame(0x2002, 36, 1));
    const auto quiet = Clock::now();
    ASSERT_TRUE(endless.Send(stream));
    ASSERT_TRUE(board.WaitTrace("write " + std::to_string(stream.size()) + " bytes"));
    EXPECT_TRUE(endless.Ends());
    EXPECT_GT(SecondsSince(quiet), 19.0);

    for (const size_t sent : {size_t{0}, size_t{10}, package.size(), package.size() + 36}) {
        Upload gone(&board);
        gone.Begin(UpgradeFrame(package.size()));
        (void)gone.Send(stream.substr(0, sent));
        gone.Leave();
        EXPECT_EQ(UploadWhole(&board, package), kAccepted) << sent;
    }
    // A transfer that starts during another one replaces it.
    Upload first(&board);
    first.Begin(UpgradeFrame(package.size()));
    (void)first.Send(stream.substr(0, 300));
    EXPECT_EQ(first.Answer(), kBusy);
    EXPECT_EQ(UploadWhole(&board, package), kAccepted);
}
