// kvtool: the command protocol and upgrades up to the verdict, against a scripted device.
#include "tests/support/upgrade_journey.h"
#include "tests/support/wire.h"

namespace {

using namespace fake;
using kvtool::ExitCode;
using kvtool::ToolError;

// The exit code of everything from connecting to the verdict.
ExitCode Upgrade(const Device& device, const Bytes& package, kvtool::UpgradeRecord* record,
                 const kvtool::UpgradeTimes& times = TestTimes()) {
    Journey run;
    run.follow = false;
    run.times = times;
    const ExitCode code = run.Of(device, package);
    *record = run.record;
    return code;
}

// Sizes next to those of the device's reads and of the first piece, and a prime.
TEST(KvtoolUpgrade, SendsThePackageAndItsTrailerWhole) {
    for (const size_t size : {1U, 4095U, 4097U, 8123U, 400000U, 1048573U}) {
        const Bytes package = Pattern(size);
        kvtool::UpgradeRecord record;
        kvtool::UpgradeTimes times = TestTimes();
        Script script;
        if (size == 400000) {  // split replies and a slow reader
            script.replyPiece = 7;
            script.readStep = 3000;
            script.readPause = Millis(1);
        }
        const bool watchesChunks = size == 8123;
        if (watchesChunks) {
            // A slow device, but its pause is shorter than the gap.
            script.commandPause = Millis(50);
            times.headerGap = times.firstLook = Millis(2000);
        }
        Device device(script);
        ASSERT_EQ(Upgrade(device, package, &record, times), ExitCode::kDone) << size;

        // The request carries the session from the heartbeat.
        std::string request =
            kv_test::Frame(0x2002, static_cast<uint32_t>(size) + 37, 1, 0, 0x5A000001);
        request[2] = request[3] = 1;
        EXPECT_EQ(device.UpgradeRequest(), request);
        if (watchesChunks) {
            EXPECT_EQ(device.Chunks(), std::vector<size_t>(4, 32)) << "each request comes alone";
        }

        const Bytes stream = device.Stream();
        const std::string text(package.begin(), package.end());
        EXPECT_TRUE(std::string(stream.begin(), stream.end()) == text + kv_test::Trailer(text));
        EXPECT_EQ(record.acknowledged, size + 37);
        EXPECT_TRUE(record.accepted);
        EXPECT_EQ(record.device.model, "ZH8C4");
    }
}

TEST(KvtoolUpgrade, TellsFailuresOfTheTransferApart) {
    struct Case {
        const char* what;
        std::function<void(Script*)> arrange;
        ExitCode code;
        size_t size = 2 << 20;
        Millis stall = kLong;
        Millis verify = kLong;
    };
    // More than a socket buffers for sending (4 MiB), so that a refusal comes before the end.
    constexpr size_t kLarge = 8 << 20;
    const Case cases[] = {
        {"reset before everything", [](Script* s) { s->closeAfter = 0; }, ExitCode::kLost},
        {"reset in the middle", [](Script* s) { s->closeAfter = 500000; }, ExitCode::kLost},
        {"device stops reading", [](Script* s) { s->stopAfter = 10000; }, ExitCode::kLost, 2 << 20,
         kShort},
        {"busy at once", [](Script* s) { s->busyAfter = 1; }, ExitCode::kBusy, kLarge},
        {"busy in the middle", [](Script* s) { s->busyAfter = 900000; }, ExitCode::kBusy, kLarge},
        {"silent", [](Script* s) { s->verdict = Verdict::kSilent; }, ExitCode::kNoVerdict, 2 << 20,
         kLong, kShort},
        {"closes for verdict", [](Script* s) { s->verdict = Verdict::kClose; },
         ExitCode::kNoVerdict},
        {"other status", [](Script* s) { s->verdictStatus = 7; }, ExitCode::kBadReply},
        // The wait ends at its limit, after at least one answer has been read.
        {"busy for verdict", [](Script* s) { s->verdictStatus = 0xFFFF; }, ExitCode::kBusy, 2 << 20,
         kLong, Millis(2000)},
        {"half a verdict",
         [](Script* s) {
             s->edit = [](uint16_t command, Bytes reply) {
                 reply.resize(command == 0x2002 ? 16 : reply.size());
                 return reply;
             };
         },
         ExitCode::kNoVerdict, 2 << 20, kLong, kShort},
        {"busy for ever",
         [](Script* s) {
             s->talks = true;
             s->verdictStatus = 0xFFFF;
         },
         ExitCode::kBusy, 2 << 20, kLong, Millis(2000)},
        // kvtool has sent all of a small package before a busy device reads it. A later acceptance
        // counts.
        {"busy, then accepted",
         [](Script* s) {
             s->edit = [](uint16_t command, Bytes reply) {
                 if (command == 0x2002) {
                     Bytes busy = reply;
                     busy[6] = busy[7] = 0xFF;
                     reply.insert(reply.begin(), busy.begin(), busy.end());
                 }
                 return reply;
             };
         },
         ExitCode::kDone, 5000},
    };
    for (const Case& c : cases) {
        Script script;
        c.arrange(&script);
        Device device(script);
        kvtool::UpgradeRecord record;
        kvtool::UpgradeTimes times = TestTimes();
        times.stall = c.stall;
        times.verify = c.verify;
        const kvtool::Clock::time_point start = kvtool::Clock::now();
        EXPECT_EQ(Upgrade(device, Pattern(c.size), &record, times), c.code) << c.what;
        EXPECT_LT(kvtool::SecondsSince(start), 19) << c.what << ": it has met a long limit";
        EXPECT_EQ(record.accepted, c.code == ExitCode::kDone) << c.what;
        if (c.code == ExitCode::kLost || script.busyAfter) {
            EXPECT_LT(device.Stream().size(), c.size) << c.what;
        } else {
            EXPECT_TRUE(kv_test::WaitUntil([&] { return device.Stream().size() == c.size + 37; }))
                << c.what;
        }
    }
}

TEST(KvtoolProtocol, DistrustsReplies) {
    using Edit = std::function<Bytes(uint16_t, Bytes)>;
    const auto sets = [](uint16_t changed, size_t at, uint8_t value, size_t count = 1) -> Edit {
        return [=](uint16_t command, Bytes reply) {
            if (command == changed) {
                std::fill_n(reply.begin() + static_cast<ptrdiff_t>(at), count, value);
            }
            return reply;
        };
    };
    const struct {
        const char* what;
        Edit edit;
        ExitCode code = ExitCode::kBadReply;
    } cases[] = {
        {"kind", sets(0x0000, 0, 1)},
        {"version", sets(0x0000, 2, 2)},
        {"another command's reply", sets(0x0000, 4, 6)},
        {"not supported", sets(0x0006, 6, 2)},
        {"another status", sets(0x0006, 7, 0x10)},
        {"an unexpected payload", sets(0x0006, 12, 1)},
        {"more payload than there is", sets(0x2003, 13, 0x02)},
        {"count", sets(0x2003, 16, 2)},
        {"unterminated text", sets(0x2003, 480, 'x', 16)},
        {"silence", [](uint16_t, const Bytes&) { return Bytes(); }, ExitCode::kNoReply},
        {"too little",
         [](uint16_t, Bytes reply) { return Bytes(reply.begin(), reply.begin() + 31); },
         ExitCode::kNoReply},
        {"a heartbeat's reply ahead of its request",
         [](uint16_t command, Bytes reply) {
             if (command == 0) {
                 Bytes ahead = reply;
                 ahead[4] = 6;
                 reply.insert(reply.end(), ahead.begin(), ahead.end());
             }
             return command == 6 ? Bytes() : reply;
         }},
    };
    for (const auto& c : cases) {
        Script script;
        script.edit = c.edit;
        Device device(script);
        kvtool::UpgradeRecord record;
        kvtool::UpgradeTimes times = TestTimes();
        times.reply = c.code == ExitCode::kNoReply ? kShort : kLong;
        EXPECT_EQ(Upgrade(device, Pattern(100), &record, times), c.code) << c.what;
        EXPECT_TRUE(device.Stream().empty()) << c.what;
    }
    Script script;
    script.edit = sets(0x0101, 35, 0);  // an upgrade does not ask for the serial number
    Device device(script);
    kvtool::Connected connected = kvtool::ConnectAny("127.0.0.1", device.Port(), kLong);
    kvtool::ProtocolClient client(std::move(connected.fd), kLong);
    EXPECT_THROW((void)client.SerialNumber(), ToolError);
}

}  // namespace
