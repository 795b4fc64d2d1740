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
    uint16_t Port() const { return port_; }
    void Start() const { EXPECT_EQ(listen(fd_.Get(), 8), 0); }

  private:
    UniqueFd fd_ = UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    uint16_t port_ = fake::Bind(fd_.Get(), "127.0.0.1", 0);
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

// A byte pattern whose period is not the size of a read or a send.
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
        EXPECT_LT(kvtool::SecondsSince(start), 10) << c.what;
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

TEST(KvtoolFollow, TellsLeavingStayingAndComingBackApart) {
    // The first look at the application's port is over by then.
    const auto startsLater = [](Journey* run, const Application* application) {
        run->waitedFor = "the connection of the upgrade has ended";
        run->onText = [application] { application->Start(); };
    };
    const struct {
        const char* what;
        std::function<void(Journey*, Script*, const Application*)> arrange;
        const char* observed;
        ExitCode code;
    } cases[] = {
        {"stays",
         [](Journey* run, Script* s, auto) {
             s->leaves = false;
             run->times.leave = kShort;
         },
         "not seen to leave", ExitCode::kNeverLeft},
        {"leaves", [](Journey* run, Script*, auto) { run->times.back = kShort; }, "not seen alive",
         ExitCode::kNotSeenAlive},
        {"comes back", [](Journey*, Script* s, auto) { s->backAfter = Millis(200); },
         "session is new", ExitCode::kBackInRecovery},
        // Away only between two looks: the new session shows the restart.
        {"blinks", [](Journey*, Script* s, auto) { s->backAfter = Millis(0); }, "session is new",
         ExitCode::kBackInRecovery},
        {"alive", [&](Journey* run, Script*, auto application) { startsLater(run, application); },
         "alive: port", ExitCode::kDone},
        {"alive, but a version is expected",
         [&](Journey* run, Script*, auto application) {
             startsLater(run, application);
             run->times.back = Millis(2000);
             run->target.version = "2";
         },
         "alive: port", ExitCode::kNotSeenAlive},
        // A port that has been open from the start does not show that the application has started.
        {"port open all the time",
         [](Journey* run, Script*, auto application) {
             application->Start();
             run->times.back = kShort;
         },
         "never seen closed", ExitCode::kNotSeenAlive},
        // Such a device neither delays kvtool nor fills the record.
        {"talks for ever",
         [](Journey* run, Script* s, auto) {
             s->leaves = false;
             s->talks = true;
             run->times.leave = run->times.back = run->times.probeReply = Millis(300);
         },
         "not seen to leave", ExitCode::kNeverLeft},
    };
    for (const auto& c : cases) {
        const Application application;
        Script script;
        script.leaves = true;
        Journey run;
        run.target.alivePort = application.Port();
        c.arrange(&run, &script, &application);
        Device device(script);
        const auto start = kvtool::Clock::now();
        EXPECT_EQ(run.Of(device, Pattern(9000)), c.code) << c.what;
        EXPECT_LT(kvtool::SecondsSince(start), 20) << c.what;
        EXPECT_LT(run.record.observed.size(), 8U) << c.what << ":\n" << Observed(run.record);
        EXPECT_NE(Observed(run.record).find(c.observed), std::string::npos) << c.what << ":\n"
                                                                            << Observed(run.record);
        EXPECT_EQ(device.Stream().size(), 9037U) << "nothing is sent after the trailer";
    }
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

TEST(KvtoolFollow, KnowsTheDeviceByItsMac) {
    const struct {
        const char* address;  // where a device answers searches
        const char* mac;
        std::optional<Millis> backAfter;
        Millis back;
        ExitCode code;
        const char* observed;
    } cases[] = {
        // The discovery reply names port 80.
        {"10.7.0.3", kMac, {}, kLong, ExitCode::kBackInRecovery, "firmware is PRT7K"},
        // Another device has taken the address in the meantime.
        {"10.7.0.2", "02:00:5E:10:20:31", Millis(100), Millis(2000), ExitCode::kNotSeenAlive,
         "another device answers"},
    };
    const Link link;
    Device moved(Script{}, 80, "10.7.0.3");
    for (const auto& c : cases) {
        const fake::Responder responder(c.address, 0, SearchReply(c.address, c.mac));
        Script script;
        script.leaves = true;
        script.backAfter = c.backAfter;
        Device device(script, 0, "10.7.0.2");
        Journey run;
        run.host = "10.7.0.2";
        run.times.ask = kLong;
        run.times.back = c.back;
        run.target.discoveryPort = responder.Port();
        run.target.mac = kMac;
        EXPECT_EQ(run.Of(device, Pattern(100)), c.code) << Observed(run.record);
        EXPECT_NE(Observed(run.record).find(c.observed), std::string::npos) << c.observed;
        EXPECT_EQ(run.record.address == "10.7.0.3:80", c.code == ExitCode::kBackInRecovery);
    }
}

}  // namespace
