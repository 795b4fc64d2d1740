// kvtool fleet as a program, against scripted devices: runs that were killed and resume, refusals,
// reports. Also what its window shows.
#include <nlohmann/json.hpp>

#include "tests/support/fake_camera.h"
#include "tests/support/surroundings.h"
#include "tools/cli/fleet_view.h"
#include "tools/fleet/report.h"

namespace {

using namespace kvtool::fleet;
using fake::Camera;
using fake::MacOf;
using kv_test::Contains;

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
        " --yes --leave-timeout 20 --back-timeout 20 --interface lo --journal " + journal;
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
    const std::string failed = kvtool::FleetRowText(row, now, 600);
    EXPECT_EQ(failed.find("fa\u00ef"), failed.rfind("fa\u00ef")) << failed;
    EXPECT_EQ(failed.substr(failed.size() - 5), "xxxxx") << failed;
    row.member.progress.state = State::kUploading;
    const std::string text = kvtool::FleetRowText(row, now, 100);
    EXPECT_TRUE(kv_test::InOrder(text, {MacOf(1), "uploading", "50%", "2 s left", "[###"})) << text;
    std::vector<kvtool::FleetRow> rows(4);
    rows[1].member.progress.state = State::kFailed;
    rows[3].member.progress.state = State::kUploading;
    EXPECT_EQ(kvtool::RowsToShow(rows, 2), (std::vector<size_t>{1, 3}));
}

}  // namespace
