#include "tools/cli/fleet_commands.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>
#include <thread>

#include "tools/base/files.h"
#include "tools/cli/fleet_view.h"
#include "tools/fleet/plan.h"
#include "tools/fleet/report.h"
#include "tools/fleet/runner.h"

namespace kvtool {

using fleet::Journal;
using fleet::JournalContents;
using fleet::Member;
using fleet::Next;
using fleet::NextFor;
using fleet::Plan;
using fleet::Runner;
using fleet::RunRequest;
using fleet::State;

namespace {

// How often `fleet watch` searches for devices.
constexpr Millis kWatchEvery{3000};

fleet::PackageName NameOf(const FleetCommand& command, const PackageReport& report) {
    return {command.package.file, report.size, report.md5};
}

std::string JournalPath(const FleetCommand& command) {
    return command.journal.empty()
               ? std::filesystem::path(command.package.file).filename().string() + ".journal"
               : command.journal;
}

// Reads the journal of earlier runs. Throws ToolError(kRefused) if it is for another package.
JournalContents ReadEarlier(const std::string& path, const fleet::PackageName& package) {
    JournalContents earlier = fleet::ReadJournal(path);
    if (earlier.package.md5 != package.md5) {
        throw ToolError(ExitCode::kRefused, "the journal " + Printable(path) +
                                                " is for another package, " + earlier.package.file +
                                                " with MD5 " + earlier.package.md5);
    }
    return earlier;
}

void PrintPlan(std::ostream& out, const Plan& plan, const fleet::PackageName& package) {
    out << "plan for " << Printable(package.file) << ", " << SizeText(package.size)
        << "\n(device, address, present firmware, what will happen):\n";
    for (const Member& member : plan.members) {
        out << member.id;
        if (!member.address.empty() && member.address != member.id) {
            out << "  " << member.address;
        }
        if (!member.firmware.empty()) {
            out << "  " << Printable(member.firmware);
        }
        out << "  " << fleet::Intention(member) << '\n';
    }
    for (const std::string& warning : plan.warnings) {
        out << "warning: " << warning << '\n';
    }
    out << fleet::DevicesText(plan.members.size()) << '\n';
    out.flush();
}

// Throws ToolError(kInterrupted) unless the answer is yes.
void Confirm(std::ostream& out) {
    out << "begin? [y/N] " << std::flush;
    std::string answer;
    char c = 0;
    do {
        (void)WaitFor(STDIN_FILENO, POLLIN, Clock::time_point::max());
        if (read(STDIN_FILENO, &c, 1) != 1) {
            break;
        }
        answer += c;
    } while (c != '\n');
    answer = Trimmed(answer.substr(0, answer.find('\n')));
    if (answer != "y" && answer != "Y" && answer != "yes") {
        throw ToolError(ExitCode::kInterrupted, "not confirmed; nothing was sent");
    }
}

// The interrupts of a run.
struct Flight {
    Interrupt startNothing;
    Interrupt stopNow;
};

RunRequest RequestOf(const FleetCommand& command, const LoadedPackage& package,
                     const Flight& flight) {
    RunRequest request{package.bytes,
                       package.report.ic,
                       package.report.sensor,
                       command.jobs,
                       0,
                       0,
                       command.retries,
                       Millis(5000),
                       command.times,
                       command.discovery,
                       command.port,
                       command.alivePort,
                       command.expectVersion,
                       false,
                       flight.startNothing,
                       flight.stopNow};
    return request;
}

// Prints the table of devices that are not done, fills the JSON result, returns the exit code.
ExitCode Sum(const Runner& runner, bool asJson, Json* json) {
    const std::vector<Member>& members = runner.Members();
    const fleet::Counts counts = fleet::Count(members);
    (*json)["devices"] = fleet::MembersJson(members);
    (*json)["done"] = counts.done;
    (*json)["failed"] = counts.failed;
    (*json)["open"] = counts.open;
    std::ostream& out = asJson ? std::cerr : std::cout;
    fleet::WriteTroubles(out, members);
    out << counts.done << " of " << members.size() << " done, " << counts.failed << " failed, "
        << counts.open << " not started or left under way\n";
    out.flush();
    if (!runner.JournalTrouble().empty()) {
        throw ToolError(ExitCode::kInternal, runner.JournalTrouble());
    }
    return runner.Result();
}

ExitCode End(Journal* journal, int run, const Runner& runner, bool asJson, Json* json) {
    const ExitCode code = Sum(runner, asJson, json);
    journal->WriteEnd(run, code);
    return code;
}

std::vector<std::string> HostsOf(const FleetUpgradeCommand& command) {
    std::vector<std::string> hosts = command.hosts;
    if (!command.from.empty()) {
        const std::vector<SourceLine> lines = ReadLines(command.from);
        if (lines.empty()) {
            throw ToolError(ExitCode::kUsage, "no device in the list " + Printable(command.from));
        }
        for (const SourceLine& line : lines) {
            hosts.push_back(line.text);
        }
    }
    return hosts;
}

// A run that ended before it had written its first line leaves a journal without a run.
bool HasRun(const std::string& path) {
    return std::filesystem::exists(path) && fleet::ReadJournal(path).runs > 0;
}

void CheckUsage(const FleetUpgradeCommand& command, const std::string& journal) {
    if (!command.all && command.from.empty() && command.hosts.empty() && !command.resume) {
        throw ToolError(ExitCode::kUsage, "name the devices: --all, --from LIST or HOST…");
    }
    if (!command.yes && !command.dryRun && isatty(STDIN_FILENO) != 1) {
        throw ToolError(ExitCode::kUsage,
                        "there is no terminal to ask for confirmation: use --yes to begin without "
                        "asking, or --dry-run to see the plan");
    }
    if (command.resume && !HasRun(journal)) {
        throw ToolError(ExitCode::kUsage, "there is no run to resume in the journal " +
                                              Printable(journal) + ": start without --resume");
    }
    if (!command.resume && HasRun(journal)) {
        throw ToolError(ExitCode::kUsage,
                        "the journal " + Printable(journal) +
                            " exists: continue it (--resume), or name another one (--journal)");
    }
}

}  // namespace

ExitCode RunFleetUpgrade(const FleetUpgradeCommand& command, const Layout& layout, Json* json) {
    const std::string path = JournalPath(command);
    const Matcher matcher(command.match);
    (*json)["file"] = Printable(command.package.file);
    (*json)["journal"] = Printable(path);
    CheckUsage(command, path);
    const LoadedPackage package = LoadPackage(command.package, layout, json);
    const fleet::PackageName name = NameOf(command, package.report);
    JournalContents earlier;
    if (command.resume) {
        earlier = ReadEarlier(path, name);
    }
    const size_t known = earlier.members.size();
    const Plan plan =
        fleet::MakePlan({command.all, HostsOf(command), matcher, command.discovery, command.port,
                         command.times, package.report.ic, package.report.sensor},
                        std::move(earlier.members));
    std::ostream& out = command.json ? std::cerr : std::cout;
    PrintPlan(out, plan, name);
    (*json)["plan"] = fleet::PlanJson(plan);
    if (plan.members.empty()) {
        throw ToolError(ExitCode::kUnreachable, "none of the wanted devices answers a search");
    }
    if (command.dryRun) {
        return ExitCode::kDone;
    }
    if (!command.yes) {
        Confirm(out);
    }
    const Flight flight;
    Journal journal = Journal::Continue(path, earlier);
    FleetView view(command.json, name.size + kv::kMd5TrailerSize,
                   Seconds(command.times.leave + command.times.back), flight.startNothing);
    journal.Tell(&view);
    const int run = earlier.runs + 1;
    journal.WriteRun(run, name,
                     {plan.members.begin() + static_cast<ptrdiff_t>(known), plan.members.end()});
    RunRequest request = RequestOf(command, package, flight);
    request.canaries = command.canaries;
    request.maxFailures = command.maxFailures;
    request.matcher = matcher;
    Runner runner(request, &journal, &view);
    for (const Member& member : plan.members) {
        runner.Add(member);
    }
    {
        const InterruptsInSteps interrupts(flight.startNothing, flight.stopNow);
        runner.Run();
    }
    view.Clear();
    return End(&journal, run, runner, command.json, json);
}

namespace {

// Searches again and again, and gives the runner each device that needs an upgrade.
class LineWatcher {
  public:
    LineWatcher(const FleetCommand& command, const Flight& flight, Journal* journal, Runner* runner)
        : command_(command),
          matcher_(command.match),
          flight_(flight),
          journal_(journal),
          runner_(runner) {}

    void Watch() {
        const InterruptedBy interrupted(flight_.startNothing);
        try {
            for (;;) {
                const Clock::time_point next = Clock::now() + kWatchEvery;
                Look();
                WaitUntil(next);
            }
        } catch (const ToolError& error) {
            if (error.Code() != ExitCode::kInterrupted) {
                runner_->Note(error.what());
            }
            flight_.startNothing.Raise();
        }
    }

  private:
    void Look() {
        std::set<std::string> there;
        try {
            const DiscoveryResult result = Discover(command_.discovery, nullptr);
            const auto confusable = Confusable(result);
            for (const FoundDevice& device : result.devices) {
                const std::string& mac = device.reply.mac;
                if (!mac.empty() && matcher_.Matches(device) && there.insert(mac).second) {
                    const auto reason = confusable.find(mac);
                    Offer(device, reason == confusable.end() ? "" : reason->second);
                }
            }
            Trouble(result.problems.empty() ? "" : result.problems.front());
        } catch (const ToolError& error) {
            if (error.Code() != ExitCode::kUnreachable) {
                throw;
            }
            Trouble(error.what());
        }
        there_ = there;
    }

    // Says once why this PC cannot search.
    void Trouble(const std::string& text) {
        if (!text.empty() && text != trouble_) {
            runner_->Note("this PC cannot search: " + text);
        }
        trouble_ = text;
    }

    // A device that failed without accepting anything is tried again once it has been away.
    // `refusal`: why the device must not be upgraded; empty: it may.
    void Offer(const FoundDevice& device, const std::string& refusal) {
        Member member = fleet::MemberOf(device, command_.port);
        const auto known = runner_->Find(member.id);
        if (!known) {
            member.code = refusal.empty() ? ExitCode::kDone : ExitCode::kRefused;
            member.text = refusal;
            journal_->WritePlanned(member);
            runner_->Add(std::move(member));
            return;
        }
        if (there_.count(member.id) != 0) {
            return;
        }
        runner_->TryAgain(member.id, member.address);
        if (known->progress.state == State::kDone && known->firmware == member.firmware) {
            runner_->Note(member.id +
                          " is done, but has appeared with its former firmware: it is "
                          "back in recovery mode, or another device has its MAC "
                          "address; it is not upgraded again");
        }
    }

    const FleetCommand& command_;
    Matcher matcher_;
    const Flight& flight_;
    Journal* journal_;
    Runner* runner_;
    std::set<std::string> there_;  // those that answered the previous search
    std::string trouble_;          // why the previous search could not be sent
};

}  // namespace

ExitCode RunFleetWatch(const FleetCommand& command, const Layout& layout, Json* json) {
    const std::string path = JournalPath(command);
    const Matcher matcher(command.match);
    (*json)["file"] = Printable(command.package.file);
    (*json)["journal"] = Printable(path);
    const LoadedPackage package = LoadPackage(command.package, layout, json);
    const fleet::PackageName name = NameOf(command, package.report);
    JournalContents earlier = HasRun(path) ? ReadEarlier(path, name) : JournalContents();
    const Flight flight;
    Journal journal = Journal::Continue(path, earlier);
    FleetView view(command.json, name.size + kv::kMd5TrailerSize,
                   Seconds(command.times.leave + command.times.back), flight.startNothing);
    journal.Tell(&view);
    const int run = earlier.runs + 1;
    journal.WriteRun(run, name, {});
    RunRequest request = RequestOf(command, package, flight);
    request.keepOpen = true;
    Runner runner(request, &journal, &view);
    for (Member& member : earlier.members) {
        runner.Add(std::move(member));
    }
    {
        const InterruptsInSteps interrupts(flight.startNothing, flight.stopNow);
        LineWatcher line(command, flight, &journal, &runner);
        std::thread watching([&line] { line.Watch(); });
        runner.Run();
        watching.join();
    }
    view.Clear();
    return End(&journal, run, runner, command.json, json);
}

ExitCode RunFleetReport(const FleetReportCommand& command, Json* json) {
    (*json)["journal"] = Printable(command.journal);
    const JournalContents journal = fleet::ReadJournal(command.journal);
    if (journal.runs == 0) {
        throw ToolError(ExitCode::kRefused,
                        "there is no run in the journal " + Printable(command.journal));
    }
    if (command.csv) {
        fleet::WriteCsv(std::cout, journal);
    } else if (command.html) {
        fleet::WriteHtml(std::cout, journal);
    } else if (!command.json) {
        fleet::WriteTable(std::cout, journal, IsTerminal(stdout) ? SizeOf(stdout).columns - 1 : 0);
    }
    json->update(fleet::ReportJson(journal));
    return ExitCode::kDone;
}

}  // namespace kvtool
