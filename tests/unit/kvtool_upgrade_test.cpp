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
        if (onText && text.find(waitedFor) != std::string::npos) {
            onText();
        }
    }
    void Progress(const kvtool::UploadProgress& progress) override {
        EXPECT_GE(progress.acknowledged, last);
        last = progress.acknowledged;
    }
    std::string waitedFor;
    std::function<void()> onText;  // called at each line that contains `waitedFor`
    uint64_t last = 0;
};

void Command(const std::string& line) {
    EXPECT_EQ(kv_test::Run(line + " 2>&1").status, 0) << line;
}

// A PC and its neighbours on one link: all of them are addresses of the PC's interface.
class Link {
  public:
    Link() {
        Command("ip link add pc0 type veth peer name wire && ip link set wire up");
        Command("ip link set pc0 up");
        for (const char* const address : {"10.7.0.2", "10.7.0.3"}) {
            Command(std::string("ip address add ") + address + "/24 brd + dev pc0");
        }
        AwaitCarrier(true);
    }
    ~Link() { Command("ip link delete pc0"); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    // The kernel updates the interface's flags some time after the link has changed.
    static void AwaitCarrier(bool expected) {
        EXPECT_TRUE(kv_test::WaitUntil([expected] {
            const std::string state = kv_test::Shell("ip link show pc0");
            return kv_test::Contains(state, "NO-CARRIER") != expected;
        }));
    }
};

// A camera's application: its port refuses connections until it starts.
class Application {
  public:
    Application() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = kv_test::Ipv4("127.0.0.1", 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_.Get(), kv_test::Generic(address), size), 0);
        EXPECT_EQ(getsockname(fd_.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    uint16_t Port() const { return port_; }
    void Start() const { EXPECT_EQ(listen(fd_.Get(), 8), 0); }

  private:
    UniqueFd fd_;
    uint16_t port_ = 0;
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

// Limits are long, because a slow machine must not make a case reach one by accident. A case that
// must reach a limit shortens that limit.
constexpr Millis kLong{20000};
constexpr Millis kShort{200};

kvtool::UpgradeTimes TestTimes() {
    kvtool::UpgradeTimes times;
    times.connect = times.reply = times.stall = times.verify = kLong;
    times.leave = times.back = times.probeReply = kLong;
    times.headerGap = Millis(20);
    times.firstLook = Millis(50);
    times.probeEvery = Millis(50);
    times.ask = Millis(200);
    times.search = Millis(300);
    times.searchEvery = Millis(100);
    return times;
}

// A byte pattern whose period is no read or send size.
Bytes Pattern(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    return bytes;
}

// The exit code of `work`, or of the error that it throws.
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
    kvtool::FollowTarget target;  // the session sets endpoint and local
    std::string waitedFor;
    std::function<void()> onText;
    kvtool::UpgradeTimes times = TestTimes();
    kvtool::UpgradeRecord record;

    ExitCode Of(const Device& device, const Bytes& package) {
        return CodeOf([&] {
            Listener listener;
            listener.waitedFor = waitedFor;
            listener.onText = onText;
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
    for (const size_t size : {1U, 4095U, 4097U, 8123U, 1048573U}) {
        const Bytes package = Pattern(size);
        kvtool::UpgradeRecord record;
        kvtool::UpgradeTimes times = TestTimes();
        Script script;
        const bool watchesChunks = size == 8123;
        if (watchesChunks) {
            // A slow device, but not as slow as the gap is long.
            script.commandPause = Millis(50);
            times.headerGap = times.firstLook = Millis(2000);
        }
        Device device(script);
        ASSERT_EQ(Upgrade(device, package, &record, times), ExitCode::kDone) << size;

        // It carries the session from the heartbeat.
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
        Millis stall = kLong;
        Millis verify = kLong;
    };
    // More than a socket buffers for sending (4 MiB), so that a refusal comes before the end.
    constexpr size_t kLarge = 8 << 20;
    const Case cases[] = {
        {"reset in front of everything", [](Script* s) { s->closeAfter = 0; }, ExitCode::kLost},
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
        // Ends at its limit, but must have read an answer before.
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
    };
    for (const Case& c : cases) {
        Script script;
        c.arrange(&script);
        Device device(script);
        kvtool::UpgradeRecord record;
        kvtool::UpgradeTimes times = TestTimes();
        times.stall = c.stall;
        times.verify = c.verify;
        EXPECT_EQ(Upgrade(device, Pattern(c.size), &record, times), c.code) << c.what;
        EXPECT_FALSE(record.accepted) << c.what;
        if (c.code == ExitCode::kLost || script.busyAfter) {
            EXPECT_LT(device.Stream().size(), c.size) << c.what;
        } else {
            EXPECT_TRUE(kv_test::WaitUntil([&] { return device.Stream().size() == c.size + 37; }))
                << c.what;
        }
    }
}

// kvtool has sent all of a small package before a busy device reads it. A later acceptance counts.
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
        {13, 0x2003, 0x02},  // more payload than there is
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
        kvtool::Connected connected = kvtool::ConnectAny("127.0.0.1", device.Port(), kLong);
        kvtool::ProtocolClient client(std::move(connected.fd), kLong);
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
        // A heartbeat's reply ahead of its request.
        {[](uint16_t command, Bytes reply) {
             if (command == 0) {
                 Bytes ahead = reply;
                 ahead[4] = 6;
                 reply.insert(reply.end(), ahead.begin(), ahead.end());
             }
             return command == 6 ? Bytes() : reply;
         },
         ExitCode::kBadReply},
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
        kvtool::UpgradeTimes times = TestTimes();
        times.reply = c.code == ExitCode::kNoReply ? kShort : kLong;
        EXPECT_EQ(Upgrade(device, Pattern(100), &record, times), c.code);
        EXPECT_TRUE(device.Stream().empty());
    }
}

TEST(KvtoolFollow, TellsLeavingStayingAndComingBackApart) {
    struct Case {
        const char* what;
        std::function<void(Journey*, Script*)> arrange;
        const char* observed;
        ExitCode code;
    };
    const Application application;
    // The first look at the application's port is over by then.
    const auto startsApplication = [&application](Journey* run, Script*) {
        run->waitedFor = "the connection of the upgrade has ended";
        run->onText = [&application] { application.Start(); };
    };
    const Case cases[] = {
        {"stays",
         [](Journey* run, Script* s) {
             s->leaves = false;
             run->times.leave = kShort;
         },
         "not seen to leave", ExitCode::kNeverLeft},
        {"leaves", [](Journey* run, Script*) { run->times.back = kShort; }, "not seen alive",
         ExitCode::kNotSeenAlive},
        {"comes back", [](Journey*, Script* s) { s->backAfter = Millis(200); }, "session is new",
         ExitCode::kBackInRecovery},
        // Away only between two looks: the new session shows the restart.
        {"blinks", [](Journey*, Script* s) { s->backAfter = Millis(0); }, "session is new",
         ExitCode::kBackInRecovery},
        {"alive", startsApplication, "alive: port", ExitCode::kDone},
    };
    for (const Case& c : cases) {
        Script script;
        script.leaves = true;
        Journey run;
        run.target.alivePort = application.Port();
        c.arrange(&run, &script);
        Device device(script);
        EXPECT_EQ(run.Of(device, Pattern(9000)), c.code) << c.what;
        EXPECT_NE(Observed(run.record).find(c.observed), std::string::npos) << c.what << ":\n"
                                                                            << Observed(run.record);
        EXPECT_EQ(device.Stream().size(), 9037U) << "nothing is sent after the trailer";
    }
}

TEST(KvtoolFollow, AnOpenPortIsNotEnoughWhenAVersionIsExpected) {
    const Application application;
    Script script;
    script.leaves = true;
    Device device(script);
    Journey run;
    run.times.back = Millis(2000);
    run.target.alivePort = application.Port();
    run.target.version = "2";
    run.waitedFor = "the connection of the upgrade has ended";
    run.onText = [&application] { application.Start(); };
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNotSeenAlive);
    EXPECT_NE(Observed(run.record).find("alive: port"), std::string::npos) << Observed(run.record);
}

// A port that was open all the time does not show that the application has started.
TEST(KvtoolFollow, AnOpenPortCountsOnlyAfterItWasClosed) {
    const Device other(Script{});
    Script script;
    script.leaves = true;
    Device device(script);
    Journey run;
    run.times.back = kShort;
    run.target.alivePort = other.Port();
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNotSeenAlive);
    EXPECT_NE(Observed(run.record).find("never seen closed"), std::string::npos)
        << Observed(run.record);
}

TEST(KvtoolFollow, ConcludesNothingFromThisPcsOwnTrouble) {
    struct Case {
        const char* arrange;
        const char* observed;
        bool losesCarrier = false;
    };
    const Case cases[] = {
        {"ip address flush dev pc0", "this PC cannot look: it cannot reach"},
        {"ip link set pc0 down", "pc0 is down"},
        {"ip link set wire down", "pc0 has no link", true},
        // Another host refuses in place of the device, and the PC has lost its address.
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
        run.times.leave = run.times.back = kShort;
        run.waitedFor = "has accepted";
        run.onText = [&c] {
            Command(c.arrange);
            Link::AwaitCarrier(!c.losesCarrier);
        };
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
    run.times.ask = kLong;
    run.target.discoveryPort = responder.Port();
    run.target.mac = kMac;
    // The discovery reply names this port.
    Device after(Script{}, 80, "10.7.0.3");
    EXPECT_EQ(run.Of(before, Pattern(100)), ExitCode::kBackInRecovery) << Observed(run.record);
    EXPECT_EQ(run.record.address, "10.7.0.3:80");
    EXPECT_NE(Observed(run.record).find("firmware is PRT7K"), std::string::npos);
}

// Another device has taken the address in the meantime.
TEST(KvtoolFollow, AnotherDeviceAtTheAddressIsNotTheDevice) {
    const Link link;
    const fake::Responder responder("10.7.0.2", 0, SearchReply("10.7.0.2", "02:00:5E:10:20:31"));
    Script script;
    script.leaves = true;
    script.backAfter = Millis(100);
    Device device(script, 0, "10.7.0.2");
    Journey run;
    run.host = "10.7.0.2";
    run.times.ask = kLong;
    run.target.discoveryPort = responder.Port();
    run.target.mac = kMac;
    run.times.back = Millis(2000);
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNotSeenAlive) << Observed(run.record);
    EXPECT_NE(Observed(run.record).find("another device answers"), std::string::npos);
}

TEST(KvtoolFollow, ATalkingDeviceNeitherHoldsItUpNorFillsTheRecord) {
    Script script;
    script.talks = true;
    Device device(script);
    Journey run;
    run.times.leave = run.times.back = run.times.probeReply = Millis(300);
    const auto start = kvtool::Clock::now();
    EXPECT_EQ(run.Of(device, Pattern(100)), ExitCode::kNeverLeft) << Observed(run.record);
    EXPECT_LT(kvtool::SecondsSince(start), 20);
    EXPECT_LT(run.record.observed.size(), 8U) << Observed(run.record);
}

TEST(KvtoolConnect, NobodyThere) {
    uint16_t port = 0;
    { port = Device(Script{}).Port(); }
    EXPECT_EQ(CodeOf([port] {
                  (void)kvtool::ConnectAny("127.0.0.1", port, kLong);
                  return ExitCode::kDone;
              }),
              ExitCode::kUnreachable);
}

}  // namespace
