// vboard: a virtual camera. The command line.
#include <fcntl.h>
#include <kv_version.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>

#include "common/kv_platform.h"
#include "tools/base/command_line.h"
#include "vboard/board.h"
#include "vboard/boot.h"
#include "vboard/client.h"
#include "vboard/command_link.h"
#include "vboard/exec.h"
#include "vboard/site/commands.h"
#include "vboard/site/plan.h"
#include "vboard/site/site.h"
#include "vboard/site/site_link.h"
#include "vboard/watch.h"

namespace {

using vboard::StateDir;

// The options of all commands. A command runs when its options have been read.
struct Cli {
    CLI::App app{
        "vboard: a virtual camera. Runs the unchanged supervisor on virtual flash, "
        "watchdog, button, Ethernet and Wi-Fi."};
    std::string state = StateDir::Default();
    int exitStatus = 0;

    vboard::BoardOptions board;
    vboard::NetworkConfig network;
    std::string site;
    int number = 0;
    bool noEth = false;
    bool noWifi = false;
    bool onBoard = false;
    std::vector<std::string> command;
    bool asJson = false;
    vboard::LogOptions log;
    vboard::WaitOptions wait;
    vboard::FaultOptions fault;
    std::string mtd;
    std::string file;
    std::string sequence;
    double hold = 0;
    std::string action;
    unsigned lateSeconds = 0;
    vboard::site::SiteOptions siteOptions;
    vboard::site::StartOptions boards;

    Cli() {
        app.name("vboard");
        app.set_version_flag(
            "--version", std::string("vboard ") + kv::kVersion + ", built for " + kv::kDeviceName);
        app.require_subcommand(1);
        app.fallthrough();
        app.add_option("--state", state, "State folder of the board or site")
            ->capture_default_str();
        AddRun();
        AddExec();
        AddObservers();
        AddFlash();
        AddHands();
        AddSite();
        kvtool::AddCompletion(&app);
    }

    CLI::App* Add(CLI::App* parent, const char* name, const char* text,
                  std::function<void(const StateDir&)> run) {
        CLI::App* const sub = parent->add_subcommand(name, text);
        sub->callback([this, act = std::move(run)] { act(StateDir(state)); });
        return sub;
    }

    void AddLayout(CLI::App* sub) {
        sub->add_option("--layout", board.layout,
                        "Partition sizes, mtd0=256K,mtd1=64K,…; 0 leaves one out");
        sub->add_option("--erase-block", board.eraseBlock, "Size of an erase block in bytes")
            ->capture_default_str();
    }

    void AddRun() {
        CLI::App* const run = Add(&app, "run", "Switch a board on; stays in the foreground",
                                  [this](const StateDir& where) { Run(where); });
        CLI::Option* const join =
            run->add_option("--site", site, "Join the site with this state folder");
        run->add_option("--number", number, "The board's number on the site; default: a free one")
            ->needs(join)
            ->check(CLI::Range(1, vboard::site::kMaxBoards));
        AddRunOptions(run);
        run->add_flag("--no-wifi", noWifi, "No wlan0 and no access point")->excludes(join);
        run->add_flag("--quiet", board.quiet, "Keep the board's output off the terminal");
    }

    // The options that `run` and `site start` have in common.
    void AddRunOptions(CLI::App* run) {
        AddLayout(run);
        run->add_flag("--nor-timing", board.norTiming, "Flash takes as long as a real chip");
        run->add_option("--speed", board.speed, "How many times faster the board's clock runs")
            ->check(CLI::Range(1, 100))
            ->capture_default_str();
        CLI::Option* const eth =
            run->add_option("--eth", network.ethAddress,
                            "The board's address on eth0; on a site it follows from the number")
                ->capture_default_str();
        run->add_flag("--no-eth", noEth, "No eth0")->excludes(eth);
        run->add_option("--max-boots", board.maxBoots, "Stop after this many boots; 0: no limit");
        run->add_option("--env", board.environment, "NAME=VALUE for the program; may be repeated")
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        run->add_option("program", board.program, "The program and its arguments, after --")
            ->required()
            ->type_name("FILE");
    }

    void Run(const StateDir& where) {
        board.wifi = !noWifi;
        if (site.empty()) {
            network.wifi = board.wifi;
            network.ethAddress = noEth ? "" : network.ethAddress;
            auto bench = std::make_unique<vboard::BenchNetwork>(network, where);
            exitStatus = vboard::Board(board, where, std::move(bench)).Run();
            return;
        }
        const std::string eth = noEth ? vboard::site::SiteLink::kNoEth
                                : app.get_subcommand("run")->count("--eth") > 0 ? network.ethAddress
                                                                                : "";
        auto link = std::make_unique<vboard::site::SiteLink>(StateDir(site), number, eth);
        const StateDir place(link->Folder());
        exitStatus = vboard::Board(board, place, std::move(link)).Run();
    }

    void AddExec() {
        CLI::App* const exec = Add(
            &app, "exec", "Run a command in the bench's network or on the board",
            [this](const StateDir& where) { exitStatus = vboard::Exec(where, onBoard, command); });
        CLI::Option* const bench =
            exec->add_flag("--bench", "In the bench's network, with the host's files (default)");
        exec->add_flag("--board", onBoard, "On the board")->excludes(bench);
        exec->add_option("command", command, "The command, after --")
            ->required()
            ->type_name("FILE");
    }

    void AddObservers() {
        Add(&app, "status", "Show boots, watchdog, network, processes",
            [this](const StateDir& where) { vboard::ShowStatus(where, asJson); })
            ->add_flag("--json", asJson, "For programs");
        Add(&app, "ops", "Show the operations on flash and watchdog",
            [this](const StateDir& where) { vboard::ShowOperations(where, asJson); })
            ->add_flag("--json", asJson, "One JSON object a line");
        CLI::App* const show = Add(&app, "log", "Show the program's trace (standard error)",
                                   [this](const StateDir& where) { vboard::ShowLog(where, log); });
        show->add_option("--boot", log.boot, "Number of the boot; default: the newest");
        show->add_flag("--console", log.console,
                       "Show standard output and platform messages instead");
        show->add_flag("--follow", log.follow, "Continue until the board is stopped");
        CLI::App* const await =
            Add(&app, "wait", "Wait for a boot or for texts in its logs",
                [this](const StateDir& where) { vboard::WaitForLog(where, wait); });
        await->add_option("--boot", wait.boot,
                          "Number of the boot; default: the present or a later one");
        await->add_option("--log", wait.trace, "Text in the trace");
        await->add_option("--console-log", wait.console, "Text on the console");
        await->add_option("--timeout", wait.timeout, "Seconds")->capture_default_str();
    }

    void AddFlash() {
        CLI::App* const flash = app.add_subcommand("flash", "Read or write a flash partition");
        flash->require_subcommand(1);
        CLI::App* const read =
            Add(flash, "read", "Copy a partition into a file",
                [this](const StateDir& where) { vboard::ReadFlash(where, mtd, file); });
        CLI::App* const write =
            Add(flash, "write", "Copy a file into a partition; 0xFF fills the rest",
                [this](const StateDir& where) {
                    vboard::WriteFlash(where, mtd, file, board.layout, board.eraseBlock);
                });
        for (CLI::App* const sub : {read, write}) {
            sub->add_option("mtd", mtd, "mtd0 … mtd7")->required();
            sub->add_option("file", file, "The file")->required()->type_name("FILE");
        }
        AddLayout(write);
    }

    void AddHands() {
        CLI::App* const add =
            Add(&app, "fault", "Make the next operations of a device, or reboot, fail",
                [this](const StateDir& where) { vboard::AddFault(where, fault); });
        add->add_option("device", fault.device,
                        "mtd0 … mtd7, flash (any of them), watchdog, reboot, trace, power")
            ->required();
        add->add_option("operation", fault.operation,
                        "open, ioctl, erase, write, read; for reboot: fail, hang, off; for "
                        "trace: block, off; for power: none, or off");
        CLI::Option* const error = add->add_option("--errno", fault.errorName, "EIO, ENOSPC, …");
        add->add_option("--short", fault.shortBytes, "Write only this many bytes")->excludes(error);
        CLI::Option* const skip =
            add->add_option("--skip", fault.skip, "Let this many succeed first");
        add->add_option("--at", fault.at, "The first one to fail, counted from 1")
            ->excludes(skip)
            ->check(CLI::PositiveNumber);
        add->add_option("--count", fault.count, "Then fail this many")->capture_default_str();
        CLI::Option* const after =
            add->add_option("--after", fault.after,
                            "power: fail after this many block erasures and page programmings")
                ->check(CLI::PositiveNumber);
        CLI::Option* const inside =
            add->add_option("--inside", fault.inside,
                            "power: fail inside this erasure or programming")
                ->check(CLI::PositiveNumber)
                ->excludes(after);
        add->add_option("--half", fault.half, "power: the half of it that is done: first, second")
            ->check(CLI::IsMember({"first", "second"}))
            ->needs(inside)
            ->capture_default_str();

        CLI::App* const press = Add(&app, "press", "Press the reset button",
                                    [this](const StateDir& where) { Press(where); });
        CLI::Option* const once = press->add_option("--hold", hold, "Seconds");
        press->add_option("--sequence", sequence, "'3 0.5 9.5': seconds pressed, released, …")
            ->excludes(once);

        CLI::App* const behave = Add(
            &app, "app", "Set how the stand-in application behaves",
            [this](const StateDir& where) { vboard::SetApplication(where, action, lateSeconds); });
        behave->add_option("mode", action, "beat, not-ready, silent, late, crash, never")
            ->required()
            ->check(CLI::IsMember({"beat", "not-ready", "silent", "late", "crash", "never"}));
        behave->add_option("seconds", lateSeconds, "late: how long it is silent after its start");

        Add(&app, "reset", "Cut the power for a moment; the board boots again",
            [](const StateDir& where) { vboard::Reset(where); });
        Add(&app, "power", "Cut the power, or switch the board on again",
            [this](const StateDir& where) { vboard::SetPower(where, action); })
            ->add_option("action", action, "off, on")
            ->required()
            ->check(CLI::IsMember({"off", "on"}));
        Add(&app, "stop", "Switch the board off and end its runner",
            [](const StateDir& where) { vboard::Stop(where); });
        Add(&app, "ap", "Control the access point",
            [this](const StateDir& where) { vboard::Send(where, "ap", action); })
            ->add_option("action", action, "up, down, mute, unmute, dhcp, no-dhcp")
            ->required()
            ->check(CLI::IsMember({"up", "down", "mute", "unmute", "dhcp", "no-dhcp"}));
        Add(&app, "link", "Set the board's wlan0",
            [this](const StateDir& where) { vboard::Send(where, "link", action); })
            ->add_option("action", action, "up, down")
            ->required()
            ->check(CLI::IsMember({"up", "down"}));
    }

    void AddSite() {
        CLI::App* const group =
            app.add_subcommand("site", "Many boards on one service network, with one laptop");
        group->require_subcommand(1);
        CLI::App* const run = Add(group, "run", "Set up the network; stays in the foreground",
                                  [this](const StateDir& where) {
                                      exitStatus = vboard::site::Site(siteOptions, where).Run();
                                  });
        run->add_option("--shape", siteOptions.rate,
                        "Rate that all boards share in each direction, e.g. 40mbit");
        run->add_flag("--wired", siteOptions.wired,
                      "Plug the laptop into the boards' wired network too");
        CLI::App* const start = Add(group, "start", "Start boards; returns when all have joined",
                                    [this](const StateDir& where) { StartBoards(where); });
        start->add_option("count", boards.count, "How many boards")
            ->required()
            ->check(CLI::Range(1, vboard::site::kMaxBoards));
        start->add_flag("--no-wait", boards.noWait, "Return when the programs run");
        start->add_option("--timeout", boards.timeout, "Seconds")->capture_default_str();
        AddRunOptions(start);
        Add(group, "status", "Show the site and its boards", [this](const StateDir& where) {
            vboard::site::ShowSite(where, asJson);
        })->add_flag("--json", asJson, "For programs");
        Add(group, "exec", "Run a command on the laptop",
            [this](const StateDir& where) {
                exitStatus = vboard::site::RunOnLaptop(where, command);
            })
            ->add_option("command", command, "The command, after --")
            ->required();
        CLI::App* const lease =
            Add(group, "lease", "Give a board this address with its next DHCP request",
                [this](const StateDir& where) { vboard::site::SetLease(where, number, action); });
        lease->add_option("number", number, "The board's number")->required();
        lease->add_option("address", action, "Address of its wlan0")->required();
        for (const char* const word : {"dhcp", "no-dhcp"}) {
            Add(group, word,
                word[0] == 'd' ? "Start the DHCP server again" : "Stop the DHCP server",
                [word](const StateDir& where) { vboard::site::SetDhcp(where, word); });
        }
        Add(group, "stop", "End the site and its boards",
            [](const StateDir& where) { vboard::site::StopSite(where); });
    }

    // The boards' runners get the options that this command got.
    void StartBoards(const StateDir& where) {
        const CLI::App* const start = app.get_subcommand("site")->get_subcommand("start");
        for (const CLI::Option* const option : start->get_options()) {
            const std::string name = option->get_name();
            if (option->count() == 0 || name == "--timeout" || name == "--no-wait" ||
                option->get_positional()) {
                continue;
            }
            for (const std::string& value : option->results()) {
                boards.run.push_back(name);
                if (option->get_expected_min() > 0) {
                    boards.run.push_back(value);
                }
            }
        }
        boards.run.emplace_back("--");
        boards.run.insert(boards.run.end(), board.program.begin(), board.program.end());
        vboard::site::StartBoards(where, boards);
    }

    void Press(const StateDir& where) {
        std::istringstream words(sequence.empty() ? std::to_string(hold) : sequence);
        const std::vector<double> seconds{std::istream_iterator<double>(words), {}};
        const bool possible = std::all_of(seconds.begin(), seconds.end(), [](double duration) {
            return duration >= 0 && duration <= vboard::kLongestPress;
        });
        if (!words.eof() || seconds.empty() || seconds[0] <= 0 || !possible) {
            throw std::runtime_error(
                "specify how long, 0 to 86400 s: --hold SECONDS or --sequence '3 0.5 9.5'");
        }
        vboard::Press(where, seconds);
    }
};

int RunCli(int argc, char** argv) {
    Cli cli;
    return kvtool::ParseCommandLine(&cli.app, argc, argv).value_or(cli.exitStatus);
}

}  // namespace

int main(int argc, char** argv) {
    if (vboard::IsCommandLink()) {
        return vboard::CommandLinkMain(argc, argv);
    }
    if (argc == 2 && std::strcmp(argv[1], "__init") == 0) {
        return vboard::InitMain();
    }
    // Occupies descriptors 0 to 2, so that no file opened later gets one of them.
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    (void)close(fd);
    try {
        return RunCli(argc, argv);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "vboard: %s\n", error.what());
        return 1;
    }
}
