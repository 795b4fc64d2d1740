// A site of virtual boards, driven through vboard's command line.
#include <csignal>
#include <set>

#include "tests/support/board.h"

using namespace kv_test;
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class VboardSite : public testing::Test {
  protected:
    void SetUp() override {
        runner_ = ForkDependent();
        if (runner_ == 0) {
            (void)execl((BinDir() + "/vboard").c_str(), "vboard", "site", "run", "--state",
                        folder_.Path().c_str(), "--shape", "40mbit", nullptr);
            _exit(127);
        }
        ASSERT_TRUE(WaitUntil([this] { return Try({"site", "status"}).status == 0; }));
    }
    void TearDown() override {
        if (runner_ > 0) {
            (void)kill(runner_, SIGTERM);
            (void)waitpid(runner_, nullptr, 0);
        }
    }

    CommandResult Try(const Lines& arguments) { return TryAt(folder_.Path(), arguments); }
    std::string Do(const Lines& arguments) { return Succeeded(Try(arguments)); }
    // Sends a command to one board. Returns its output.
    std::string OnBoard(int number, const Lines& arguments) {
        return Succeeded(TryAt(Place(number), arguments));
    }
    static CommandResult TryAt(const std::string& state, const Lines& arguments) {
        Lines command = {BinDir() + "/vboard", "--state", state};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return RunCommand(command);
    }
    static std::string Succeeded(const CommandResult& result) {
        EXPECT_EQ(result.status, 0) << result.output;
        return result.output;
    }
    std::string Place(int number) { return folder_.Path("boards/" + std::to_string(number)); }
    void StartBoards(int count) {
        (void)Do({"site", "start", std::to_string(count), "--", BinDir() + "/upgradeMain"});
    }
    json Boards() { return json::parse(Do({"site", "status", "--json"})).at("boards"); }
    json Row(int number) {
        for (const json& board : Boards()) {
            if (board.at("number") == number) {
                return board;
            }
        }
        return json::object();
    }
    // The MAC addresses that a search from the laptop finds.
    std::set<std::string> Search() {
        const json found = json::parse(Do(
            {"site", "exec", "--", BinDir() + "/kvtool", "discover", "--timeout", "1", "--json"}));
        std::set<std::string> macs;
        for (const json& device : found.at("devices")) {
            macs.insert(device.at("mac").get<std::string>());
        }
        return macs;
    }

    // Searches until exactly these are found. An answer may come after a search has ended.
    bool Finds(const std::set<std::string>& macs) {
        return WaitUntil([&] { return Search() == macs; });
    }

    Folder folder_;
    pid_t runner_ = -1;
};

TEST_F(VboardSite, BoardsJoinAndFailIndependently) {
    StartBoards(2);
    // One more board, which the site's runner did not start.
    const pid_t guest = ForkDependent();
    if (guest == 0) {
        (void)execl((BinDir() + "/vboard").c_str(), "vboard", "run", "--quiet", "--site",
                    folder_.Path().c_str(), "--", (BinDir() + "/upgradeMain").c_str(), nullptr);
        _exit(127);
    }
    EXPECT_TRUE(WaitUntil([this] { return Row(3).value("wlanAddress", "") != ""; }));
    std::set<std::string> different;
    for (const json& board : Boards()) {
        EXPECT_EQ(board.at("boot"), 1);
        for (const char* const key :
             {"ethMac", "wlanMac", "ethAddress", "wlanAddress", "stateDir"}) {
            different.insert(board.at(key).get<std::string>());
        }
    }
    EXPECT_EQ(different.size(), 15U) << Do({"site", "status"});
    const std::set<std::string> all = {"02:76:62:01:00:01", "02:76:62:01:00:02",
                                       "02:76:62:01:00:03"};
    EXPECT_TRUE(Finds(all));

    (void)OnBoard(1, {"ap", "mute"});
    EXPECT_TRUE(Finds({"02:76:62:01:00:02", "02:76:62:01:00:03"}));
    (void)OnBoard(1, {"ap", "unmute"});
    EXPECT_TRUE(Finds(all));
    (void)OnBoard(2, {"ap", "down"});
    EXPECT_TRUE(Finds({"02:76:62:01:00:01", "02:76:62:01:00:03"}));

    (void)OnBoard(1, {"fault", "mtd5", "open", "--errno", "EIO"});
    const Lines read = {"exec", "--board", "--", "head", "-c", "1", "/dev/mtd5"};
    EXPECT_NE(TryAt(Place(1), read).status, 0);
    (void)OnBoard(3, read);

    // After a reset the board has the address that the site assigned.
    (void)Do({"site", "lease", "3", "172.20.19.7"});
    (void)OnBoard(3, {"reset"});
    EXPECT_TRUE(WaitUntil([this] { return Row(3).value("wlanAddress", "") == "172.20.19.7"; }));
    EXPECT_EQ(Row(1).at("boot"), 1);

    (void)Do({"site", "no-dhcp"});
    (void)Do({"site", "lease", "3", "172.20.19.8"});
    EXPECT_EQ(json::parse(Do({"site", "status", "--json"})).at("dhcp"), false);

    (void)OnBoard(1, {"power", "off"});
    (void)OnBoard(1, {"ap", "mute"});
    EXPECT_EQ(Row(1).at("mac"), "02:76:62:01:00:01") << "eth0's, also while the board is off";

    (void)kill(runner_, SIGTERM);
    int status = -1;
    EXPECT_EQ(waitpid(guest, &status, 0), guest);
    EXPECT_EQ(status, 0) << "a board ends cleanly with its site";
}

TEST_F(VboardSite, LeavesNothingWhenItIsKilled) {
    StartBoards(2);
    Lines processes = ChildrenOf(runner_);
    EXPECT_EQ(processes.size(), 3U) << "the DHCP server and two boards";
    for (int number = 1; number <= 2; ++number) {
        const json status = json::parse(OnBoard(number, {"status", "--json"}));
        for (const json& process : status.at("processes")) {
            processes.push_back(std::to_string(process.at("hostPid").get<pid_t>()));
        }
    }
    EXPECT_GT(processes.size(), 9U);
    (void)kill(runner_, SIGKILL);
    (void)waitpid(runner_, nullptr, 0);
    runner_ = -1;
    ExpectGone(processes);
    EXPECT_FALSE(Contains(ReadFile("/proc/mounts"), folder_.Path()));
    SetUp();  // the folder is free again, and so are the numbers
    (void)Do({"site", "start", "1", "--no-wait", "--", BinDir() + "/upgradeMain"});
    EXPECT_EQ(Boards().at(0).at("number"), 1);
}

TEST_F(VboardSite, RefusesInOneSentence) {
    EXPECT_EQ(Try({"site", "start", "1", "--", "/no/such"}).output,
              "vboard: board 1 has ended: vboard: not a program: /no/such\n");
    EXPECT_EQ(TryAt(folder_.Path(), {"status"}).output,
              "vboard: " + folder_.Path() + " is the state folder of a site, not of a board\n");
    const Folder other;
    EXPECT_EQ(RunCommand(
                  {BinDir() + "/vboard", "site", "run", "--state", other.Path(), "--shape", "fast"})
                  .status,
              1);
    for (const Lines& command : {Lines{"site", "status", "--state", other.Path()},
                                 Lines{"site", "stop", "--state", other.Path()},
                                 Lines{"run", "--site", other.Path(), "--", "/bin/true"}}) {
        Lines words = {BinDir() + "/vboard"};
        words.insert(words.end(), command.begin(), command.end());
        const auto refused = RunCommand(words);
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.output, "vboard: no site is running with the state folder " +
                                      other.Path() + " (start one with: vboard site run)\n");
    }
}

}  // namespace
