// kvtool: how it follows a scripted device after an accepted upgrade.
#include "tests/support/upgrade_journey.h"

namespace {

using namespace fake;
using kvtool::ExitCode;

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
        // The discovery reply names port 80. However late the device is found, it is looked at.
        {"10.7.0.3", kMac, {}, kLong, ExitCode::kBackInRecovery, "firmware is PRT7K"},
        {"10.7.0.3", kMac, {}, Millis(0), ExitCode::kBackInRecovery, "firmware is PRT7K"},
        // Another device has taken the address in the meantime.
        {"10.7.0.2", "02:00:5E:10:20:31", Millis(100), Millis(2000), ExitCode::kNotSeenAlive,
         "another device answers"},
    };
    const Link link;
    for (const auto& c : cases) {
        const Device moved(Script{}, 80, "10.7.0.3");
        const fake::Responder responder(c.address, 0, SearchReply(c.address, c.mac));
        Script script;
        script.leaves = true;
        script.backAfter = c.backAfter;
        Device device(script, 0, "10.7.0.2");
        Journey run;
        run.host = "10.7.0.2";
        run.times.ask = kLong;
        run.times.searchEvery = Millis(0);
        run.times.back = c.back;
        if (c.code == ExitCode::kNotSeenAlive) {
            run.times.search = kShort;  // nobody ends this search
        }
        run.target.discoveryPort = responder.Port();
        run.target.mac = kMac;
        EXPECT_EQ(run.Of(device, Pattern(100)), c.code) << Observed(run.record);
        EXPECT_NE(Observed(run.record).find(c.observed), std::string::npos) << c.observed;
        EXPECT_EQ(run.record.address == "10.7.0.3:80", c.code == ExitCode::kBackInRecovery);
    }
}

}  // namespace
