// kvtool fleet and kvtool serve on a site of virtual boards, each with a different fault.
#include <csignal>
#include <set>

#include "tests/support/board.h"

using namespace kv_test;
using nlohmann::json;

namespace {

std::string MacOf(int number) {
    char text[18];
    (void)snprintf(text, sizeof text, "02:76:62:02:00:%02X", number);
    return text;
}

// A child process. The destructor ends it and waits for it.
class Child {
  public:
    explicit Child(Lines command, const std::string& output = "/dev/null") {
        pid_ = ForkDependent();
        if (pid_ == 0) {
            (void)freopen(output.c_str(), "w", stdout);
            (void)dup2(STDOUT_FILENO, STDERR_FILENO);
            std::vector<char*> argv;
            for (std::string& word : command) {
                argv.push_back(word.data());
            }
            argv.push_back(nullptr);
            (void)execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Child() {
        if (pid_ > 0) {
            Signal(SIGTERM);
            (void)Await();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    void Signal(int signal) const { (void)kill(pid_, signal); }
    int Await() {
        int status = -1;
        (void)waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    pid_t pid_ = -1;
};

// How long kvtool waits for a device, in seconds. Devices that fail on purpose need an end soon.
struct Patience {
    std::string stall = "15", leave = "60", back = "40";
};

class FleetSite : public testing::Test {
  protected:
    void SetUp() override {
        // Sites of tests that run at the same time have boards with the same MAC addresses.
        (void)setenv("XDG_RUNTIME_DIR", folder_.Path().c_str(), 1);
        site_ = std::make_unique<Child>(Lines{BinDir() + "/vboard", "site", "run", "--state",
                                              SiteFolder(), "--wired", "--shape", "40mbit"});
        ASSERT_TRUE(WaitUntil([this] {
            return RunCommand({BinDir() + "/vboard", "site", "status", "--state", SiteFolder()})
                       .status == 0;
        }));
        const std::string app = folder_.Path("app");
        std::filesystem::create_directories(app + "/bin");
        std::filesystem::copy_file(BinDir() + "/cameraMain", app + "/bin/cameraMain");
        WriteFile(app + "/bin/network", "#!/bin/sh\nip link set wlan0 up\nexec udhcpc -i wlan0\n");
        std::filesystem::permissions(app + "/bin/network", std::filesystem::perms::owner_all);
        (void)Shell("mksquashfs " + app + " " + folder_.Path("app.img") +
                    " -quiet -no-progress -all-root");
        WriteFile(folder_.Path("kernel.img"), std::string(1500000, 'k'));
        (void)Shell(BinDir() + "/kvtool pack -o " + folder_.Path("good") +
                    " app=" + folder_.Path("app.img") + " kernel=" + folder_.Path("kernel.img"));
    }

    std::string SiteFolder() const { return folder_.Path("site"); }
    std::string Journal() const { return folder_.Path("journal"); }
    void Start(int count, const Lines& options = {"--no-eth"},
               const std::string& program = BinDir() + "/upgradeMain") const {
        const CommandResult started =
            RunCommand(Joined({{"site", "start", std::to_string(count), "--state", SiteFolder()},
                               {"--timeout", "300"},
                               options,
                               {"--"}},
                              {program}),
                       310);
        EXPECT_EQ(started.status, 0) << started.output;
    }
    static Lines Joined(const std::vector<Lines>& parts, const Lines& last) {
        Lines all = {BinDir() + "/vboard"};
        for (const Lines& part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        all.insert(all.end(), last.begin(), last.end());
        return all;
    }
    // Runs a command that must succeed. Returns its output.
    static std::string Expect(const Lines& command) {
        const CommandResult result = RunCommand(command);
        EXPECT_EQ(result.status, 0) << result.output;
        return result.output;
    }
    std::string OnBoard(int number, const Lines& arguments) const {
        return Expect(
            Joined({{"--state", SiteFolder() + "/boards/" + std::to_string(number)}}, arguments));
    }
    std::string InBoard(int number, const std::string& script) const {
        return OnBoard(number, {"exec", "--board", "--", "sh", "-c", script});
    }
    json StatusOf(int number) const { return json::parse(OnBoard(number, {"status", "--json"})); }
    // Command lines on the laptop.
    Lines OnLaptop(const Lines& command) const {
        return Joined({{"site", "exec", "--state", SiteFolder(), "--"}}, command);
    }
    Lines Tool(const Lines& arguments) const {
        Lines command = {BinDir() + "/kvtool", "fleet"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return OnLaptop(command);
    }
    Lines Upgrade(const Lines& more, const Patience& patience = {}) const {
        Lines arguments = {"upgrade",      folder_.Path("good"), "--yes",        "--journal",
                           Journal(),      "--stall-timeout",    patience.stall, "--leave-timeout",
                           patience.leave, "--back-timeout",     patience.back};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Tool(arguments);
    }
    // What a plan says.
    std::string Plan(const Lines& hosts) const {
        Lines arguments = {"upgrade", folder_.Path("good"), "--dry-run", "--journal",
                           folder_.Path("none")};
        arguments.insert(arguments.end(), hosts.begin(), hosts.end());
        return RunCommand(Tool(arguments)).output;
    }
    // The same, until it says all this. An answer may come after a plan's search has ended.
    void ExpectPlan(const Lines& hosts, const Lines& texts) const {
        std::string plan;
        EXPECT_TRUE(WaitUntil([&] { return InOrder(plan = Plan(hosts), texts); }))
            << InOrder(plan, texts).message();
    }
    // The rate at which the laptop sends. Set it before uploads that something must interrupt.
    void SetRate(const std::string& rate) const {
        (void)Expect(OnLaptop({"tc", "qdisc", "change", "dev", "wlan0", "root", "tbf", "rate", rate,
                               "burst", "64kb", "latency", "50ms"}));
    }
    json Search() const {
        return json::parse(
            RunCommand(OnLaptop({BinDir() + "/kvtool", "discover", "--timeout", "1", "--json"}))
                .output);
    }
    // The address of the board's wlan0.
    std::string AddressOf(int number) const {
        const json status =
            json::parse(Expect(Joined({{"site", "status", "--json"}}, {"--state", SiteFolder()})));
        for (const json& board : status.at("boards")) {
            if (board.at("number") == number) {
                return board.at("wlanAddress");
            }
        }
        return "";
    }
    // How often the device has entered the state, according to the journal.
    size_t Entered(const std::string& device, const std::string& state) const {
        return CountOf(ReadFile(Journal()),
                       "\"device\":\"" + device + "\",\"state\":\"" + state + "\"");
    }
    bool WaitEntered(const std::string& device, const std::string& state) const {
        return WaitUntil([&] { return Entered(device, state) > 0; }, 60);
    }
    // The report on each device, by its MAC address.
    std::map<std::string, json> Report() const {
        const json report = json::parse(
            RunCommand({BinDir() + "/kvtool", "fleet", "report", "--json", Journal()}).output);
        std::map<std::string, json> devices;
        for (const json& device : report.at("devices")) {
            devices[device.at("device")] = device;
        }
        return devices;
    }

    Folder folder_;
    std::unique_ptr<Child> site_;
};

// The device's program with another sensor type.
std::string OtherModel(const Folder& folder) {
    std::string program = ReadFile(BinDir() + "/upgradeMain");
    for (size_t at = program.find("38QX"); at != std::string::npos; at = program.find("38QX", at)) {
        program.replace(at, 4, "38QY");
    }
    const std::string path = folder.Path("upgradeMain");
    WriteFile(path, program);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

TEST_F(FleetSite, EachFailureIsReportedAndTheOthersAreUpgraded) {
    Start(5);
    Start(1, {"--no-eth"}, OtherModel(folder_));
    // Board 4 cannot write its application's partition, and gets another address after the restart.
    (void)OnBoard(4, {"fault", "mtd5", "open", "--errno", "EIO", "--count", "1000"});
    (void)Expect(Joined({{"site", "lease", "4", "172.20.19.7"}}, {"--state", SiteFolder()}));
    const std::string wrong = folder_.Path("wrong");
    (void)Shell(BinDir() + "/kvtool pack -o " + wrong +
                " --ic OTHER app=" + folder_.Path("app.img"));
    const auto refused =
        RunCommand(Tool({"upgrade", wrong, "--all", "--yes", "--journal", folder_.Path("other")}));
    EXPECT_EQ(refused.status, 13) << refused.output;
    EXPECT_EQ(CountOf(refused.output, "will not be upgraded: the package is for chip"), 6U)
        << refused.output;
    EXPECT_EQ(CountOf(refused.output, "failed (3): the package is for chip"), 6U) << refused.output;

    SetRate("4mbit");
    Child run(Upgrade({"--all"}), folder_.Path("output"));
    std::thread second([this] {
        EXPECT_TRUE(WaitEntered(MacOf(2), "uploading"));
        (void)OnBoard(2, {"ap", "down"});
    });
    std::thread third([this] {
        EXPECT_TRUE(WaitEntered(MacOf(3), "accepted"));
        (void)OnBoard(3, {"ap", "mute"});
    });
    EXPECT_TRUE(WaitEntered(MacOf(1), "uploading"));
    const auto other = RunCommand(Tool(
        {"upgrade", folder_.Path("good"), MacOf(1), "--yes", "--journal", folder_.Path("third")}));
    EXPECT_EQ(other.status, 13);
    EXPECT_TRUE(Contains(other.output, "is being upgraded by kvtool, process")) << other.output;
    SetRate("40mbit");
    second.join();
    third.join();
    EXPECT_EQ(run.Await(), 13);

    auto devices = Report();
    const std::string output = ReadFile(folder_.Path("output"));
    const std::map<int, int> codes = {{1, 0}, {2, 6}, {3, 12}, {4, 9}, {5, 0}, {6, 3}};
    for (const auto& [number, code] : codes) {
        const json& device = devices[MacOf(number)];
        EXPECT_EQ(device.at("code"), code) << device << "\n" << output;
        EXPECT_EQ(device.at("state"), code == 0 ? "done" : "failed");
        const std::string row =
            MacOf(number) + "  " + device.at("address").get<std::string>() + "  failed (";
        EXPECT_EQ(Contains(output, row), code != 0) << output;
    }
    EXPECT_TRUE(Contains(devices[MacOf(4)].at("text"), "back in recovery")) << devices[MacOf(4)];
    EXPECT_TRUE(Contains(devices[MacOf(6)].at("text"), "'38QY'; nothing")) << devices[MacOf(6)];

    // Resumed. Only devices that have not accepted are sent the package again. Board 2 has moved.
    (void)Expect(Joined({{"site", "lease", "2", "172.20.19.8"}}, {"--state", SiteFolder()}));
    (void)OnBoard(2, {"ap", "up"});
    (void)OnBoard(2, {"reset"});
    (void)OnBoard(3, {"ap", "unmute"});
    EXPECT_TRUE(WaitUntil([this] { return Contains(Plan({MacOf(2)}), "172.20.19.8  PRT7K"); }, 60));
    EXPECT_EQ(RunCommand(Upgrade({"--resume"}), 300).status, 13);
    devices = Report();
    EXPECT_EQ(devices[MacOf(2)].at("state"), "done") << devices[MacOf(2)];
    EXPECT_EQ(devices[MacOf(2)].at("address"), "172.20.19.8");
    EXPECT_EQ(devices[MacOf(3)].at("state"), "done") << devices[MacOf(3)];
    EXPECT_EQ(devices[MacOf(4)].at("code"), 9) << devices[MacOf(4)];
    EXPECT_EQ(devices[MacOf(4)].at("address"), "172.20.19.7");
    const std::map<int, size_t> accepted = {{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 0}};
    for (const auto& [number, count] : accepted) {
        EXPECT_EQ(Entered(MacOf(number), "accepted"), count) << number;
    }
}

// The package does not fit into the device's /tmp, and the restart after that fails. So the device
// answers, takes every byte, and never accepts.
TEST_F(FleetSite, ADeviceThatNeverAcceptsStaysInDoubtUntilItIsRepaired) {
    Start(1);
    (void)OnBoard(1, {"fault", "reboot", "fail"});
    (void)InBoard(1, "mount -o remount,size=1m /tmp");
    for (const char* const how : {"--all", "--resume"}) {
        const auto run =
            RunCommand(Upgrade({how, "--verify-timeout", "4", "--retry", "2"}, {"15", "6", "40"}));
        EXPECT_EQ(run.status, 13) << run.output;
        EXPECT_EQ(Report()[MacOf(1)].at("code"), 8) << run.output;
    }
    EXPECT_EQ(Entered(MacOf(1), "connecting"), 2U) << "one attempt in each run";
    EXPECT_EQ(Entered(MacOf(1), "looking"), 1U);
    (void)OnBoard(1, {"fault", "reboot", "off"});
    (void)InBoard(1, "mount -o remount,size=64m /tmp");
    const auto last = RunCommand(Upgrade({"--resume"}, {"15", "20", "40"}), 200);
    EXPECT_EQ(last.status, 0) << last.output;
    EXPECT_TRUE(Contains(last.output, "it still holds the session of that upload"));
    EXPECT_EQ(Entered(MacOf(1), "accepted"), 1U);
    EXPECT_EQ(StatusOf(1).at("boot"), 2);
}

// Two devices that a laptop with two interfaces finds over both.
TEST_F(FleetSite, TellsOneDeviceOverTwoInterfacesFromTwoDevicesWithOneAddress) {
    Start(2, {});
    const std::string macs[] = {"02:76:62:01:00:01", "02:76:62:01:00:02"};
    const std::string addresses[] = {AddressOf(1), AddressOf(2)};
    // A clone: neither is upgraded, however it is named.
    (void)InBoard(2, "ip link set eth0 address " + macs[0]);
    EXPECT_TRUE(WaitUntil([this] { return Search().at("conflicts").size() == 1; })) << Search();
    for (const Lines& hosts : {Lines{"--all"}, Lines{addresses[0], addresses[1]}}) {
        ExpectPlan(hosts, {"upgraded: two devices answer with this MAC address",
                           "warning: MAC address " + macs[0]});
    }
    // One address for both: the package could go to either.
    (void)InBoard(2, "ip link set eth0 address " + macs[1] + "; ip address flush dev wlan0; " +
                         "ip address add " + addresses[0] + "/23 brd + dev wlan0");
    const std::string other = "upgraded: another device also answers from " + addresses[0];
    ExpectPlan({"--all"}, {other, other, "warning: address " + addresses[0] + " belongs to 2"});

    // After a restart board 2 is itself again. Each device answers over both interfaces.
    (void)OnBoard(2, {"reset"});
    EXPECT_TRUE(WaitUntil([&] { return AddressOf(2) == addresses[1]; }));
    (void)Expect(OnLaptop({"ip", "neighbour", "flush", "all"}));
    json found;
    EXPECT_TRUE(WaitUntil([&] {
        found = Search();
        const json& devices = found.at("devices");
        return devices.size() == 2 && devices[0].at("senders").size() == 2 &&
               devices[1].at("senders").size() == 2;
    })) << found;
    EXPECT_TRUE(found.at("conflicts").empty()) << found;

    // The disk of the journal becomes full at the lines before the trailers. kvtool then begins
    // nothing more, and a later run does the rest. Absent devices fill the journal's only page.
    const std::string disk = folder_.Path("disk");
    std::filesystem::create_directory(disk);
    const std::string upgrade = BinDir() + "/kvtool fleet upgrade " + folder_.Path("good") +
                                " --yes --journal " + disk + "/journal ";
    const auto both = RunCommand(
        OnLaptop({"unshare", "--mount", "sh", "-c",
                  "mount -t tmpfs -o size=4k disk " + disk + "; " + upgrade + "--all " +
                      "a-1 a-2 a-3 a-4 a-5 a-6; echo ended $?; mount -o remount,size=1m " + disk +
                      "; " + upgrade + "--resume; cp " + disk + "/journal " + Journal()}),
        120);
    EXPECT_TRUE(InOrder(both.output, {"No space left on device", "ended 1\n", "2 of 8 done"}))
        << both.output;
    for (int number = 1; number <= 2; ++number) {
        EXPECT_EQ(Report()[macs[number - 1]].at("state"), "done") << both.output;
        EXPECT_EQ(StatusOf(number).at("boot"), number + 1) << "flashed once";
    }
}

TEST_F(FleetSite, AProductionLineUpgradesWhatAppears) {
    constexpr int kBoards = 5;
    Start(1);
    Child watch(Tool({"watch", folder_.Path("good"), "--journal", Journal()}),
                folder_.Path("output"));
    EXPECT_TRUE(WaitEntered(MacOf(1), "accepted")) << ReadFile(folder_.Path("output"));
    Start(kBoards - 1);
    EXPECT_TRUE(WaitEntered(MacOf(kBoards), "done")) << ReadFile(folder_.Path("output"));
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(Journal()), "\"done\"") == kBoards; }));
    for (int number = 1; number <= kBoards; ++number) {
        EXPECT_EQ(Entered(MacOf(number), "connecting"), 1U);
    }
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Await(), 0) << ReadFile(folder_.Path("output"));
}

// A browser's requests to `kvtool serve` on the laptop.
class FleetPage : public FleetSite {
  protected:
    // Starts the server and enters its page.
    std::unique_ptr<Child> Serve() {
        Lines command = {BinDir() + "/vboard", "site", "exec", "--state", SiteFolder(), "--",
                         BinDir() + "/kvtool", "serve"};
        for (const char* const word : {"--no-browser", "--json", "--port", "8765",
                                       "--stall-timeout", "8", "--back-timeout", "60"}) {
            command.emplace_back(word);
        }
        command.insert(command.end(), {"--journal", Journal()});
        const std::string said = folder_.Path("said");
        (void)unlink(said.c_str());
        auto server = std::make_unique<Child>(command, said);
        json ready;
        EXPECT_TRUE(WaitUntil([&] {
            ready = json::parse(ReadFile(said), nullptr, false);
            return ready.contains("address");
        }));
        (void)Ask({"-c", folder_.Path("cookies"), ready.value("address", "")});
        return server;
    }
    json Ask(const Lines& arguments) const {
        Lines command = {BinDir() + "/vboard",
                         "site",
                         "exec",
                         "--state",
                         SiteFolder(),
                         "--",
                         "curl",
                         "-s",
                         "-b",
                         folder_.Path("cookies"),
                         "-H",
                         "Origin: http://127.0.0.1:8765"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return json::parse(RunCommand(command).output, nullptr, false);
    }
    json Post(const std::string& path, const std::string& body, const char* type = "json") const {
        return Ask({"-H", std::string("Content-Type: application/") + type, "--data-binary", body,
                    "http://127.0.0.1:8765/api/" + path});
    }
    json State() const { return Ask({"http://127.0.0.1:8765/api/state"}); }
    void Begin(const std::string& path, const std::string& request) const {
        const json plan = Post(path, request);
        ASSERT_TRUE(plan.contains("id")) << plan;
        EXPECT_EQ(Post("run", "{\"plan\":" + plan["id"].dump() + "}")["state"], "running");
    }
    bool WaitPresent(size_t count) const {
        return WaitUntil(
            [&] { return CountOf(State()["devices"].dump(), "\"present\":true") == count; }, 60);
    }
    bool WaitEnd() const {
        return WaitUntil([this] { return State()["run"]["state"] == "ended"; }, 120);
    }
};

TEST_F(FleetPage, ADeviceThatFailedIsRetriedAndTheServerIsKilledMeanwhile) {
    Start(3);
    std::unique_ptr<Child> server = Serve();
    EXPECT_TRUE(WaitPresent(3));
    EXPECT_EQ(Post("package?name=good", "@" + folder_.Path("good"), "octet-stream")["acceptable"],
              true);
    const std::string all = "[\"" + MacOf(1) + "\",\"" + MacOf(2) + "\",\"" + MacOf(3) + "\"]";
    SetRate("4mbit");
    Begin("plan", "{\"devices\":" + all + "}");
    EXPECT_TRUE(WaitEntered(MacOf(2), "uploading"));
    OnBoard(2, {"ap", "down"});
    SetRate("40mbit");
    ASSERT_TRUE(WaitEnd());
    json run = State()["run"];
    EXPECT_EQ(run["done"], 2) << run;
    EXPECT_EQ(run["members"][1]["code"], 6) << run;
    EXPECT_EQ(run["members"][1]["may_retry"], true) << run;

    EXPECT_TRUE(WaitUntil([this] { return State()["devices"][1]["present"] == false; }, 60));
    OnBoard(2, {"ap", "up"});
    EXPECT_TRUE(WaitUntil([this] { return State()["devices"][1]["present"] == true; }, 60));
    SetRate("4mbit");
    Begin("run/retry", "{}");
    EXPECT_TRUE(WaitUntil([this] { return Entered(MacOf(2), "uploading") == 2; }, 60));
    server->Signal(SIGKILL);
    EXPECT_EQ(server->Await(), 128 + SIGKILL);
    SetRate("40mbit");
    server = Serve();
    run = State()["run"];
    EXPECT_EQ(run["open"], 1) << run;
    EXPECT_EQ(run["exit_code"], nullptr) << run;
    Begin("run/resume", "{}");
    ASSERT_TRUE(WaitEnd());
    run = State()["run"];
    EXPECT_EQ(run["done"], 3) << run;
    for (int number = 1; number <= 3; ++number) {
        EXPECT_EQ(Entered(MacOf(number), "accepted"), 1U) << number;
    }
    server->Signal(SIGINT);
    EXPECT_EQ(server->Await(), 0);
}

class FleetBigSite : public FleetSite {};

// Killed again and again, the run still upgrades every board, and none twice.
TEST_F(FleetBigSite, TwentyBoardsSurviveKills) {
    constexpr int kBoards = 20;
    Start(kBoards);
    // No board fails here, however long a busy machine takes. But a board that lacks the last bytes
    // of an upload stays, and kvtool looks for that long whether it leaves.
    const Patience patient = {"300", "60", "300"};
    // kvtool is killed once the journal has this state this often.
    const std::pair<const char*, size_t> kills[] = {
        {"connecting", 5}, {"uploading", 10}, {"finishing", 3}, {"accepted", 10}};
    const auto text = [this] { return ReadFile(Journal()); };
    const std::string begun = "\"event\":\"run\"";
    for (const auto& [state, count] : kills) {
        const size_t runs = CountOf(text(), begun);
        Child run(Upgrade({runs > 0 ? "--resume" : "--all"}, patient));
        const std::string entered = std::string("\"state\":\"") + state + "\"";
        EXPECT_TRUE(WaitUntil(
            [&, number = count] {
                return CountOf(text(), begun) > runs && CountOf(text(), entered) >= number;
            },
            300));
        std::istringstream line(text());
        pid_t process = -1;
        for (std::string row; std::getline(line, row) && !line.eof();) {
            const json event = json::parse(row);
            process = event.at("event") == "run" ? event.at("process").get<pid_t>() : process;
        }
        // The laptop has no PID namespace, so its processes have the same numbers here.
        ASSERT_TRUE(Contains(ReadFile("/proc/" + std::to_string(process) + "/cmdline"), "kvtool"));
        (void)kill(process, SIGKILL);
        EXPECT_EQ(run.Await(), 137);
    }
    const auto last = RunCommand(Upgrade({"--resume"}, patient), 1000);
    EXPECT_EQ(last.status, 0) << last.output;
    for (int number = 1; number <= kBoards; ++number) {
        const json device = Report()[MacOf(number)];
        EXPECT_EQ(device.at("state"), "done") << device;
        EXPECT_EQ(StatusOf(number).at("boot"), 2)
            << "it has restarted once, so it was flashed once";
    }
}

}  // namespace
