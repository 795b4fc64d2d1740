#include "vboard/board.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "vboard/boot.h"
#include "vboard/preflight.h"
#include "vboard/process.h"
#include "vboard/process_list.h"
#include "vboard/rootfs.h"

namespace vboard {

using nlohmann::json;

namespace {

constexpr char kPowerOn[] = "power-on";
constexpr char kPowerCut[] = "power cut";
constexpr char kStopped[] = "stopped";
// The application's partition. The platform unpacks it at boot.
constexpr char kAppPartition[] = "mtd5";

std::string UsableProgram(const std::string& name) {
    std::error_code missing;
    std::string path = std::filesystem::canonical(name, missing);
    if (missing || access(path.c_str(), X_OK) != 0 || !std::filesystem::is_regular_file(path)) {
        throw std::runtime_error("not a program: " + name);
    }
    return path;
}

// Runs in the cloned child until its exec: async-signal-safe calls only.
[[noreturn]] void BecomeInit(const Console& console, int socket) {
    ResetSignals();
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    (void)dup2(null, STDIN_FILENO);
    (void)dup2(console.ConsoleEnd(), STDOUT_FILENO);
    (void)dup2(console.TraceEnd(), STDERR_FILENO);
    if (socket == kInitSocket) {
        (void)fcntl(socket, F_SETFD, 0);
    } else {
        (void)dup2(socket, kInitSocket);
    }
    (void)execl("/proc/self/exe", "vboard", "__init", nullptr);
    _exit(kExitFailed);
}

}  // namespace

Board::Board(const BoardOptions& options, const StateDir& state,
             std::unique_ptr<BoardNetwork> network)
    : options_(options), state_(state), network_(std::move(network)) {
    options_.program.at(0) = UsableProgram(options.program.at(0));
    self_ = std::filesystem::read_symlink("/proc/self/exe");
    partitions_ = ParseLayout(options.layout, options.eraseBlock, state);
    CheckHost(options.wifi, options.speed);
    lock_ = state.Lock();
    network_->Create();
    state.Prepare();
    signals_ = BlockSignals();
    watchdogEvent_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    devices_ = std::make_unique<Devices>(DevicesConfig{
        partitions_, options.eraseBlock, options.norTiming, state.OpLog(), options.speed});
    powerEvent_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    devices_->OnWatchdogReset([this] { (void)eventfd_write(watchdogEvent_.Get(), 1); });
    devices_->OnPowerCut([this] { (void)eventfd_write(powerEvent_.Get(), 1); });
}

Board::~Board() {
    if (init_ > 0) {
        CutPower(kStopped);
        (void)WaitStatus(init_);
    }
}

int Board::Run() {
    loop_.Add(signals_.Get(), [this] { OnSignal(); });
    loop_.Add(watchdogEvent_.Get(), [this] { OnWatchdog(); });
    loop_.Add(powerEvent_.Get(), [this] { OnPowerCut(); });
    if (network_->EndFd() >= 0) {
        loop_.Add(network_->EndFd(), [this] {
            loop_.Remove(network_->EndFd());
            Stop(0);
        });
    }
    StartBoot(kPowerOn);
    control_ = std::make_unique<ControlServer>(
        &loop_, state_,
        [this](int connection, const json& request) { return Handle(connection, request); },
        [this](int connection) {
            if (connection == buttonHolder_) {
                PressButton(connection, false);
            }
        });
    loop_.Run();
    control_.reset();
    return exitStatus_;
}

void Board::StartBoot(const std::string& reason) {
    reasons_.push_back(reason);
    const int number = static_cast<int>(reasons_.size());
    std::filesystem::create_directory(state_.Boot(number));
    WriteText(state_.Boot(number) / "reason", reason + "\n");
    std::filesystem::remove(state_.RebootFault());
    cutReason_.clear();
    failure_.clear();
    programCode_ = -1;
    console_ = std::make_unique<Console>(&loop_, state_, number, options_.quiet);
    console_->Say("boot " + std::to_string(number) + ": " + reason);
    devices_->Note("boot", std::to_string(number) + ": " + reason);

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw SysError("cannot create a socket pair");
    }
    initSocket_.Reset(ends[0]);
    const UniqueFd initEnd(ends[1]);
    constexpr unsigned long kSpaces =
        CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC;
    init_ = static_cast<pid_t>(syscall(SYS_clone, kSpaces | SIGCHLD, 0, 0, 0, 0));
    if (init_ < 0) {
        throw SysError("cannot make the board's namespaces");
    }
    if (init_ == 0) {
        BecomeInit(*console_, initEnd.Get());
    }
    console_->CloseBoardEnds();
    loop_.Add(initSocket_.Get(), [this] { OnInitMessage(); });

    BootConfig config;
    config.root = state_.Path() / "root";
    config.state = state_.Path();
    config.program = options_.program[0];
    config.self = self_;
    config.speed = options_.speed;
    config.arguments.assign(options_.program.begin() + 1, options_.program.end());
    config.environment = options_.environment;
    config.ethAddress = network_->EthAddress();
    for (const PartitionConfig& partition : partitions_) {
        config.devices.push_back(partition.name);
        if (partition.name == kAppPartition) {
            config.appFlash = partition.file;
        }
    }
    config.devices.emplace_back(kWatchdog);

    network_->Attach(init_);
    DevicesMount mount = MountDevices();
    devices_->Attach(mount.fuse.Release(), number);
    SendMessage(initSocket_.Get(), config, mount.tree.Get());
}

void Board::OnInitMessage() {
    const auto message = ReceiveMessage(initSocket_.Get());
    if (!message) {
        loop_.Remove(initSocket_.Get());
        return;
    }
    const std::string event = message->at("event");
    if (event == "failed") {
        failure_ = message->at("text");
    } else if (event == "started") {
        program_ = message->at("pid");
    } else if (event == "ended") {
        programCode_ = message->at("code");
    }
}

void Board::OnSignal() {
    signalfd_siginfo info{};
    if (read(signals_.Get(), &info, sizeof(info)) != sizeof(info)) {
        return;
    }
    if (info.ssi_signo != SIGCHLD) {
        Stop(0);
        return;
    }
    int status = 0;
    if (init_ > 0 && waitpid(init_, &status, WNOHANG) == init_) {
        FinishBoot(status);
    }
}

void Board::OnWatchdog() {
    eventfd_t count = 0;
    (void)eventfd_read(watchdogEvent_.Get(), &count);
    CutPower("watchdog");
}

void Board::OnPowerCut() {
    eventfd_t count = 0;
    (void)eventfd_read(powerEvent_.Get(), &count);
    // The event may be left over from a boot that ended for another reason.
    if (init_ > 0 && cutReason_.empty()) {
        SetPower("off");
    }
}

void Board::SetPower(const std::string& action) {
    if (action == "off") {
        powered_ = false;
        CutPower(kPowerCut);
    } else if (action != "on") {
        throw std::runtime_error("the power can be switched \"on\" or \"off\"");
    } else if (powered_) {
        throw std::runtime_error("the board is on");
    } else {
        powered_ = true;
        // If the boot is still ending, FinishBoot starts the next one.
        if (init_ < 0) {
            StartBoot(kPowerOn);
        }
    }
}

void Board::CutPower(const std::string& reason) {
    if (init_ < 0 || !cutReason_.empty()) {
        return;
    }
    cutReason_ = reason;
    if (reason == kStopped) {
        (void)kill(init_, SIGKILL);  // the kernel kills the others; nobody looks at them any more
    } else {
        // Killing init alone would give the others time to see their flash fail, and to write
        // /param.
        KillBoard(init_);
    }
    // A process inside a device operation dies only when the operation ends, so the devices lose
    // power too.
    devices_->Detach();
}

void Board::Stop(int exitStatus) {
    stopping_ = true;
    exitStatus_ = exitStatus;
    CutPower(kStopped);
    if (init_ < 0) {
        loop_.Stop();
    }
}

std::string Board::ResetReason(int waitStatus) const {
    if (!cutReason_.empty()) {
        return cutReason_;
    }
    if (WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == SIGHUP) {
        return "reboot -f";
    }
    if (WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == kExitReboot) {
        return "reboot";
    }
    const bool off = (WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == SIGINT) ||
                     (WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == kExitPowerOff);
    return off ? "switched off" : "";
}

void Board::FinishBoot(int waitStatus) {
    init_ = -1;
    program_ = 0;
    // Init's report of a failure may still be in the socket.
    while (failure_.empty() && cutReason_.empty()) {
        const auto message = ReceiveMessage(initSocket_.Get());
        if (!message) {
            break;
        }
        failure_ = message->value("text", "");
    }
    loop_.Remove(initSocket_.Get());
    devices_->Detach();
    // A watchdog that fired, or a chip that lost its power, while the board went down must not
    // reset the next boot.
    eventfd_t count = 0;
    (void)eventfd_read(watchdogEvent_.Get(), &count);
    (void)eventfd_read(powerEvent_.Get(), &count);
    network_->Detach();

    const std::string reason = ResetReason(waitStatus);
    console_->Say("down: " + (reason.empty() ? "init has died" : reason));
    console_.reset();
    devices_->Note("reset", reason);
    const bool lastBoot =
        options_.maxBoots > 0 && reasons_.size() >= static_cast<size_t>(options_.maxBoots);
    if (reason.empty()) {
        throw std::runtime_error(failure_.empty() ? "the board's init has died" : failure_);
    }
    if (stopping_ || lastBoot || reason == "switched off") {
        loop_.Stop();
        return;
    }
    if (powered_) {
        StartBoot(reason == kPowerCut ? kPowerOn : reason);
    }
}

void Board::PressButton(int connection, bool pressed) {
    buttonHolder_ = pressed ? connection : -1;
    // Written in place, so that a reader never finds an empty file.
    const UniqueFd value(open(state_.ButtonValue().c_str(), O_WRONLY | O_CLOEXEC));
    if (!value || pwrite(value.Get(), pressed ? "0" : "1", 1, 0) != 1) {
        throw SysError("cannot set the button's line");
    }
}

void Board::AddFault(const json& request) {
    const std::string device = request.at("device");
    const std::string operation = request.at("operation");
    if (device == "trace") {
        if (operation != "block" && operation != "off") {
            throw std::runtime_error("not a fault of the trace: \"" + operation +
                                     "\" (use block or off)");
        }
        RequirePower();
        console_->HoldTrace(operation == "block");
        return;
    }
    if (device == "power") {
        AddPowerFault(request);
        return;
    }
    if (device != "reboot") {
        devices_->AddFault({device, operation, request.value("errno", 0),
                            request.value("short", 0U), request.value("skip", 0U),
                            request.value("count", 1U)});
        return;
    }
    if (operation != "fail" && operation != "hang" && operation != "off") {
        throw std::runtime_error("not a fault of reboot: \"" + operation +
                                 "\" (use fail, hang or off)");
    }
    WriteText(state_.RebootFault(), operation);
}

void Board::AddPowerFault(const json& request) {
    PowerCut cut;
    cut.step = request.value("step", uint64_t{0});
    const std::string place = request.at("operation");
    if (place == "first") {
        cut.place = PowerCut::Place::kFirstHalf;
    } else if (place == "second") {
        cut.place = PowerCut::Place::kSecondHalf;
    } else if (place == "off") {
        cut.step = 0;
    } else if (place != "after") {
        throw std::runtime_error("the power can fail \"after\" an operation or inside it");
    }
    devices_->SetPowerCut(cut);
}

void Board::RequirePower() const {
    if (init_ < 0) {
        throw std::runtime_error("the board has no power (switch it on with: vboard power on)");
    }
}

json Board::Brief() const {
    return {{"number", network_->Number()},
            {"boot", reasons_.size()},
            {"state", init_ < 0 ? "off" : (program_ > 0 ? "up" : "booting")},
            {"reason", reasons_.empty() ? "" : reasons_.back()},
            {"running", program_ > 0 && programCode_ < 0},
            {"hasEth", !network_->EthAddress().empty()},
            {"ethAddress", init_ < 0 ? "" : AddressOf(init_, "eth0")},
            {"wlanAddress", init_ < 0 ? "" : AddressOf(init_, "wlan0")},
            {"stateDir", state_.Path()}};
}

json Board::Status() {
    json boots = json::array();
    for (size_t i = 0; i < reasons_.size(); ++i) {
        boots.push_back({{"boot", i + 1}, {"reason", reasons_[i]}});
    }
    json program = {{"running", program_ > 0 && programCode_ < 0}, {"pid", program_}};
    if (programCode_ >= 0) {
        program["exitCode"] = programCode_;
    }
    const std::vector<BoardProcess> processes = ListBoard(init_);
    for (const BoardProcess& process : processes) {
        if (process.pid == program_ && programCode_ < 0) {
            program["hostPid"] = process.hostPid;
            program["threads"] = process.threads;
        }
    }
    const WatchdogStatus watchdog = devices_->Watchdog();
    return {{"boot", reasons_.size()},
            {"speed", options_.speed},
            {"boots", boots},
            {"state", init_ < 0 ? "off" : (program_ > 0 ? "up" : "booting")},
            {"program", program},
            {"processes", processes},
            {"watchdog",
             {{"open", watchdog.open},
              {"armed", watchdog.armed},
              {"timeout", watchdog.timeoutSeconds},
              {"sinceFeed", watchdog.secondsSinceFeed},
              {"feeds", watchdog.feeds},
              {"largestGap", watchdog.largestGapSeconds}}},
            {"network", network_->Describe()},
            {"button", buttonHolder_ >= 0 ? "pressed" : "released"},
            {"runnerPid", getpid()},
            {"initPid", init_},
            {"stateDir", state_.Path()}};
}

json Board::Handle(int connection, const json& request) {
    const std::string command = request.at("command");
    if (command == "status") {
        return Status();
    }
    if (command == "brief") {
        return Brief();
    }
    if (command == "reset") {
        RequirePower();
        CutPower("reset");
    } else if (command == "power") {
        SetPower(request.at("action"));
    } else if (command == "stop") {
        Stop(0);
    } else if (command == "fault") {
        AddFault(request);
    } else if (command == "button") {
        PressButton(connection, request.at("pressed"));
    } else if (command == "ap") {
        network_->AccessPoint(request.at("action"));
    } else if (command == "link") {
        RequirePower();
        network_->WlanLink(init_, request.at("action") == "up");
    } else {
        throw std::runtime_error("unknown request to the runner: \"" + command + "\"");
    }
    return json::object();
}

}  // namespace vboard
