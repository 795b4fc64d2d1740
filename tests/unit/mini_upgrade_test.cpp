// The upgrade receiver, fed chunk by chunk: what it stores, when it accepts, how it fails. The
// event loop's functions are replaced, so each arrival has exactly the bytes of the case, and each
// reply is seen at its place in the order of events.
#include "mini/kv_mini_upgrade.h"

#include <sys/stat.h>

#include <memory>
#include <optional>

#include "common/kv_platform.h"
#include "tests/support/capture.h"
#include "tests/support/recorded_io.h"
#include "tests/support/surroundings.h"
#include "tests/support/wire.h"

using namespace kv_test;

namespace {

constexpr uint32_t kSessionId = 0x42000001;
constexpr uint32_t kLarge = 0x600000;
constexpr char kHandOver[] = "killall -SIGUSR2 upgradeMain\n";

// A package of `size` bytes. The receiver examines only its header and its digest.
std::string Package(size_t size, const PackageOptions& header = {"PRT7K", "38QX", 1, 1}) {
    return BuildPackage({}, header) + Noise(size - 24, 5);
}

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return text;
}

std::string Answer(uint16_t status) {
    return ReplyHeader(0x2002, status, kSessionId);
}

const uint8_t* Raw(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

class MiniUpgrade : public testing::Test {
  protected:
    MiniUpgrade() : log_(2), output_(1) {
        RequireSandbox();
        Clean();
        (void)Shell("ln -sf /bin/true /tmp/stubs/sync");
        io_.session.uiSessionId = kSessionId;
        g_sleptMs = 0;
    }

    void Clean() {
        KV_KorvanUpgradeStop();
        for (const char* path : {kv::kPackagePath, kv::kMd5Path, kCommandLog}) {
            (void)remove(path);
        }
        io_.replies.clear();
    }
    int Start(const std::string& first, size_t fileLength) {
        return KV_KorvanUpgradeStart(io_.Io(), static_cast<uint32_t>(fileLength), Raw(first),
                                     static_cast<int>(first.size()));
    }
    // The buffer ends with the chunk, so a sanitizer sees any read beyond it.
    void Arrive(const std::string& chunk) {
        const std::unique_ptr<char[]> exact(new char[chunk.size()]);
        memcpy(exact.get(), chunk.data(), chunk.size());
        ASSERT_NE(io_.onRead, nullptr);
        io_.onRead(io_.Io(), exact.get(), static_cast<int>(chunk.size()));
    }
    void ArriveIn(const std::string& stream, size_t chunkSize) {
        for (size_t at = 0; at < stream.size(); at += chunkSize) {
            Arrive(stream.substr(at, chunkSize));
        }
    }
    void Upload(const std::string& package) {
        ASSERT_EQ(Start("", package.size()), 0);
        ArriveIn(package + Trailer(package), 8192);
    }
    void ExpectAccepted(const std::string& package, size_t times = 1) {
        ASSERT_EQ(io_.replies.size(), times);
        EXPECT_EQ(io_.replies.back(), Answer(0));
        EXPECT_EQ(ReadFile(kv::kPackagePath), package);
        EXPECT_EQ(ReadFile(kv::kMd5Path), Trailer(package));
        const std::string commands = times == 1 ? kHandOver : std::string(kHandOver) + kHandOver;
        EXPECT_EQ(io_.commandsAtReply, commands) << "the signal comes before the reply";
        EXPECT_EQ(ReadFile(kCommandLog), commands);
    }
    void ExpectNothingYet() {
        EXPECT_TRUE(io_.replies.empty());
        EXPECT_EQ(ReadFile(kCommandLog), "");
    }

    Connection io_;
    // Whether a message that begins with `text` was logged.
    bool Traced(const std::string& text) const { return Contains(log_.Text(), "\033[m" + text); }

    Capture log_;
    Capture output_;
};

TEST_F(MiniUpgrade, StartPreparesStorageAndTakesTheConnectionOver) {
    EXPECT_EQ(Start("12345", 1000), 0);
    EXPECT_EQ(ReadFile("/tmp/drop_caches"), "1\n");
    EXPECT_EQ(g_sleptMs, 1100);
    EXPECT_EQ(io_.onRead, __KV_KorvanUpgradeRead);
    EXPECT_EQ(io_.timeouts, std::vector<int>{20000});
    EXPECT_EQ(io_.reads, 1);
    EXPECT_EQ(output_.Text(), "");
    EXPECT_TRUE(Contains(log_.Text(), "  INFO kv_mini_upgrade:KV_KorvanUpgradeStart:"));
    EXPECT_TRUE(Traced("datalen:5,filelength=1000\n"));
    EXPECT_TRUE(Traced("KorvanUpgradeStart\n"));
    // No transfer if the package cannot be created.
    Clean();
    io_.onRead = nullptr;
    ASSERT_EQ(mkdir(kv::kPackagePath, 0755), 0);
    EXPECT_EQ(Start("data", 100), -1);
    EXPECT_TRUE(Contains(log_.Text(), "FAILED kv_mini_upgrade:KV_KorvanUpgradeStart:"));
    EXPECT_TRUE(Traced("open /tmp/upGradeFile.FLS failed\n"));
    EXPECT_EQ(io_.onRead, nullptr);
    ExpectNothingYet();
}

TEST_F(MiniUpgrade, AcceptsWhereverTheStreamIsCut) {
    const std::string package = Package(1000);
    const std::string stream = package + Trailer(package);
    for (size_t cut = 998; cut < stream.size(); ++cut) {
        Clean();
        ASSERT_EQ(Start(stream.substr(0, 100), package.size()), 0);
        Arrive(stream.substr(100, cut - 100));
        ExpectNothingYet();
        Arrive(stream.substr(cut));
        ExpectAccepted(package);
        ASSERT_FALSE(HasFailure()) << "cut at " << cut;
    }
    for (const size_t size : {1, 7, 36, 37, 38, 40, 333, 1000, 1037}) {
        Clean();
        ASSERT_EQ(Start("", package.size()), 0);
        ArriveIn(stream, size);
        ExpectAccepted(package);
        ASSERT_FALSE(HasFailure()) << "chunks of " << size;
    }
    EXPECT_FALSE(Contains(log_.Text(), "ERROR"));
    EXPECT_FALSE(Contains(log_.Text(), "left_len=0"))
        << "a package that ends with its chunk does not cross";
    EXPECT_TRUE(Contains(output_.Text(), "# killall -SIGUSR2 upgradeMain\r\n"));
    EXPECT_EQ(io_.timeouts.back(), 0);
}

TEST_F(MiniUpgrade, TracesAnArrival) {
    const std::string package = Package(100);
    ASSERT_EQ(Start(package.substr(0, 10), 100), 0);
    Arrive(package.substr(10, 50));
    Arrive(package.substr(60) + "MD5:ab");
    Arrive(std::string(40, 'z'));
    EXPECT_TRUE(Contains(log_.Text(), "  INFO kv_mini_upgrade:__KV_KorvanUpgradeRead:"));
    for (const char* text : {
             "fileTotallength = 100,recvingFileLen=50\n",
             "write 50 bytes, write total 60 bytes, recvingFileLen 50, fileTotallength 100, "
             "recvedFileLen 60, Md5Totallength 0\n",
             "left_len=6,write_len=40\n",
             "left_len=6,Md5Totallength=6,md5_buff=MD5:ab\n",
             "write 40 bytes, write total 100 bytes, recvingFileLen 46, fileTotallength 100, "
             "recvedFileLen 106, Md5Totallength 6\n",
             "left_len=40,Md5Totallength=6,md5_buff=MD5:ab\n",
             "write 0 bytes, write total 100 bytes, recvingFileLen 40, fileTotallength 100, "
             "recvedFileLen 146, Md5Totallength 6\n",
         }) {
        EXPECT_TRUE(Contains(log_.Text(), std::string("\033[m") + text)) << text << log_.Text();
    }
}

TEST_F(MiniUpgrade, KeepsAtMostThirtyNineTrailerBytesAndDropsLongPieces) {
    const std::string package = Package(2000);
    const std::string trailer = Trailer(package);
    const struct {
        const char* what;
        Lines pieces;
        bool accepted;
    } rows[] = {
        {"two pieces", {trailer.substr(0, 20), trailer.substr(20)}, true},
        {"39 bytes", {trailer + "\r\n"}, true},
        {"40 bytes", {trailer + "\r\n\n"}, false},
        {"the right one after one that was dropped", {std::string(40, 'x'), trailer}, true},
        {"a piece too much in the middle",
         {trailer.substr(0, 20), std::string(20, 'x'), trailer.substr(20)},
         true},
        {"36 bytes", {trailer.substr(0, 36)}, false},
    };
    for (const auto& row : rows) {
        Clean();
        ASSERT_EQ(Start("", package.size()), 0);
        ArriveIn(package, 512);
        for (const std::string& piece : row.pieces) {
            ExpectNothingYet();
            Arrive(piece);
        }
        EXPECT_EQ(io_.replies.size(), row.accepted ? 1U : 0U) << row.what;
        EXPECT_EQ(ReadFile(kCommandLog), row.accepted ? kHandOver : "") << row.what;
    }
}

TEST_F(MiniUpgrade, EveryFailureRebootsWithoutAReply) {
    const std::string good = Package(9000);
    const std::string trailer = Trailer(good);
    const std::string zeros = "MD5:" + std::string(32, '0') + "\n";
    const std::string md5 = "\033[mMD5 check fail!\n";
    const std::string header = "\033[m __KV_CheckUpgradeFileHeader error!!!\n";
    const std::string type = "Device type or DeviceManufacturers error\n";
    const struct {
        std::string package;
        std::string trailer;  // empty: the right one
        std::string message;
        std::string then;
        // Where writing must fail: /dev/full as the package, a directory as the trailer.
        const char* obstacle = nullptr;
        bool deletesPackage = false;
    } rows[] = {
        {good, "", "fwrite 8192 bytes failed. ret = ", "", kv::kPackagePath},
        {good.substr(0, 8100), "", "fwrite 8100 bytes failed. ret = ", "", kv::kPackagePath},
        {good, "", "fopen /tmp/md5.txt fail!\n", "", kv::kMd5Path},
        {good, std::string(37, 'm'), "/tmp/md5.txt not contain MD5\n", md5},
        {good, zeros, "corMd5 =00000000000000000000000000000000\n", md5},
        {good, Upper(trailer), "genMd5 =" + trailer.substr(4), md5},
        {good, "xx" + trailer.substr(0, 35), "corMd5 =", md5},
        {good.substr(0, 23), "", "read upgrate header error return is 23\n", header, nullptr, true},
        {Package(9000, {"PRT7KX", "38QX", 1, 1}), "", type, header, nullptr, true},
        {Package(9000, {"PRT7K", "38QX", 1, 0}), "", type, header, nullptr, true},
    };
    for (const auto& row : rows) {
        Clean();
        std::optional<Replaced> full;
        if (row.obstacle == kv::kPackagePath) {
            WriteFile(kv::kPackagePath, "");
            full.emplace("/dev/full", kv::kPackagePath);
        } else if (row.obstacle == kv::kMd5Path) {
            ASSERT_EQ(mkdir(kv::kMd5Path, 0755), 0);
        }
        const size_t logged = log_.Text().size();
        ASSERT_EQ(Start("", row.package.size()), 0);
        g_sleptMs = 0;
        ArriveIn(row.package + (row.trailer.empty() ? Trailer(row.package) : row.trailer), 8192);
        EXPECT_TRUE(InOrder(
            log_.Text().substr(logged),
            {"\033[m" + row.message, row.then, "\033[mupgrade failed,restart system now ...\n"}));
        EXPECT_EQ(g_sleptMs, 2000);
        EXPECT_EQ(ReadFile(kCommandLog), "reboot \n");
        EXPECT_TRUE(io_.replies.empty());
        EXPECT_EQ(access(kv::kPackagePath, F_OK) != 0, row.deletesPackage) << row.message;
        Arrive("more");
        EXPECT_EQ(ReadFile(kCommandLog), "reboot \n") << "the failed transfer is still open";
    }
    EXPECT_TRUE(
        Traced("ic type is PRT7KX,sensor man is 38QX "
               "ugHeader.upgrateDataLen 1 ugHeader.fileNum 1\n"));
    EXPECT_EQ(output_.Text(), "") << "reboot is not echoed";
}

TEST_F(MiniUpgrade, ChecksReportWhatTheyCannotRead) {
    EXPECT_EQ(__KV_CheckUpgradeFileMd5(), -1);
    EXPECT_TRUE(Contains(log_.Text(), "  INFO kv_mini_upgrade:__KV_CheckUpgradeFileMd5:"));
    EXPECT_TRUE(Traced("fopen /tmp/md5.txt fail!\n"));
    WriteFile(kv::kMd5Path, Trailer("x"));
    EXPECT_EQ(__KV_CheckUpgradeFileMd5(), -1);
    EXPECT_TRUE(Traced("open file /tmp/upGradeFile.FLS failed\n"));
    WriteFile(kv::kPackagePath, "x");
    EXPECT_EQ(__KV_CheckUpgradeFileMd5(), 0);
    (void)remove(kv::kPackagePath);
    EXPECT_EQ(__KV_CheckUpgradeFileHeader(), -1);
    EXPECT_TRUE(Traced("open /tmp/upGradeFile.FLS error\n"));
    WriteFile(kv::kPackagePath, "no header");
    EXPECT_EQ(__KV_CheckUpgradeFileHeader(), -1);
    EXPECT_NE(access(kv::kPackagePath, F_OK), 0);
    // Only the first 128 bytes are searched, and the digest must end within them.
    WriteFile(kv::kPackagePath, "x");
    WriteFile(kv::kMd5Path, std::string(92, '-') + Trailer("x"));
    EXPECT_EQ(__KV_CheckUpgradeFileMd5(), 0);
    WriteFile(kv::kMd5Path, std::string(93, '-') + Trailer("x"));
    EXPECT_EQ(__KV_CheckUpgradeFileMd5(), -1);
}

TEST_F(MiniUpgrade, FirstBytesAreStoredWhateverTheAnnouncedSize) {
    const std::string package = Package(1000);
    ASSERT_EQ(Start(package, 500), 0);
    Arrive("MD5:");
    Arrive(Trailer(package).substr(4));
    ExpectNothingYet();
    KV_KorvanUpgradeStop();
    EXPECT_EQ(ReadFile(kv::kPackagePath), package);
    EXPECT_TRUE(Traced("KorvanUpgradeStop\n"));
    Arrive("dropped");
    ExpectNothingYet();
}

TEST_F(MiniUpgrade, AfterAcceptanceEveryUnfinishedReadIsRefusedUntilTheNextIsComplete) {
    const std::string package = Package(4000);
    Upload(package);
    ExpectAccepted(package);
    std::ifstream writer(kv::kPackagePath, std::ios::binary);
    ASSERT_EQ(Start("", package.size()), 0);
    Arrive(package.substr(0, 1000));
    std::ostringstream read;
    read << writer.rdbuf();
    EXPECT_TRUE(read.str() == package) << "a running flash writer lost its package";
    Arrive(package.substr(1000));
    ASSERT_EQ(io_.replies.size(), 3U);
    EXPECT_EQ(io_.replies[1], Answer(0xFFFF));
    EXPECT_EQ(io_.replies[2], Answer(0xFFFF));
    EXPECT_EQ(io_.timeouts, (std::vector<int>{20000, 0, 20000, 0, 0}));
    EXPECT_TRUE(Traced("upgrade success,start flash erasing,upGradeState=1\n"));
    EXPECT_TRUE(Traced("upgrade success,start flash erasing,upGradeState=0\n"));
    EXPECT_TRUE(Traced("reply status:0\n"));
    EXPECT_TRUE(Traced("reply status:65535\n"));
    EXPECT_EQ(ReadFile(kCommandLog), kHandOver);
    io_.replies.erase(io_.replies.begin() + 1, io_.replies.end());
    Arrive(Trailer(package));
    ExpectAccepted(package, 2);

    // A failure revokes the acceptance.
    io_.replies.clear();
    ASSERT_EQ(Start(package, package.size()), 0);
    Arrive(std::string(37, '?'));
    ASSERT_EQ(Start("", package.size()), 0);
    Arrive(package.substr(0, 1000));
    EXPECT_TRUE(io_.replies.empty());
}

TEST_F(MiniUpgrade, StrayOrRefusedDataRebootsAboveSixMebibytes) {
    for (const uint32_t size : {kLarge, kLarge + 1}) {
        const std::string reboot = size > kLarge ? "reboot \n" : "";
        (void)remove(kCommandLog);
        const std::string package = Package(size);
        Upload(package);
        EXPECT_EQ(ReadFile(kCommandLog), kHandOver);
        Arrive("stray");
        EXPECT_EQ(ReadFile(kCommandLog), kHandOver + reboot) << size;

        (void)remove(kCommandLog);
        ASSERT_EQ(Start("", size), 0);
        Arrive("refused");
        ASSERT_FALSE(io_.replies.empty());
        EXPECT_EQ(io_.replies.back(), Answer(0xFFFF));
        EXPECT_EQ(ReadFile(kCommandLog), reboot) << size;
        KV_KorvanUpgradeStop();
    }
}

TEST_F(MiniUpgrade, TheAnnouncedSizeIsAProductThatWraps) {
    const struct {
        uint32_t dataLen;
        uint32_t count;
        const char* trace;
    } rows[] = {
        {1037, 1, "datalen:3,filelength=1000\n"},
        {61, 17, "datalen:3,filelength=1000\n"},
        {0, 1, "datalen:3,filelength=4294967259\n"},
        {1037, 0, "datalen:3,filelength=4294967259\n"},
        {0x10000, 0x10001, "datalen:3,filelength=65499\n"},
    };
    for (const auto& row : rows) {
        const std::string request = Frame(0x2002, row.dataLen, row.count) + "abc";
        uint8_t reply[kReplyBufferSize];
        int replyLen = 0;
        io_.session.uiUpgradeState = 0;
        const size_t logged = log_.Text().size();
        EXPECT_EQ(__KV_ProcessUpgrade(io_.Io(), Raw(request), static_cast<int>(request.size()),
                                      reply, &replyLen),
                  0);
        EXPECT_GT(replyLen, 0) << "0 would count as a request that could not be handled";
        EXPECT_EQ(io_.session.uiUpgradeState, 3U);
        EXPECT_TRUE(Contains(log_.Text().substr(logged), row.trace)) << row.trace;
        ExpectNothingYet();
    }
}

TEST_F(MiniUpgrade, TransfersAtTheSameMomentMixButHarmNothing) {
    const std::string package = Package(20000);
    const std::string stream = package + Trailer(package);
    std::thread threads[3];
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            Connection own;
            for (int round = 0; round < 10; ++round) {
                (void)KV_KorvanUpgradeStart(own.Io(), static_cast<uint32_t>(package.size()),
                                            Raw(stream), 100);
                for (size_t at = 100; at < stream.size(); at += 512) {
                    std::string chunk = stream.substr(at, 512);
                    __KV_KorvanUpgradeRead(own.Io(), chunk.data(), static_cast<int>(chunk.size()));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    KV_KorvanUpgradeStop();
    Upload(package);
    EXPECT_EQ(io_.replies, Lines{Answer(0)});
}

}  // namespace
