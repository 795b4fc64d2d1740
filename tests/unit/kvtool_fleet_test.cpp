// The engine of kvtool fleet against scripted devices: states, journal and the rules of a run.
#include <sys/mount.h>

#include <set>

#include "tests/support/fake_camera.h"
#include "tests/support/surroundings.h"
#include "tools/device/device_lock.h"
#include "tools/fleet/plan.h"
#include "tools/fleet/report.h"
#include "tools/fleet/runner.h"

namespace {

using namespace kvtool::fleet;
using fake::Camera;
using fake::Script;
using kv_test::Contains;
using kvtool::Bytes;
using kvtool::ExitCode;
using kvtool::Millis;
using kvtool::ToolError;

Member MemberOf(const Camera& camera) {
    Member member;
    member.id = member.mac = camera.mac;
    member.address = camera.address;
    member.commandPort = 80;
    return member;
}

class Silent : public RunListener {
  public:
    void Changed(size_t member, const Member& what) override {
        if (onState) {
            onState(member, what);
        }
    }
    void Progress(size_t, const kvtool::UploadProgress&) override {}
    void Line(size_t, const std::string&) override {}
    void Note(const std::string&) override {}
    void Stopping(const std::string&) override {}
    void Tick() override {}
    std::function<void(size_t, const Member&)> onState;
};

// A run without the command line.
struct Flight {
    Bytes package = Bytes(5000, 'p');
    kvtool::Interrupt startNothing;
    kvtool::Interrupt stopNow;
    RunRequest request{package, "PRT7K", "38QX",       8,      0, 0, 0, Millis(20), {}, {}, {}, {},
                       "",      false,   startNothing, stopNow};
    kv_test::Folder folder;
    std::string path = folder.Path("journal");
    Silent listener;
    std::vector<Member> members;
    std::string stopped;
    std::string trouble;

    Flight() {
        request.discovery.port = 6789;
        request.discovery.timeout = Millis(200);
        request.times.headerGap = Millis(100);
        request.times.firstLook = Millis(200);
        request.times.probeEvery = Millis(50);
        // No case reaches these.
        request.times.stall = request.times.verify = request.times.ask = Millis(20000);
        request.times.leave = request.times.back = Millis(20000);
    }
    Flight& Fly(const std::vector<Member>& planned) {
        Journal journal = Journal::Open(path);
        journal.WriteRun(1, {"package", package.size(), "md5"}, planned);
        Runner runner(request, &journal, &listener);
        for (const Member& member : planned) {
            runner.Add(member);
        }
        runner.Run();
        members = runner.Members();
        stopped = runner.Stopped();
        trouble = runner.JournalTrouble();
        return *this;
    }
    State StateOf(size_t i) const { return members.at(i).progress.state; }
};

TEST(FleetState, NobodyIsUpgradedTwice) {
    Progress progress;
    for (const State state : {State::kConnecting, State::kUploading, State::kFailed,
                              State::kConnecting, State::kUploading, State::kFinishing}) {
        EXPECT_EQ(NextFor(progress), Next::kUpgrade) << StateName(progress.state);
        progress.Enter(state);
    }
    EXPECT_EQ(progress.attempts, 2);
    EXPECT_EQ(NextFor(progress), Next::kLook);
    EXPECT_THROW(progress.Enter(State::kConnecting), std::logic_error);
    progress.Enter(State::kFailed);
    EXPECT_EQ(NextFor(progress), Next::kLook) << "it may have accepted in spite of the failure";
    EXPECT_THROW(progress.Enter(State::kConnecting), std::logic_error);
    progress.Enter(State::kLooking);
    EXPECT_EQ(NextFor(progress), Next::kLook);
    Progress settled = progress;
    settled.Enter(State::kConnecting);
    progress.Enter(State::kDone);
    EXPECT_EQ(NextFor(progress), Next::kNothing);
    EXPECT_THROW(progress.Enter(State::kConnecting), std::logic_error);
    EXPECT_THROW(progress.Enter(State::kFailed), std::logic_error);
}

TEST(FleetJournal, ATornLineIsIgnoredAndADamagedOneIsRefused) {
    const kv_test::Folder folder;
    const std::string path = folder.Path("journal");
    Member member;
    member.id = "02:00:5E:00:00:01";
    member.address = "10.0.0.1";
    {
        Journal journal = Journal::Open(path);
        journal.WriteRun(1, {"a.FLS", 7, "md5"}, {member});
        EXPECT_THROW(Journal::Open(path), ToolError) << "two writers";
        member.progress.Enter(State::kConnecting);
        journal.WriteState(&member);
    }
    const std::string whole = kv_test::ReadFile(path);
    member.progress.Enter(State::kUploading);
    Journal::Open(path).WriteState(&member);
    const std::string longer = kv_test::ReadFile(path);
    JournalContents read = ReadJournal(path);
    (void)Journal::Continue(path, read);
    read.whole = whole.size();
    EXPECT_THROW((void)Journal::Continue(path, read), ToolError) << "written since it was read";
    for (size_t size = whole.size(); size < longer.size(); ++size) {
        kv_test::WriteFile(path, longer.substr(0, size));
        const JournalContents contents = ReadJournal(path);
        EXPECT_EQ(contents.members.at(0).progress.state, State::kConnecting);
        EXPECT_EQ(contents.torn, size > whole.size());
    }
    (void)Journal::Open(path);
    EXPECT_EQ(kv_test::ReadFile(path), whole) << "the torn line is cut off";
    kv_test::WriteFile(path, whole + whole.substr(whole.find('\n') + 1));
    EXPECT_EQ(ReadJournal(path).members.at(0).progress.attempts, 2);
    // A file that is not a journal keeps its bytes, even if it has no line end.
    std::string late = whole;
    (void)late.insert(late.rfind("Z\""), "e99");
    for (const std::string& text :
         {"x\n" + whole, late, whole + "{\"schema\":2}\n", std::string("\n"),
          std::string("firmware"), std::string("{\"schemes")}) {
        kv_test::WriteFile(path, text);
        EXPECT_THROW((void)Journal::Open(path), ToolError) << text;
        EXPECT_EQ(kv_test::ReadFile(path), text);
    }
    EXPECT_THROW((void)ReadJournal(folder.Path()), ToolError) << "a folder";
}

TEST(FleetJournal, ItsTextsReachATerminalEscaped) {
    const kv_test::Folder folder;
    Member member;
    member.id = member.address = "\x1b[31m";
    member.code = ExitCode::kRefused;
    member.text = "\x1b[2J\u202e\\x41";  // ends in an escape, as Printable writes it
    Journal::Open(folder.Path("j")).WriteRun(1, {"a.FLS", 7, "\x1bmd5"}, {member});
    const JournalContents contents = ReadJournal(folder.Path("j"));
    std::ostringstream out;
    WriteTable(out, contents, 0);
    WriteTroubles(out, contents.members);
    WriteCsv(out, contents);
    out << Intention(contents.members.at(0));
    EXPECT_TRUE(
        kv_test::InOrder(out.str(), {"\\x1Bmd5", "\\x1B[31m  \\x1B[31m", "\\x1B[2J", "\\x41"}));
    EXPECT_EQ(out.str().find(0x1b), std::string::npos) << out.str();
    for (const char* const time : {"2026-11-25T21:12:19.123Z", "2026-11-25T21:12:19.999Z"}) {
        EXPECT_EQ(TimeText(ParseTime(time).value_or(0)), time);
    }
}

// However often somebody asks for another attempt at a device that has failed, there is one at a
// time, and none once the device is done.
TEST(FleetRun, OneAttemptAtATimeAtADevice) {
    std::optional<Camera> camera(std::in_place, 1);
    const Member member = MemberOf(*camera);
    camera.reset();
    Flight flight;
    flight.request.retries = 100;
    flight.request.keepOpen = true;
    flight.request.times.ask = Millis(300);  // nobody answers at first
    Journal journal = Journal::Open(flight.path);
    journal.WriteRun(1, {"package", flight.package.size(), "md5"}, {member});
    Runner runner(flight.request, &journal, &flight.listener);
    runner.Add(member);
    std::thread run([&runner] { runner.Run(); });
    EXPECT_TRUE(kv_test::WaitUntil([&] {
        runner.TryAgain(member.id, member.address);
        const Progress now = runner.Find(member.id)->progress;
        if (now.attempts >= 3 && !camera) {
            camera.emplace(1);
        }
        return now.state == State::kDone;
    }));
    flight.startNothing.Raise();
    run.join();
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->device.Accepted(), 1);
    EXPECT_EQ(ReadJournal(flight.path).members.at(0).progress.state, State::kDone);
    EXPECT_EQ(kv_test::CountOf(kv_test::ReadFile(flight.path), "process"), 1U)
        << "an attempt met the lock of another one";
}

TEST(FleetRun, AWaitingDeviceIsNotQueuedAgain) {
    Flight flight;
    flight.request.times.ask = Millis(50);  // nobody answers
    Member member;
    member.id = member.mac = "02:00:5E:00:00:01";
    member.address = "127.0.0.1";
    member.progress.Enter(State::kConnecting);
    member.progress.Enter(State::kFailed);
    Journal journal = Journal::Open(flight.path);
    journal.WriteRun(1, {"package", flight.package.size(), "md5"}, {member});
    Runner runner(flight.request, &journal, &flight.listener);
    runner.Add(member);
    runner.TryAgain(member.id, member.address);
    runner.Run();
    EXPECT_EQ(runner.Members().at(0).progress.attempts, 2);
    EXPECT_EQ(runner.Members().at(0).progress.state, State::kFailed);
}

TEST(FleetRun, TheRestWaitsForTheCanary) {
    Camera dead(1, Camera::BackInRecovery());
    Camera second(2);
    Camera third(3);
    Flight flight;
    flight.request.canaries = 1;
    flight.Fly({MemberOf(dead), MemberOf(second), MemberOf(third)});
    EXPECT_EQ(flight.StateOf(0), State::kFailed);
    EXPECT_EQ(flight.members[0].code, ExitCode::kBackInRecovery) << flight.members[0].text;
    EXPECT_EQ(second.device.Accepted() + third.device.Accepted(), 0);
    EXPECT_TRUE(Contains(flight.stopped, "canary")) << flight.stopped;

    Flight again;
    again.request.canaries = 1;
    std::vector<std::string> order;
    again.listener.onState = [&order](size_t member, const Member& what) {
        order.push_back(std::to_string(member) + StateName(what.progress.state));
    };
    again.Fly({MemberOf(second), MemberOf(third)});
    EXPECT_EQ(again.StateOf(1), State::kDone) << again.members[1].text;
    const auto at = [&order](const std::string& text) {
        return std::find(order.begin(), order.end(), text) - order.begin();
    };
    EXPECT_LT(at("0done"), at("1connecting"));
}

TEST(FleetRun, FailuresStopNewStartsAndHarmlessOnesAreRetried) {
    Script other;
    other.ic = "OTHER";
    Script resets;
    resets.closeAfter = 1000;
    Camera wrong(1, other);
    Camera unlucky(2, resets);
    Camera good(3);
    Flight flight;
    flight.request.jobs = 1;
    flight.request.maxFailures = 2;
    flight.request.retries = 2;
    flight.Fly({MemberOf(wrong), MemberOf(unlucky), MemberOf(good)});
    EXPECT_EQ(flight.members[0].code, ExitCode::kRefused);
    EXPECT_EQ(flight.members[0].progress.attempts, 1)
        << "a wrong identity stays wrong, so no second attempt";
    EXPECT_TRUE(wrong.device.UpgradeRequest().empty());
    EXPECT_EQ(flight.members[1].code, ExitCode::kLost);
    EXPECT_EQ(flight.members[1].progress.attempts, 3);
    EXPECT_EQ(flight.StateOf(2), State::kDone) << "it was started before the second failure";
    Flight later;
    later.request.retries = 1;
    later.Fly({flight.members[1]});
    EXPECT_EQ(later.members[0].progress.attempts, 5) << "each run has retries of its own";
    Flight strict;
    strict.request.jobs = 1;
    strict.request.maxFailures = 1;
    Camera untouched(4);
    strict.Fly({MemberOf(wrong), MemberOf(untouched)});
    EXPECT_EQ(strict.StateOf(1), State::kPlanned);
    EXPECT_EQ(untouched.device.Accepted(), 0);
    EXPECT_EQ(ReadJournal(strict.path).members.at(1).progress.state, State::kPlanned);

    // Devices without a verdict may have accepted, so neither this run nor the next sends again.
    Script closes;
    closes.verdict = fake::Verdict::kClose;
    Script restarts = Camera::BackInRecovery();
    restarts.verdict = fake::Verdict::kSilent;
    Camera mute(5, closes);
    Camera restarted(6, restarts);
    Camera served(7);
    Flight doubt;
    doubt.request.retries = 2;
    doubt.Fly({MemberOf(mute), MemberOf(restarted), MemberOf(served)});
    EXPECT_EQ(doubt.StateOf(2), State::kDone) << doubt.members[2].text;
    const std::vector<Member> left = ReadJournal(doubt.path).members;
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(left.at(i).code, ExitCode::kNoVerdict) << left.at(i).text;
        EXPECT_EQ(left.at(i).progress.attempts, 1);
        EXPECT_EQ(NextFor(left.at(i).progress), Next::kLook);
    }
    Flight resumed;
    resumed.Fly({left.at(1)});
    EXPECT_EQ(resumed.members[0].code, ExitCode::kBackInRecovery) << resumed.members[0].text;
    EXPECT_EQ(resumed.members[0].progress.attempts, 1);
}

// A device that the plan refuses is a failure that the user has agreed to. A later run looks again.
TEST(FleetRun, RefusedDevicesStopNothingAndAreTriedAgain) {
    Camera refused(1);
    Camera good(2);
    Member planned = MemberOf(refused);
    planned.code = ExitCode::kRefused;
    planned.text = "two devices name its MAC address";
    Flight flight;
    flight.request.jobs = 1;
    flight.request.maxFailures = 1;
    flight.Fly({planned, MemberOf(good)});
    EXPECT_EQ(flight.StateOf(1), State::kDone) << flight.stopped;
    const Member left = ReadJournal(flight.path).members.at(0);
    EXPECT_EQ(left.progress.state, State::kFailed);
    EXPECT_FALSE(WillStart(planned));
    EXPECT_TRUE(WillStart(left)) << Intention(left);
    EXPECT_EQ(Intention(left), "upgrade unless it is refused again: " + planned.text);
    Flight others;
    others.request.matcher = kvtool::Matcher({"firmware=other"});
    Member unseen;
    unseen.id = refused.address;
    Camera third(3);
    others.Fly({left, unseen, MemberOf(third)});
    EXPECT_TRUE(Contains(others.members[0].text, "--match")) << others.members[0].text;
    EXPECT_TRUE(Contains(others.members[1].text, "--match")) << others.members[1].text;
    EXPECT_EQ(refused.device.Accepted(), 0);
    EXPECT_EQ(others.StateOf(2), State::kDone) << "the plan has judged it";
    Flight resumed;
    resumed.Fly({left});
    EXPECT_EQ(resumed.StateOf(0), State::kDone) << resumed.members[0].text;
}

// A name whose own search was missed, and the same device as the search among all found it.
TEST(FleetRun, ADeviceWithTwoNamesIsUpgradedOnce) {
    kv_test::RequireSandbox();
    (void)kv_test::Shell(
        "ip link add lan type veth peer name far && ip addr add 10.9.0.1/24 brd + dev lan && "
        "ip link set lan up && ip link set far up");
    Flight flight;
    PlanRequest request;
    request.all = true;
    request.hosts = {"10.9.0.1"};
    request.discovery = flight.request.discovery;
    request.times.ask = Millis(0);
    {
        const fake::Responder responder(
            "10.9.0.1", 6789,
            kv_test::ExpectedReply({"10.9.0.1", "255.255.255.0", "", "", fake::MacOf(9)}));
        Plan plan;
        EXPECT_TRUE(kv_test::WaitUntil([&] {
            plan = MakePlan(request, {});
            return plan.members.at(0).id == fake::MacOf(9);
        }));
        EXPECT_EQ(plan.members.size(), 1U);
    }
    (void)kv_test::Shell("ip link del lan");

    Camera camera(1);
    Member unseen;
    unseen.id = camera.address;
    flight.request.jobs = 1;
    flight.Fly({unseen, MemberOf(camera)});
    EXPECT_TRUE(Contains(flight.members[0].text, "in this run already")) << flight.members[0].text;
    EXPECT_EQ(flight.StateOf(1), State::kDone) << flight.members[1].text;
    EXPECT_EQ(camera.device.Accepted(), 1);
    Flight alone;
    alone.Fly({unseen});
    EXPECT_EQ(alone.members[0].mac, camera.mac) << alone.members[0].text;
}

TEST(FleetRun, InterruptsFinishOrLeave) {
    Script slow = Camera::Alive();
    slow.readStep = 500;
    slow.readPause = Millis(50);
    Camera first(1, slow);
    Camera second(2);
    Flight flight;
    flight.request.jobs = 1;
    flight.listener.onState = [&flight](size_t, const Member& what) {
        if (what.progress.state == State::kUploading) {
            flight.startNothing.Raise();
        }
    };
    flight.Fly({MemberOf(first), MemberOf(second)});
    EXPECT_EQ(flight.StateOf(0), State::kDone) << flight.members[0].text;
    EXPECT_EQ(flight.StateOf(1), State::kPlanned);

    Script stuck;
    stuck.stopAfter = 1000;
    Camera third(3, stuck);
    Flight leave;
    leave.request.times.stall = std::chrono::minutes(1);
    leave.listener.onState = [&leave](size_t, const Member& what) {
        if (what.progress.state == State::kUploading) {
            leave.startNothing.Raise();
            leave.stopNow.Raise();
        }
    };
    const auto start = kvtool::Clock::now();
    leave.Fly({MemberOf(third)});
    EXPECT_LT(kvtool::SecondsSince(start), 20);
    EXPECT_EQ(leave.StateOf(0), State::kUploading);
}

TEST(FleetRun, ADeviceThatSomebodyElseUpgradesIsLeftAlone) {
    Camera camera(1);
    Flight flight;
    const kvtool::DeviceLock lock(camera.mac);
    flight.Fly({MemberOf(camera)});
    EXPECT_EQ(flight.members[0].code, ExitCode::kBusy);
    EXPECT_TRUE(Contains(flight.members[0].text, "process " + std::to_string(getpid())))
        << flight.members[0].text;
    EXPECT_TRUE(camera.device.UpgradeRequest().empty());
}

// The disk becomes full at different lines. kvtool takes no step that it could not announce. It
// still follows what the device does by itself.
TEST(FleetRun, AFullDiskUnderTheJournalSendsNothingMore) {
    kv_test::RequireSandbox();
    std::set<State> lastLines;
    for (size_t filling = 3000; filling < 3750; filling += 60) {
        Camera camera(1);
        Flight flight;
        ASSERT_EQ(mount("tmpfs", flight.folder.Path().c_str(), "tmpfs", 0, "size=4k"), 0);
        Member member = MemberOf(camera);
        member.firmware = std::string(filling, 'x');
        flight.Fly({member});
        EXPECT_TRUE(Contains(flight.trouble, "No space left")) << flight.trouble;
        const JournalContents contents = ReadJournal(flight.path);
        EXPECT_FALSE(contents.torn);
        const State last = contents.members.at(0).progress.state;
        lastLines.insert(last);
        EXPECT_EQ(camera.device.Accepted(), last >= State::kFinishing ? 1 : 0);
        EXPECT_EQ(flight.StateOf(0), last >= State::kFinishing ? State::kDone : State::kFailed);
        EXPECT_EQ(umount2(flight.folder.Path().c_str(), MNT_DETACH), 0);
    }
    EXPECT_EQ(lastLines, (std::set<State>{State::kPlanned, State::kConnecting, State::kUploading,
                                          State::kFinishing, State::kAccepted}));
}

}  // namespace
