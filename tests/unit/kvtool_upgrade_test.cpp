// kvtool: the command protocol and upgrades, against a scripted device.
#include "tests/support/fake_device.h"
#include "tests/support/wire.h"
#include "tools/device/follow.h"
#include "tools/device/upgrade_session.h"

namespace {

using fake::Device;
using fake::Script;
using fake::Verdict;
using kvtool::Bytes;
using kvtool::ExitCode;
using kvtool::Millis;
using kvtool::ToolError;

class Listener : public kvtool::UpgradeListener {
  public:
    void Line(const std::string& text) override {
        if (onAcceptance && text.find("has accepted") != std::string::npos) {
            onAcceptance();
        }
    }
    void Progress(const kvtool::UploadProgress& progress) override {
        EXPECT_GE(progress.acknowledged, last);
        last = progress.acknowledged;
        longestSilence = std::max(longestSilence, progress.silent);
    }
    std::function<void()> onAcceptance;
    uint64_t last = 0;
    double longestSilence = 0;
};

void Command(const std::string& line) {
    EXPECT_EQ(kv_test::Run(line + " 2>&1").status, 0) << line;
}

// A PC and its neighbours on one link. All their addresses are on the PC's interface.
class Link {
  public:
    Link() {
        Command("ip link add pc0 type veth peer name wire && ip link set wire up");
        Up();
    }
    ~Link() { Command("ip link delete pc0"); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    static void Up() {
        Command("ip link set pc0 up");
        for (const char* const address : {"10.7.0.2", "10.7.0.3"}) {
            Command(std::string("ip address replace ") + address + "/24 brd + dev pc0");
        }
    }
};

constexpr char kMac[] = "02:00:5E:10:20:30";
Bytes SearchReply(const char* address, const char* mac = kMac) {
    return kv_test::ExpectedReply({address, "255.255.255.0", "", "", mac});
}

std::string Observed(const kvtool::UpgradeRecord& record) {
    std::string all;
    for (const std::string& line : record.observed) {
        all += line + "\n";
    }
    return all;
}

kvtool::UpgradeTimes ShortTimes() {
    kvtool::UpgradeTimes times;
    times.connect = Millis(2000);
    times.reply = Millis(2000);
    times.headerGap = Millis(200);
    times.firstLook = Millis(300);
    times.stall = Millis(3000);
    times.verify = Millis(2000);
    times.leave = Millis(1000);
    times.back = Millis(1000);
    times.probeEvery = Millis(50);
    times.probeReply = Millis(500);
    times.ask = Millis(200);
    times.search = Millis(300);
    times.searchEvery = Millis(100);
    return times;
}

// A byte pattern whose period matches no read or send size.
Bytes Pattern(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    return bytes;
}

// Returns the exit code of `work`; kDone if it does not throw.
ExitCode CodeOf(const std::function<ExitCode()>& work) {
    try {
        return work();
    } catch (const ToolError& error) {
        return error.Code();
    }
}

// Everything from connecting to the last observation.
struct Journey {
    std::string host = "127.0.0.1";
    bool follow = true;
    kvtool::FollowTarget target;  // the session sets the endpoint and the local end
    std::function<void()> onAcceptance;
    kvtool::UpgradeTimes times = ShortTimes();
    kvtool::UpgradeRecord record;

    ExitCode Of(const Device& device, const Bytes& package) {
        return CodeOf([&] {
            Listener listener;
            listener.onAcceptance = onAcceptance;
            kvtool::UpgradeSession session(times, &listener, &record);
            session.Connect(host, device.Port());
            session.Login();
            session.Identify();
            session.Upload(package);
            target.endpoint = session.Peer();
            target.local = kvtool::LocalEnd(session.Fd());
            return follow ? kvtool::Follow(target, session.Fd(), times, &listener, &record)
                          : ExitCode::kDone;
        });
    }
};

// Returns the exit code of everything from connecting to the verdict.
ExitCode Upgrade(const Device& device, const Bytes& package, kvtool::UpgradeRecord* record) {
    Journey run;
    run.follow = false;
    const ExitCode code = run.Of(device, package);
    *record = run.record;
    return code;
}

// Sizes near the device's reads and the first piece, and a prime.
TEST(KvtoolUpgrade, SendsThePackageAndItsTrailerWhole) {
    for (const size_t size : {1U, 4095U, 4097U, 8123U, 1048573U}) {
        const Bytes package = Pattern(size);
        Device device(Script{});
        kvtool::UpgradeRecord record;
        ASSERT_EQ(Upgrade(device, package, &record), ExitCode::kDone) << size;

        // The request names the session from the heartbeat's reply.
        std::string request =
            kv_test::Frame(0x2002, static_cast<uint32_t>(size) + 37, 1, 0, 0x5A000001);
        request[2] = request[3] = 1;
        EXPECT_EQ(device.UpgradeRequest(), request);
        EXPECT_EQ(device.Chunks(), std::vector<size_t>(4, 32)) << "each request is its own chunk";

        const Bytes stream = device.Stream();
        const std::string text(package.begin(), package.end());
        EXPECT_TRUE(std::string(stream.begin(), stream.end()) == text + kv_test::Trailer(text));
        EXPECT_EQ(record.acknowledged, size + 37);
        EXPECT_TRUE(record.accepted);
    }
}

TEST(KvtoolUpgrade, SurvivesSplitRepliesAndASlowReader) {
    Script script;
    script.replyPiece = 7;
    script.readStep = 3000;
    script.readPause = Millis(1);
    Device device(script);
    kvtool::UpgradeRecord record;
    const Bytes package = Pattern(400000);
    EXPECT_EQ(Upgrade(device, package, &record), ExitCode::kDone);
    EXPECT_EQ(device.Stream().size(), package.size() + 37);
    EXPECT_EQ(record.device.model, "ZH8C4");
}

TEST(KvtoolUpgrade, TellsFailuresOfTheTransferApart) {
    struct Case {
        const char* what;
        std::function<void(Script*)> arrange;
        ExitCode code;
        size_t size = 2 << 20;
    };
    // More than a sending socket can hold (4 MiB), so the refusal comes before the end.
    constexpr size_t kLarge = 8 << 20;
    const Case cases[] = {
        {"reset in front of everything", [](Script* s) { s->closeAfter = 0; }, ExitCode::kLost},
        {"reset in the middle", [](Script* s) { s->closeAfter = 500000; }, ExitCode::kLost},
        {"device stops reading", [](Script* s) { s->stopAfter = 10000; }, ExitCode::kLost},
        {"busy at once", [](Script* s) { s->busyAfter = 1; }, ExitCode::kBusy, kLarge},
        {"busy in the middle", [](Script* s) { s->busyAfter = 900000; }, ExitCode::kBusy, kLarge},
        {"silent", [](Script* s) { s->verdict = Verdict::kSilent; }, ExitCode::kNoVerdict},
        {"closes for verdict", [](Script* s) { s->verdict = Verdict::kClose; },
         ExitCode::kNoVerdict},
        {"other status", [](Script* s) { s->verdictStatus = 7; }, ExitCode::kBadReply},
        {"busy for verdict", [](Script* s) { s->verdictStatus = 0xFFFF; }, ExitCode::kBusy},
        {"half a verdict",
         [](Script* s) {
             s->edit = [](uint16_t command, Bytes reply) {
                 reply.resize(command == 0x2002 ? 16 : reply.size());
                 return reply;
             };
         },
         ExitCode::kNoVerdict},
        {"busy for ever",
         [](Script* s) {
             s->talks = true;
             s->verdictStatus = 0xFFFF;
         },
         ExitCode::kBusy},
    };
    for (const Case& c : cases) {
        Script script;
        c.arrange(&script);
        Device device(script);
        kvtool::UpgradeRecord record;
        EXPECT_EQ(Upgrade(device, Pattern(c.size), &record), c.code) << c.what;
        EXPECT_FALSE(record.accepted) << c.what;
        const size_t held = device.Stream().size();
        if (c.code == ExitCode::kLost || script.busyAfter) {
            EXPECT_LT(held, c.size) << c.what;
        } else {
            EXPECT_EQ(held, c.size + 37) << c.what;
        }
    }
}

// The client sends a whole small package before a busy device reads any of it. A later acceptance
// counts.
TEST(KvtoolUpgrade, BusyThenAcceptedIsAccepted) {
    Script script;
    script.edit = [](uint16_t command, Bytes reply) {
        if (command == 0x2002) {
            Bytes busy = reply;
            busy[6] = busy[7] = 0xFF;
            reply.insert(reply.begin(), busy.begin(), busy.end());
        }
        return reply;
    };
    Device device(script);
    kvtool::UpgradeRecord record;
    EXPECT_EQ(Upgrade(device, Pattern(5000), &record), ExitCode::kDone);
}

TEST(KvtoolProtocol, DistrustsReplies) {
    struct Case {
        size_t at;
        uint16_t command;
        uint8_t value;
    };
    const Case cases[] = {
        {0, 0x0000, 1},      // kind
        {2, 0x0000, 2},      // version
        {4, 0x0000, 6},      // another command's reply
        {6, 0x0006, 2},      // not supported
        {7, 0x0006, 0x10},   // another status
        {12, 0x0006, 1},     // an unexpected payload
        {13, 0x2003, 0x02},  // more payload than arrives
        {16, 0x2003, 2},     // count
        {35, 0x0101, 0},     // a zero in the serial number
    };
    for (const Case& c : cases) {
        Script script;
        script.edit = [&c](uint16_t command, Bytes reply) {
            if (command == c.command) {
                reply[c.at] = c.value;
            }
            return reply;
        };
        Device device(script);
        kvtool::Connected connected = kvtool::ConnectAny("127.0.0.1", device.Port(), Millis(2000));
        kvtool::ProtocolClient client(std::move(connected.fd), Millis(500));
        const ExitCode code = CodeOf([&client] {
            (void)client.Login();
            (void)client.Heartbeat();
            (void)client.SerialNumber();
            (void)client.Info();
            return ExitCode::kDone;
        });
        EXPECT_EQ(code, ExitCode::kBadReply) << std::hex << c.command << " at " << c.at;
    }
}

TEST(KvtoolProtocol, SilenceAndUnterminatedTexts) {
    struct Case {
        std::function<Bytes(uint16_t, Bytes)> edit;
        ExitCode code;
    };
    const Case cases[] = {
        {[](uint16_t, const Bytes&) { return Bytes(); }, ExitCode::kNoReply},
        {[](uint16_t, Bytes reply) { return Bytes(reply.begin(), reply.begin() + 31); },
         ExitCode::kNoReply},
        {[](uint16_t command, Bytes reply) {
             if (command == 0x2003) {
                 std::fill(reply.begin() + 480, reply.begin() + 496, uint8_t{'x'});
             }
             return reply;
         },
         ExitCode::kBadReply},
    };
    for (const Case& c : cases) {
        Script script;
        script.edit = c.edit;
        Device device(script);
        kvtool::UpgradeRecord record;
        EXPECT_EQ(Upgrade(device, Pattern(100), &record), c.code);
        EXPECT_TRUE(device.Stream().empty());
    }
}

TEST(KvtoolFollow, TellsLeavingStayingAndComingBackApart) {
    struct Case {
        const char* what;
        std::function<void(Script*)> arrange;
        const char* observed;
        ExitCode code;
        const char* version = "";
    };
    const Case cases[] = {
        {"stays", [](Script* s) { s->leaves = false; }, "not seen to leave", ExitCode::kNeverLeft},
        {"leaves", [](Script*) {}, "not seen alive", ExitCode::kNotSeenAlive},
        {"alive", [](Script* s) { s->aliveAfter = Millis(200); }, "alive: port", ExitCode::kDone},
        {"alive, but tells no version", [](Script* s) { s->aliveAfter = Millis(200); },
         "alive: port", ExitCode::kNotSeenAlive, "2"},
        {"comes back", [](Script* s) { s->backAfter = Millis(200); }, "session is a new one",
         ExitCode::kBackInRecovery},
        // Away for less than the time between two checks: only the new session shows it.
        {"blinks", [](Script* s) { s->backAfter = Millis(0); }, "session is a new one",
         ExitCode::kBackInRecovery},
    };
    for (const Case& c : cases) {
        Script script;
        script.leaves = true;
        c.arrange(&script);
        Device device(script);
        Journey run;
        run.target.alivePort = device.AlivePort();
        run.target.version = c.version;
        EXPECT_EQ(run.Of(device, Pattern(9000)), c.code) << c.what;
        EXPECT_NE(Observed(run.record).find(c.observed), std::string::npos) << c.what << ":\n"
                                                                            << Observed(run.record);
        EXPECT_EQ(device.Stream().size(), 9037U) << "nothing is sent after the trailer";
    }
}

// A port that was always open does not show that the device is alive.
TEST(KvtoolFollow, AnOpenPortCountsOnlyAfterItWasClosed) {
    const Device other(Script{});
    Script script;
    script.leaves = true;
    Device device(script);
    Journey run;
    run.target.alivePort = other.Port();
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNotSeenAlive) << Observed(run.record);
}

TEST(KvtoolFollow, ConcludesNothingFromThisPcsOwnTrouble) {
    struct Case {
        const char* arrange;
        const char* observed;
    };
    const Case cases[] = {
        {"ip address flush dev pc0", "this PC cannot look: it has no way"},
        {"ip link set pc0 down", "pc0 is down"},
        {"ip link set wire down", "pc0 has no link"},
        // A neighbour refuses connections to the device's address. This PC has lost the address it
        // used.
        {"ip address delete 10.7.0.2/24 dev pc0; ip route add local 10.7.0.2 dev lo",
         "no longer has the address"},
    };
    for (const Case& c : cases) {
        const Link link;
        Script script;
        script.leaves = true;
        Device device(script, 0, "10.7.0.2");
        Journey run;
        run.host = "10.7.0.2";
        run.times.leave = run.times.back = Millis(500);
        run.onAcceptance = [&c] { Command(c.arrange); };
        EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNeverLeft) << c.arrange;
        EXPECT_NE(Observed(run.record).find(c.observed), std::string::npos) << c.arrange << ":\n"
                                                                            << Observed(run.record);
    }
}

TEST(KvtoolFollow, FindsItUnderAnotherAddress) {
    const Link link;
    const fake::Responder responder("10.7.0.3", 0, SearchReply("10.7.0.3"));
    Script script;
    script.leaves = true;
    Device before(script, 0, "10.7.0.2");
    Journey run;
    run.host = "10.7.0.2";
    run.times.ask = Millis(2000);
    run.target.discoveryPort = responder.Port();
    run.target.mac = kMac;
    // The port comes from the reply.
    Device after(Script{}, 80, "10.7.0.3");
    EXPECT_EQ(run.Of(before, Pattern(100)), ExitCode::kBackInRecovery) << Observed(run.record);
    EXPECT_EQ(run.record.address, "10.7.0.3:80");
    EXPECT_NE(Observed(run.record).find("firmware is PRT7K"), std::string::npos);
}

// Another device has taken the address.
TEST(KvtoolFollow, AnotherDeviceAtTheAddressIsNotTheDevice) {
    const Link link;
    const fake::Responder responder("10.7.0.2", 0, SearchReply("10.7.0.2", "02:00:5E:10:20:31"));
    Script script;
    script.leaves = true;
    script.backAfter = Millis(100);
    Device device(script, 0, "10.7.0.2");
    Journey run;
    run.host = "10.7.0.2";
    run.times.ask = Millis(2000);
    run.target.discoveryPort = responder.Port();
    run.target.mac = kMac;
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNotSeenAlive) << Observed(run.record);
    EXPECT_NE(Observed(run.record).find("another device answers"), std::string::npos);
}

TEST(KvtoolFollow, ATalkingDeviceNeitherHoldsItUpNorFillsTheRecord) {
    Script script;
    script.talks = true;
    Device device(script);
    Journey run;
    run.times.leave = run.times.back = Millis(500);
    const auto start = kvtool::Clock::now();
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNeverLeft) << Observed(run.record);
    EXPECT_LT(kvtool::SecondsSince(start), 20);
    EXPECT_LT(run.record.observed.size(), 8U) << Observed(run.record);
}

TEST(KvtoolConnect, NobodyThere) {
    uint16_t port = 0;
    { port = Device(Script{}).Port(); }
    EXPECT_EQ(CodeOf([port] {
                  (void)kvtool::ConnectAny("127.0.0.1", port, Millis(2000));
                  return ExitCode::kDone;
              }),
              ExitCode::kUnreachable);
}

}  // namespace
