// An upgrade over the network, from the first byte on the wire to the boot that follows.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "tests/support/board.h"
#include "tests/support/mini_client.h"
#include "tests/support/package.h"

using kv_test::Board;
using kv_test::BuildPackage;
using kv_test::CountOf;
using kv_test::Noise;
using kv_test::PackageOptions;
using kv_test::Trailer;
using kv_test::UpgradeFrame;
using kv_test::WaitUntil;

namespace {

const std::vector<std::string> kLayout = {"--no-wifi", "--layout",
                                          "mtd3=256K,mtd4=192K,mtd5=256K,mtd6=128K,mtd7=64K"};
constexpr char kRebootFailed[] = "reboot: failing, as the bench asked";
const std::string kAccepted("\0\0\1\1\2\x20\0\0", 8);
const std::string kBusy("\0\0\1\1\2\x20\xFF\xFF", 8);

// Selects no partition: flashing it changes nothing.
std::string HarmlessPackage(size_t size = 164) {
    return BuildPackage({{"none", Noise(size, 21)}});
}

// One upload on a connection of its own, piece by piece.
class Upload {
  public:
    explicit Upload(Board* board) : board_(board), socket_(board->Connect("tcp", 80)) {}
    ~Upload() { Leave(); }
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;

    // Sends the request and waits until the device has read it, so that what is sent next comes as
    // a chunk of its own.
    void Begin(const std::string& request) {
        const size_t before = CountOf(board_->Trace(), "CMD_SYS_UPGRADE");
        EXPECT_TRUE(Send(request));
        EXPECT_TRUE(
            WaitUntil([&] { return CountOf(board_->Trace(), "CMD_SYS_UPGRADE") > before; }));
    }
    bool Send(const std::string& bytes) { return kv_test::SendAll(socket_, bytes); }
    // What the device answers to a piece, without the session's bytes: status and the zeros behind.
    std::string Answer() {
        const std::string reply = kv_test::Receive(socket_, 32);
        EXPECT_EQ(reply.substr(std::min<size_t>(reply.size(), 12)),
                  std::string(reply.empty() ? 0 : 20, '\0'));
        return reply.substr(0, 8);
    }
    // Closes and waits until the device has seen it.
    void Leave() {
        if (socket_ < 0) {
            return;
        }
        const size_t before = CountOf(board_->Trace(), "__KV_KorvanProtocolClose");
        (void)close(socket_);
        socket_ = -1;
        (void)WaitUntil(
            [&] { return CountOf(board_->Trace(), "__KV_KorvanProtocolClose") > before; }, 5);
    }
    int Socket() const { return socket_; }

  private:
    Board* board_;
    int socket_;
};

std::string UploadWhole(Board* board, const std::string& package) {
    Upload upload(board);
    upload.Begin(UpgradeFrame(static_cast<uint32_t>(package.size())));
    (void)upload.Send(package + Trailer(package));
    return upload.Answer();
}

// A board in recovery whose reboots do not happen: "hang" keeps it alive behind an acceptance.
void StartWithoutReboot(Board* board, const std::string& how) {
    board->Start(kLayout);
    ASSERT_TRUE(board->WaitTrace("app file not exist!"));
    (void)board->Do({"fault", "reboot", how});
}

// The receiver asks for an orderly reboot, the flash writer for one at once.
bool IsOrderlyReboot(const std::string& reason) {
    return reason.rfind("reboot", 0) == 0 && reason.rfind("reboot -f", 0) != 0;
}

// The receiver's messages but for those of every chunk.
std::vector<std::string> ReceiverMessages(const Board& board) {
    std::vector<std::string> chosen;
    for (const std::string& message : board.Messages()) {
        const std::string text = message.substr(message.find(' ') + 1);
        const bool ours = text.rfind("__KV_KorvanUpgradeRead: ", 0) == 0 ||
                          text.rfind("__KV_CheckUpgradeFile", 0) == 0 ||
                          text.rfind("KV_KorvanUpgradeStart: ", 0) == 0;
        const bool chunk = text.find("recvingFileLen") != std::string::npos ||
                           text.find(": left_len=") != std::string::npos;
        if (ours && !chunk) {
            chosen.push_back(message);
        }
    }
    return chosen;
}

}  // namespace

TEST(Upgrade, JourneyFromImagesToTheRunningApplication) {
    Board board;
    board.Start(kLayout);
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const std::string application = kv_test::MakeApplicationImage(board);
    const struct {
        const char* name;
        std::vector<const char*> devices;
        std::string bytes;
    } images[] = {{"uboot", {"mtd0", "mtd1", "mtd2"}, Noise(300 * 1024, 31)},
                  {"kernel", {"mtd3"}, Noise(200000, 32)},
                  {"rootfs", {"mtd4"}, Noise(192 * 1024, 33)},
                  {"var", {"mtd6"}, Noise(1, 34)},
                  {"app", {"mtd5"}, kv_test::ReadFile(application)}};
    const std::string package = board.Path("firmware.FLS");
    std::vector<std::string> pack = {kv_test::BinDir() + "/kvtool", "pack", "-o", package};
    for (const auto& image : images) {
        const std::string file = board.Path(std::string(image.name) + ".img");
        kv_test::WriteFile(file, image.bytes);
        pack.push_back(std::string(image.name) + "=" + file);
    }
    const auto packed = kv_test::RunCommand(pack);
    ASSERT_EQ(packed.status, 0) << packed.output;

    const auto upgraded = board.OnBench(kv_test::BinDir() + "/kvtool upgrade --back-timeout 5 " +
                                        kv_test::kBoardAddress + " " + package);
    EXPECT_EQ(upgraded.status, 0) << upgraded.output;
    ASSERT_TRUE(board.WaitTrace("app file exist!", 2));
    EXPECT_EQ(board.Reason(2).substr(0, 9), "reboot -f");
    for (const auto& image : images) {
        std::string flash;
        for (const char* const device : image.devices) {
            flash += board.Flash(device);
        }
        EXPECT_TRUE(flash.compare(0, image.bytes.size(), image.bytes) == 0) << image.name;
    }
    const auto operations = board.Operations();
    EXPECT_GT(std::count_if(operations.begin(), operations.end(),
                            [](const auto& op) { return op.at("op") == "ioctl:KEEPALIVE"; }),
              5);
    EXPECT_LT(kv_test::LargestFeedGap(operations), 1.3);
}

TEST(Upgrade, ToolTellsARefusalAndARecoveryThatComesBack) {
    Board board;
    board.Start(kLayout);
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const std::string upgrade =
        kv_test::BinDir() + "/kvtool upgrade " + std::string(kv_test::kBoardAddress) + " ";
    kv_test::WriteFile(board.Path("none.FLS"), HarmlessPackage());
    const auto accepted = board.OnBench(upgrade + "--force " + board.Path("none.FLS"));
    EXPECT_EQ(accepted.status, 9) << accepted.output;
    ASSERT_TRUE(board.WaitTrace("app file not exist!", 2));
    kv_test::WriteFile(board.Path("other.FLS"),
                       BuildPackage({{"none", "x"}}, {"OTHER", "38QX", 1}));
    EXPECT_EQ(board.OnBench(upgrade + board.Path("other.FLS")).status, 3);
    // The device gives no answer to what it refuses, and restarts.
    const auto refused = board.OnBench(upgrade + "--force " + board.Path("other.FLS"));
    EXPECT_EQ(refused.status, 8) << refused.output;
    ASSERT_TRUE(board.WaitBoot(3));
    EXPECT_TRUE(IsOrderlyReboot(board.Reason(3)));
}

TEST(Upgrade, EveryFailureIsNamedAndRestartsWithoutAnAnswer) {
    const std::string good = HarmlessPackage();
    const std::string digest = Trailer(good).substr(4, 32);
    std::string upper = Trailer(good);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    const auto package = [](const PackageOptions& options) {
        return BuildPackage({{"none", "x"}}, options);
    };
    const std::string read = "__KV_KorvanUpgradeRead: ";
    const std::string header = "__KV_CheckUpgradeFileHeader: ";
    const std::vector<std::string> otherDevice = {
        "ERROR " + header + "Device type or DeviceManufacturers error",
        "ERROR " + read + " __KV_CheckUpgradeFileHeader error!!!"};
    const std::string wrongDigest = "MD5:" + std::string(32, '0') + "\n";
    const struct Row {
        const char* name;
        std::string package;
        std::string trailer;
        bool deleted;
        std::vector<std::string> last;  // before the failure's own line
        std::string prepare = "";
        std::string undo = "";
    } rows[] = {
        {"digest differs",
         good,
         wrongDigest,
         false,
         {"INFO __KV_CheckUpgradeFileMd5: corMd5 =" + std::string(32, '0'),
          "INFO __KV_CheckUpgradeFileMd5: genMd5 =" + digest, "ERROR " + read + "MD5 check fail!"}},
        {"digest in capitals",
         good,
         upper,
         false,
         {"INFO __KV_CheckUpgradeFileMd5: corMd5 =" + upper.substr(4, 32),
          "INFO __KV_CheckUpgradeFileMd5: genMd5 =" + digest, "ERROR " + read + "MD5 check fail!"}},
        {"no digest",
         good,
         "SUM:" + digest + "\n",
         false,
         {"INFO " + read + "MD5 check start Md5Totallength=37!",
          "INFO __KV_CheckUpgradeFileMd5: /tmp/md5.txt not contain MD5",
          "ERROR " + read + "MD5 check fail!"}},
        {"other chip", package({"PRT7KX", "38QX", 1}), "", true, otherDevice},
        {"other sensor", package({"PRT7K", "38Q", 1}), "", true, otherDevice},
        {"no data", package({"PRT7K", "38QX", 0}), "", true, otherDevice},
        {"no images", package({"PRT7K", "38QX", 1, 0}), "", true, otherDevice},
        {"half a header",
         "PRT7K",
         "",
         true,
         {"ERROR " + header + "read upgrate header error return is 5",
          "ERROR " + read + " __KV_CheckUpgradeFileHeader error!!!"}},
        {"storage full",
         HarmlessPackage(100000),
         "",
         false,
         {},
         "mount -t tmpfs -o size=32k none /tmp",
         "umount -l /tmp"},
        {"no trailer file",
         good,
         "",
         false,
         {"INFO " + read + "MD5 check start Md5Totallength=37!",
          "ERROR " + read + "fopen /tmp/md5.txt fail!"},
         "rm -f /tmp/md5.txt; mkdir /tmp/md5.txt",
         "rmdir /tmp/md5.txt"},
    };
    Board board;
    // A reboot command that fails leaves the device in service: all rows share one boot.
    StartWithoutReboot(&board, "fail");
    size_t failures = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(row.prepare.empty() ? 0 : board.OnBoard(row.prepare).status, 0);
        const size_t before = ReceiverMessages(board).size();
        Upload upload(&board);
        upload.Begin(UpgradeFrame(static_cast<uint32_t>(row.package.size())));
        (void)upload.Send(row.package + (row.trailer.empty() ? Trailer(row.package) : row.trailer));
        ++failures;
        ASSERT_TRUE(WaitUntil([&] { return CountOf(board.Trace(), kRebootFailed) == failures; }));
        auto messages = ReceiverMessages(board);
        messages.erase(messages.begin(), messages.begin() + static_cast<long>(before));
        ASSERT_GE(messages.size(), row.last.size() + 1);
        EXPECT_EQ(messages.back(), "ERROR " + read + "upgrade failed,restart system now ...");
        messages.pop_back();
        if (row.last.empty()) {
            EXPECT_EQ(messages.back().rfind("ERROR " + read + "fwrite ", 0), 0U) << messages.back();
        } else {
            messages.erase(messages.begin(), messages.end() - static_cast<long>(row.last.size()));
            EXPECT_EQ(messages, row.last);
        }
        EXPECT_EQ(board.OnBoard("test -e /tmp/upGradeFile.FLS").status, row.deleted ? 1 : 0);
        EXPECT_EQ(kv_test::Receive(upload.Socket(), 1, 50), "");
        ASSERT_EQ(row.undo.empty() ? 0 : board.OnBoard(row.undo).status, 0);
    }

    // Nowhere to put the package: the connection stays with the protocol, nothing restarts.
    ASSERT_EQ(board.OnBoard("rm -f /tmp/upGradeFile.FLS; mkdir /tmp/upGradeFile.FLS").status, 0);
    {
        Upload upload(&board);
        upload.Begin(UpgradeFrame(1000));
        ASSERT_TRUE(board.WaitTrace("open /tmp/upGradeFile.FLS failed"));
        EXPECT_EQ(ReceiverMessages(board).back(),
                  "FAILED KV_KorvanUpgradeStart: open /tmp/upGradeFile.FLS failed");
        EXPECT_EQ(kv_test::Exchange(upload.Socket(), kv_test::Frame(6)).size(), 32U);
    }
    EXPECT_EQ(CountOf(board.Trace(), kRebootFailed), failures);
    ASSERT_EQ(board.OnBoard("rmdir /tmp/upGradeFile.FLS").status, 0);

    // And once with a reboot that works.
    (void)board.Do({"fault", "reboot", "off"});
    Upload upload(&board);
    upload.Begin(UpgradeFrame(static_cast<uint32_t>(good.size())));
    (void)upload.Send(good + wrongDigest);
    EXPECT_TRUE(kv_test::PeerCloses(upload.Socket(), 20000));
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_TRUE(IsOrderlyReboot(board.Reason(2)));
}

// After an acceptance the device answers each chunk that completes nothing with "busy", so that a
// test sees each cut arrive as one chunk before it sends the next.
TEST(Upgrade, AcceptsWhereverTheStreamIsCut) {
    const std::string package = HarmlessPackage();
    const std::string stream = package + Trailer(package);
    const size_t end = package.size();
    ASSERT_LT(stream.size(), 1000U);
    // 3 * announced is the stream's size modulo 2^32.
    const auto wrapped = static_cast<uint32_t>(stream.size()) * 0xAAAAAAABU;
    const std::string usual = UpgradeFrame(static_cast<uint32_t>(end));
    std::vector<size_t> byteByByte;
    for (size_t at = end - 3; at < stream.size(); ++at) {
        byteByByte.push_back(at);
    }
    const struct {
        std::string request;
        size_t withRequest;  // bytes in the request's own chunk
        std::vector<size_t> cuts;
        std::string behind = "";  // bytes behind the trailer
    } rows[] = {
        {usual, 0, {}},
        {usual, 1, {}},
        {usual, 24, {end}},
        {usual, end, {}},
        {usual, end, {end + 20}},
        {usual, 0, {1, 24, end - 1}},
        {usual, 0, {end}},
        {usual, 0, {end + 1}},
        {usual, 0, {end + 4, end + 36}},
        {usual, 0, {end - 5, end + 5}},
        {usual, 100, byteByByte},
        {usual, 0, {end}, "\n"},
        {usual, 0, {end}, "\r\n"},
        {kv_test::Frame(0x2002, wrapped, 3), 0, {end + 20}},
    };
    Board board;
    StartWithoutReboot(&board, "hang");
    ASSERT_EQ(UploadWhole(&board, package), kAccepted);
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        const size_t before = board.Messages().size();
        Upload upload(&board);
        upload.Begin(row.request + stream.substr(0, row.withRequest));
        std::vector<size_t> cuts = row.cuts;
        cuts.push_back(stream.size());
        std::vector<std::string> chunks;
        std::vector<std::string> expected;
        size_t from = row.withRequest;
        for (const size_t to : cuts) {
            const bool last = to == stream.size();
            const std::string piece = stream.substr(from, to - from) + (last ? row.behind : "");
            ASSERT_TRUE(upload.Send(piece));
            ASSERT_EQ(upload.Answer(), last ? kAccepted : kBusy) << "after " << to;
            expected.push_back(std::to_string(piece.size()));
            from = to;
        }
        const auto messages = board.Messages();
        for (size_t i = before; i < messages.size(); ++i) {
            const size_t at = messages[i].find(",recvingFileLen=");
            if (at != std::string::npos) {
                chunks.push_back(messages[i].substr(at + 16));
            }
        }
        EXPECT_EQ(chunks, expected);
    }
    EXPECT_EQ(CountOf(board.Console(), "# killall -SIGUSR2 upgradeMain\r\n"), std::size(rows) + 1);
    // A large transfer that comes on top is refused and restarts the device at once.
    (void)board.Do({"fault", "reboot", "off"});
    Upload large(&board);
    large.Begin(UpgradeFrame(0x600001));
    ASSERT_TRUE(large.Send("x"));
    EXPECT_EQ(large.Answer(), kBusy);
    ASSERT_TRUE(board.WaitBoot(2));
    EXPECT_TRUE(IsOrderlyReboot(board.Reason(2)));
}

TEST(Upgrade, ClientGoneAtAnyByteLeavesRoomForTheNext) {
    const std::string package = HarmlessPackage();
    const std::string stream = package + Trailer(package);
    Board board;
    StartWithoutReboot(&board, "hang");
    for (const size_t sent :
         {size_t{0}, size_t{10}, package.size() - 1, package.size(), package.size() + 36}) {
        Upload gone(&board);
        gone.Begin(UpgradeFrame(static_cast<uint32_t>(package.size())));
        (void)gone.Send(stream.substr(0, sent));
        gone.Leave();
        EXPECT_EQ(UploadWhole(&board, package), kAccepted) << sent;
    }
    // A transfer that begins while another runs takes its place.
    Upload first(&board);
    first.Begin(UpgradeFrame(static_cast<uint32_t>(package.size())));
    (void)first.Send(stream.substr(0, 300));
    EXPECT_EQ(first.Answer(), kBusy);
    EXPECT_EQ(UploadWhole(&board, package), kAccepted);
}

TEST(Upgrade, WhatNeverCompletesEndsAfterTwentySecondsOfSilence) {
    const std::string package = HarmlessPackage();
    Board board;
    StartWithoutReboot(&board, "hang");
    // Shorter than a trailer: the package's length wraps to nearly 4 GiB.
    Upload upload(&board);
    upload.Begin(kv_test::Frame(0x2002, 36, 1));
    ASSERT_TRUE(upload.Send(package + Trailer(package)));
    ASSERT_TRUE(board.WaitTrace("write " + std::to_string(package.size() + 37) + " bytes"));
    EXPECT_NE(board.Trace().find("datalen:0,filelength=4294967295"), std::string::npos);
    const auto quiet = std::chrono::steady_clock::now();
    EXPECT_TRUE(kv_test::PeerCloses(upload.Socket(), 25000));
    const std::chrono::duration<double> silence = std::chrono::steady_clock::now() - quiet;
    EXPECT_GT(silence.count(), 19.0);
    EXPECT_LT(silence.count(), 22.0);
    EXPECT_EQ(UploadWhole(&board, package), kAccepted);
}
