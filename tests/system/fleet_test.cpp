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
        pid_ = fork();
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

class FleetSite : public testing::Test {
  protected:
    void SetUp() override {
        // Sites of tests that run at the same time have boards with the same MAC addresses.
        (void)setenv("XDG_RUNTIME_DIR", folder_.Path().c_str(), 1);
        site_ = std::make_unique<Child>(Lines{BinDir() + "/vboard", "site", "run", "--state",
                                              SiteFolder(), "--shape", "40mbit"});
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
    void Start(int count) {
        const auto started =
            RunCommand({BinDir() + "/vboard", "site", "start", std::to_string(count), "--state",
                        SiteFolder(), "--no-eth", "--", BinDir() + "/upgradeMain"});
        ASSERT_EQ(started.status, 0) << started.output;
    }
    void OnBoard(int number, const Lines& arguments) const {
        Lines command = {BinDir() + "/vboard", "--state",
                         SiteFolder() + "/boards/" + std::to_string(number)};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const CommandResult result = RunCommand(command);
        EXPECT_EQ(result.status, 0) << result.output;
    }
    // The command line of kvtool on the laptop.
    Lines Tool(const Lines& arguments) const {
        Lines command = {BinDir() + "/vboard", "site", "exec", "--state", SiteFolder(), "--",
                         BinDir() + "/kvtool", "fleet"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return command;
    }
    Lines Upgrade(const Lines& more) const {
        Lines arguments = {"upgrade", folder_.Path("good"), "--yes", "--journal",
                           Journal(), "--stall-timeout",    "5",     "--leave-timeout",
                           "60",      "--back-timeout",     "8"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Tool(arguments);
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

TEST_F(FleetSite, EachFailureIsReportedAndTheOthersAreUpgraded) {
    Start(5);
    // Board 4 cannot write its application's partition, and gets another address after the restart.
    OnBoard(4, {"fault", "mtd5", "open", "--errno", "EIO", "--count", "1000"});
    const auto lease = RunCommand(
        {BinDir() + "/vboard", "site", "lease", "4", "172.20.19.7", "--state", SiteFolder()});
    EXPECT_EQ(lease.status, 0) << lease.output;
    const std::string wrong = folder_.Path("wrong");
    (void)Shell(BinDir() + "/kvtool pack -o " + wrong +
                " --ic OTHER app=" + folder_.Path("app.img"));
    const auto refused =
        RunCommand(Tool({"upgrade", wrong, "--all", "--yes", "--journal", folder_.Path("other")}));
    EXPECT_EQ(refused.status, 13) << refused.output;
    EXPECT_EQ(CountOf(refused.output, "will not be upgraded: the package is for chip"), 5U)
        << refused.output;
    EXPECT_EQ(CountOf(refused.output, "failed (3): the package is for chip"), 5U) << refused.output;

    Child run(Upgrade({"--all"}), folder_.Path("output"));
    std::thread second([this] {
        EXPECT_TRUE(WaitEntered(MacOf(2), "uploading"));
        OnBoard(2, {"ap", "down"});
    });
    std::thread third([this] {
        EXPECT_TRUE(WaitEntered(MacOf(3), "accepted"));
        OnBoard(3, {"ap", "mute"});
    });
    EXPECT_TRUE(WaitEntered(MacOf(1), "uploading"));
    const auto other = RunCommand(Tool(
        {"upgrade", folder_.Path("good"), MacOf(1), "--yes", "--journal", folder_.Path("third")}));
    EXPECT_EQ(other.status, 13);
    EXPECT_TRUE(Contains(other.output, "is being upgraded by kvtool, process")) << other.output;
    second.join();
    third.join();
    EXPECT_EQ(run.Await(), 13);

    auto devices = Report();
    const std::string output = ReadFile(folder_.Path("output"));
    const std::map<int, int> codes = {{1, 0}, {2, 6}, {3, 12}, {4, 9}, {5, 0}};
    for (const auto& [number, code] : codes) {
        const json& device = devices[MacOf(number)];
        EXPECT_EQ(device.at("code"), code) << device << "\n" << output;
        EXPECT_EQ(device.at("state"), code == 0 ? "done" : "failed");
        const std::string row =
            MacOf(number) + "  " + device.at("address").get<std::string>() + "  failed (";
        EXPECT_EQ(Contains(output, row), code != 0) << output;
    }
    EXPECT_TRUE(Contains(devices[MacOf(4)].at("text"), "back in recovery")) << devices[MacOf(4)];

    // Resumed. Only devices that have not accepted are sent the package again.
    OnBoard(2, {"ap", "up"});
    OnBoard(3, {"ap", "unmute"});
    EXPECT_TRUE(WaitUntil(
        [this] {
            return Contains(RunCommand(Tool({"upgrade", folder_.Path("good"), MacOf(2), "--dry-run",
                                             "--journal", folder_.Path("none")}))
                                .output,
                            "  PRT7K");
        },
        60));
    EXPECT_EQ(RunCommand(Upgrade({"--resume"}), 120).status, 13);
    devices = Report();
    EXPECT_EQ(devices[MacOf(2)].at("state"), "done") << devices[MacOf(2)];
    EXPECT_EQ(devices[MacOf(3)].at("state"), "done") << devices[MacOf(3)];
    EXPECT_EQ(devices[MacOf(4)].at("code"), 9) << devices[MacOf(4)];
    EXPECT_EQ(devices[MacOf(4)].at("address"), "172.20.19.7");
    const std::map<int, size_t> accepted = {{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}};
    for (const auto& [number, count] : accepted) {
        EXPECT_EQ(Entered(MacOf(number), "accepted"), count) << number;
    }
}

TEST_F(FleetSite, AProductionLineUpgradesWhatAppears) {
    Start(1);
    Child watch(Tool({"watch", folder_.Path("good"), "--journal", Journal()}),
                folder_.Path("output"));
    EXPECT_TRUE(WaitEntered(MacOf(1), "done")) << ReadFile(folder_.Path("output"));
    Start(1);
    EXPECT_TRUE(WaitEntered(MacOf(2), "done")) << ReadFile(folder_.Path("output"));
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Await(), 0) << ReadFile(folder_.Path("output"));
    EXPECT_EQ(Entered(MacOf(1), "connecting"), 1U);
}

// A browser's requests to `kvtool serve` on the laptop.
class FleetPage : public FleetSite {
  protected:
    // Starts the server and enters its page.
    std::unique_ptr<Child> Serve() {
        Lines command = {BinDir() + "/vboard", "site", "exec", "--state", SiteFolder(), "--",
                         BinDir() + "/kvtool", "serve"};
        for (const char* const word : {"--no-browser", "--json", "--port", "8765",
                                       "--stall-timeout", "5", "--back-timeout", "20"}) {
            command.emplace_back(word);
        }
        command.insert(command.end(), {"--journal", Journal()});
        const std::string said = folder_.Path("said");
        (void)unlink(said.c_str());
        auto server = std::make_unique<Child>(command, said);
        EXPECT_TRUE(WaitUntil([&] { return Contains(ReadFile(said), "\"ready\""); }));
        const json ready = json::parse(ReadFile(said), nullptr, false);
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

TEST_F(FleetPage, OneFailsIsTriedAgainAndTheServerIsKilledMeanwhile) {
    Start(3);
    std::unique_ptr<Child> server = Serve();
    EXPECT_TRUE(WaitPresent(3));
    EXPECT_EQ(Post("package?name=good", "@" + folder_.Path("good"), "octet-stream")["acceptable"],
              true);
    const std::string all = "[\"" + MacOf(1) + "\",\"" + MacOf(2) + "\",\"" + MacOf(3) + "\"]";
    Begin("plan", "{\"devices\":" + all + "}");
    EXPECT_TRUE(WaitEntered(MacOf(2), "uploading"));
    OnBoard(2, {"ap", "down"});
    ASSERT_TRUE(WaitEnd());
    json run = State()["run"];
    EXPECT_EQ(run["done"], 2) << run;
    EXPECT_EQ(run["members"][1]["code"], 6) << run;
    EXPECT_EQ(run["members"][1]["may_retry"], true) << run;

    OnBoard(2, {"ap", "up"});
    EXPECT_TRUE(WaitUntil([this] { return State()["devices"][1]["present"] == true; }, 60));
    Begin("run/retry", "{}");
    EXPECT_TRUE(WaitUntil([this] { return Entered(MacOf(2), "uploading") == 2; }, 60));
    server->Signal(SIGKILL);
    EXPECT_EQ(server->Await(), 128 + SIGKILL);
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
    for (const size_t lines : {5, 25, 60, 75}) {
        Child run(Upgrade({lines == 5 ? "--all" : "--resume"}));
        EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(Journal()), "\n") >= lines; }, 60));
        std::istringstream line(ReadFile(Journal()));
        pid_t process = -1;
        for (std::string text; std::getline(line, text) && !line.eof();) {
            const json event = json::parse(text);
            process = event.at("event") == "run" ? event.at("process").get<pid_t>() : process;
        }
        // The laptop has no PID namespace, so its processes have the same numbers here.
        ASSERT_TRUE(Contains(ReadFile("/proc/" + std::to_string(process) + "/cmdline"), "kvtool"));
        (void)kill(process, SIGKILL);
        EXPECT_EQ(run.Await(), 137);
    }
    const auto last = RunCommand(Upgrade({"--resume"}), 200);
    EXPECT_EQ(last.status, 0) << last.output;
    for (int number = 1; number <= kBoards; ++number) {
        const json device = Report()[MacOf(number)];
        EXPECT_EQ(device.at("state"), "done") << device;
        const json operations = json::parse(
            RunCommand({BinDir() + "/vboard", "--state",
                        SiteFolder() + "/boards/" + std::to_string(number), "status", "--json"})
                .output);
        EXPECT_EQ(operations.at("boot"), 2) << "it has restarted once, so it was flashed once";
    }
}

}  // namespace
