// kvtool fleet against scripted devices: the journal, the rules of a run, and resuming a run that
// was killed at any point.
#include <sys/mount.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/support/fake_device.h"
#include "tests/support/surroundings.h"
#include "tests/support/wire.h"
#include "tools/cli/fleet_view.h"
#include "tools/device/device_lock.h"
#include "tools/fleet/report.h"
#include "tools/fleet/runner.h"

namespace {

using namespace kvtool::fleet;
using fake::Device;
using fake::Script;
using kv_test::Contains;
using kvtool::Bytes;
using kvtool::ExitCode;
using kvtool::Millis;
using kvtool::ToolError;

constexpr uint16_t kRtsp = 554;

std::string MacOf(int number) {
    char text[18];
    (void)snprintf(text, sizeof text, "02:00:5E:00:%02X:%02X", number / 256, number % 256);
    return text;
}

// A device with an address of its own, where it answers searches. It is alive after an upgrade
// unless its script says otherwise.
class Camera {
  public:
    explicit Camera(int number, Script script = Alive())
        : mac(MacOf(number)),
          address("127.1." + std::to_string(number / 200) + "." + std::to_string(number % 200 + 1)),
          device(std::move(script), 80, address),
          responder_(address, 6789,
                     {kv_test::ExpectedReply({address, "255.255.255.0", "", "", mac})}, address) {}
    static Script Alive() {
        Script script;
        script.leaves = true;
        script.aliveAfter = Millis(100);
        script.alivePort = kRtsp;
        return script;
    }
    static Script BackInRecovery() {
        Script script;
        script.leaves = true;
        script.backAfter = Millis(50);
        return script;
    }
    Member AsMember() const {
        Member member;
        member.id = member.mac = mac;
        member.address = address;
        member.commandPort = 80;
        return member;
    }

    std::string mac;
    std::string address;
    Device device;

  private:
    fake::Responder responder_;
};

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
        request.times.stall = Millis(2000);
        request.times.verify = Millis(2000);
        request.times.leave = request.times.back = Millis(1500);
        request.times.probeEvery = Millis(50);
        request.times.ask = Millis(500);
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
    for (const std::string& text : {"x\n" + whole, whole + "{\"schema\":2}\n", std::string("\n"),
                                    std::string("firmware"), std::string("{\"schemes")}) {
        kv_test::WriteFile(path, text);
        EXPECT_THROW((void)Journal::Open(path), ToolError) << text;
        EXPECT_EQ(kv_test::ReadFile(path), text);
    }
    EXPECT_THROW((void)ReadJournal(folder.Path()), ToolError) << "a folder";
}

// However often somebody asks for another attempt at a device that has failed, there is one at a
// time, and none once the device is done.
TEST(FleetRun, OneAttemptAtATimeAtADevice) {
    std::optional<Camera> camera(std::in_place, 1);
    const Member member = camera->AsMember();
    camera.reset();
    Flight flight;
    flight.request.retries = 100;
    flight.request.keepOpen = true;
    Journal journal = Journal::Open(flight.path);
    journal.WriteRun(1, {"package", flight.package.size(), "md5"}, {member});
    Runner runner(flight.request, &journal, &flight.listener);
    runner.Add(member);
    std::thread run([&runner] { runner.Run(); });
    EXPECT_TRUE(kv_test::WaitUntil([&] {
        runner.TryAgain(member.id, member.address);
        const Progress now = runner.Find(member.id)->progress;
        if (now.attempts == 3 && !camera) {
            camera.emplace(1);
        }
        return now.state == State::kDone;
    }));
    flight.startNothing.Raise();
    run.join();
    EXPECT_EQ(camera->device.Accepted(), 1);
    EXPECT_EQ(ReadJournal(flight.path).members.at(0).progress.state, State::kDone);
    EXPECT_EQ(kv_test::CountOf(kv_test::ReadFile(flight.path), "process"), 1U)
        << "an attempt met the lock of another one";
}

TEST(FleetRun, TheRestWaitsForTheCanary) {
    Camera dead(1, Camera::BackInRecovery());
    Camera second(2);
    Camera third(3);
    Flight flight;
    flight.request.canaries = 1;
    flight.Fly({dead.AsMember(), second.AsMember(), third.AsMember()});
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
    again.Fly({second.AsMember(), third.AsMember()});
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
    flight.Fly({wrong.AsMember(), unlucky.AsMember(), good.AsMember()});
    EXPECT_EQ(flight.members[0].code, ExitCode::kRefused);
    EXPECT_EQ(flight.members[0].progress.attempts, 1)
        << "a wrong identity stays wrong, so no second attempt";
    EXPECT_TRUE(wrong.device.UpgradeRequest().empty());
    EXPECT_EQ(flight.members[1].code, ExitCode::kLost);
    EXPECT_EQ(flight.members[1].progress.attempts, 3);
    EXPECT_EQ(flight.StateOf(2), State::kDone) << "it was started before the second failure";
    Flight strict;
    strict.request.jobs = 1;
    strict.request.maxFailures = 1;
    Camera untouched(4);
    strict.Fly({wrong.AsMember(), untouched.AsMember()});
    EXPECT_EQ(strict.StateOf(1), State::kPlanned);
    EXPECT_EQ(untouched.device.Accepted(), 0);
    EXPECT_EQ(ReadJournal(strict.path).members.at(1).progress.state, State::kPlanned);

    // Devices without a verdict may have accepted, so neither this run nor the next sends again.
    Script silent;
    silent.verdict = fake::Verdict::kSilent;
    Script restarts = Camera::BackInRecovery();
    restarts.verdict = fake::Verdict::kSilent;
    Camera mute(5, silent);
    Camera restarted(6, restarts);
    Camera served(7);
    Flight doubt;
    doubt.request.retries = 2;
    doubt.request.times.verify = Millis(300);
    doubt.Fly({mute.AsMember(), restarted.AsMember(), served.AsMember()});
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
    flight.Fly({first.AsMember(), second.AsMember()});
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
    leave.Fly({third.AsMember()});
    EXPECT_LT(kvtool::SecondsSince(start), 20);
    EXPECT_EQ(leave.StateOf(0), State::kUploading);
}

TEST(FleetRun, ADeviceThatSomebodyElseUpgradesIsLeftAlone) {
    Camera camera(1);
    Flight flight;
    const kvtool::DeviceLock lock(camera.mac);
    flight.Fly({camera.AsMember()});
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
        Member member = camera.AsMember();
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

kv_test::CommandResult Tool(const std::string& arguments, const std::string& environment = "") {
    return kv_test::Run(environment + " " + KVTOOL_PATH + " fleet " + arguments + " </dev/null");
}

// Kills a run once line `line` of the journal is on the disk, then resumes it.
void KillAndResume(int line) {
    Camera first(2 * line);
    Camera second(2 * line + 1);
    const kv_test::Folder folder;
    const std::string journal = folder.Path("journal");
    const std::string times =
        " --yes --leave-timeout 3 --back-timeout 20 --interface lo --journal " + journal;
    const auto killed =
        Tool("upgrade /tmp/good " + first.address + " " + second.address + times,
             "KILL_AT_SYNC=" + std::to_string(line) +
                 " LD_PRELOAD=" KILL_AT_SYNC " ASAN_OPTIONS=verify_asan_link_order=0");
    EXPECT_EQ(killed.status, 137) << line << "\n" << killed.output;
    const JournalContents left = ReadJournal(journal);
    EXPECT_EQ(kv_test::CountOf(kv_test::ReadFile(journal), "\n"), static_cast<size_t>(line));
    const auto resumed = Tool("upgrade /tmp/good --resume" + times);
    EXPECT_EQ(resumed.status, 0) << line << "\n" << resumed.output;
    for (size_t i = 0; i < left.members.size(); ++i) {
        if (left.members[i].progress.state == State::kFinishing) {
            EXPECT_TRUE(kv_test::InOrder(resumed.output, {left.members[i].id, "in doubt"}));
        }
    }
    EXPECT_EQ(first.device.Accepted(), 1) << line << "\n" << resumed.output;
    EXPECT_EQ(second.device.Accepted(), 1) << line << "\n" << resumed.output;
    EXPECT_EQ(Count(ReadJournal(journal).members).done, 2U);
}

TEST(FleetTool, ResumesAfterAKillAtEachChangeOfState) {
    kv_test::RequireSandbox();
    kv_test::WriteFile("/tmp/app", std::string(20000, 'a'));
    ASSERT_EQ(kv_test::Run(KVTOOL_PATH " pack -o /tmp/good app=/tmp/app").status, 0);
    constexpr int kLines = 12;  // a run, five states of two devices, an end
    std::vector<std::thread> runs;
    for (int line = 1; line <= kLines; ++line) {
        runs.emplace_back(KillAndResume, line);
    }
    for (std::thread& run : runs) {
        run.join();
    }
}

TEST(FleetTool, RefusesBeforeAnythingIsSent) {
    kv_test::WriteFile("/tmp/app", std::string(20000, 'a'));
    ASSERT_EQ(kv_test::Run(KVTOOL_PATH " pack -o /tmp/good app=/tmp/app").status, 0);
    kv_test::WriteFile("/tmp/damaged", "no journal\n");
    Camera camera(1);
    const std::string one = "upgrade /tmp/good " + camera.address + " --journal /tmp/j1 ";
    EXPECT_EQ(Tool(one).status, 2) << "no terminal on which to ask";
    EXPECT_EQ(Tool("upgrade /tmp/good --yes").status, 2) << "no device is named";
    EXPECT_EQ(Tool(one + "--yes --resume").status, 2) << "nothing to resume";
    EXPECT_EQ(Tool(one + "--yes --match colour=red").status, 2);
    EXPECT_EQ(Tool("upgrade /tmp/app --yes " + camera.address).status, 3);
    EXPECT_EQ(Tool("upgrade /tmp/good --yes --from /dev/null").status, 2) << "an empty list";
    EXPECT_EQ(Tool("report /tmp/damaged").status, 3);
    EXPECT_EQ(Tool("report /dev/null").status, 3);
    const auto plan = Tool(one + "--dry-run");
    EXPECT_EQ(plan.status, 0);
    EXPECT_TRUE(kv_test::InOrder(plan.output, {camera.mac, camera.address, "_V1.0.0", "upgrade"}))
        << plan.output;
    EXPECT_FALSE(std::filesystem::exists("/tmp/j1"));
    EXPECT_TRUE(camera.device.UpgradeRequest().empty());

    // An absent device does not keep the other one from being upgraded.
    const auto some = Tool("upgrade /tmp/good 127.1.0.250 " + camera.address +
                           " --yes --interface lo --journal /tmp/j2 --json 2>/dev/null");
    EXPECT_EQ(some.status, 13);
    std::istringstream lines(some.output);
    nlohmann::json last;
    for (std::string line; std::getline(lines, line);) {
        last = nlohmann::json::parse(line);
        EXPECT_EQ(last["schema"], 1);
    }
    EXPECT_EQ(last["command"], "fleet upgrade");
    EXPECT_EQ(last["done"], 1) << some.output;
    EXPECT_EQ(last["devices"][0]["code"], 4);
    EXPECT_EQ(Tool("upgrade /tmp/good --yes --journal /tmp/j2 " + camera.address).status, 2)
        << "the journal has a run";
    const auto report = Tool("report /tmp/j2 --csv");
    EXPECT_EQ(kv_test::CountOf(report.output, "\r\n"), 3U) << report.output;
    EXPECT_TRUE(Contains(Tool("report /tmp/j2 --html").output, "<td>" + camera.mac + "</td>"));
    const JournalContents journal = ReadJournal("/tmp/j2");
    for (const size_t width : {size_t{80}, size_t{120}, size_t{400}}) {
        std::ostringstream table;
        WriteTable(table, journal, width);
        EXPECT_TRUE(kv_test::InOrder(table.str(), {"device ", "state ", "answers no search"}));
        std::istringstream rows(table.str());
        for (std::string row; std::getline(rows, row) && !Contains(row, "failed (4)");) {
            EXPECT_LE(row.size(), width) << row;
        }
    }
}

TEST(FleetView, RowsFitTheWindow) {
    kvtool::FleetRow row;
    row.member.id = MacOf(1);
    row.member.text = "fa\u00efled " + std::string(200, 'x');
    row.last = std::string(100, 'y');
    row.upload = {500, 1000, 2, 0, 25};
    row.rate.Add(0, 0);
    row.rate.Add(2, 500);
    const auto now = kvtool::Clock::now();
    for (size_t columns = 10; columns < 150; ++columns) {
        for (int state = 0; state <= static_cast<int>(State::kFailed); ++state) {
            row.member.progress.state = static_cast<State>(state);
            EXPECT_LT(kvtool::Width(kvtool::FleetRowText(row, now, columns)), columns);
        }
    }
    row.member.progress.state = State::kUploading;
    const std::string text = kvtool::FleetRowText(row, now, 100);
    EXPECT_TRUE(kv_test::InOrder(text, {MacOf(1), "uploading", "50%", "2 s left", "[###"})) << text;
    std::vector<kvtool::FleetRow> rows(4);
    rows[1].member.progress.state = State::kFailed;
    rows[3].member.progress.state = State::kUploading;
    EXPECT_EQ(kvtool::RowsToShow(rows, 2), (std::vector<size_t>{1, 3}));
}

}  // namespace
