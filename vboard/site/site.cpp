#include "vboard/site/site.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "vboard/preflight.h"
#include "vboard/process.h"
#include "vboard/site/plan.h"

namespace vboard::site {

using nlohmann::json;

namespace {

constexpr char kApAddress[] = "172.20.18.1/23";
constexpr char kLaptopAddress[] = "172.20.18.2/23";
constexpr char kWiredAddress[] = "192.168.10.1/23";
constexpr char kDhcpConfig[] =
    "interface ap0\n"
    "start 172.20.18.10\n"
    "end 172.20.19.253\n"
    "max_leases 500\n"
    "option subnet 255.255.254.0\n"
    "option router 172.20.18.1\n"
    "option dns 172.20.18.1\n"
    "option lease 3600\n";
constexpr char kLaptopWiredAddress[] = "192.168.11.254/23";
// The laptop's ends of its links, and the ends in the air.
constexpr char kLaptop[] = "wlan0";
constexpr char kLaptopPort[] = "laptop";
constexpr char kLaptopWired[] = "eth0";
constexpr char kLaptopWiredPort[] = "laptopeth";

// ip(8) commands that give the laptop's interface an address and set it up.
std::string SetUp(const std::string& interface, const std::string& address) {
    return "address add " + address + " brd + dev " + interface + "\nlink set " + interface +
           " up\n";
}

UniqueFd OwnNetwork() {
    UniqueFd network(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!network) {
        throw SysError("cannot reach the site's network");
    }
    return network;
}

std::string PathOf(const UniqueFd& fd) {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd.Get());
}

}  // namespace

Site::Site(SiteOptions options, const StateDir& state)
    : options_(std::move(options)), state_(state) {
    CheckHost(true, 1);
    lock_ = state.Lock();
    std::filesystem::create_directories(state.Path() / "boards");
    std::filesystem::remove(state.Path() / "control");
    BecomeRoot();
    CreateNetwork();
    dhcp_ = std::make_unique<DhcpServer>(state.Path(), kDhcpConfig, air_.Get());
    dhcp_->Start();
    signals_ = BlockSignals();
}

void Site::CreateNetwork() {
    EnterNewNetwork();
    air_ = OwnNetwork();
    EnterNewNetwork();  // the laptop's, where this process stays
    std::string air =
        "link set lo up\n" + AddBridge(kAccessPoint, "02:76:62:00:01:01", kApAddress) +
        AddBridge(kWired, "02:76:62:00:00:01", kWiredAddress) +
        AddCable(kAccessPoint, kLaptopPort, getpid(), kLaptop, "02:76:62:00:01:03", true);
    // Lets tools that search by limited broadcast find the boards without naming an interface.
    std::string laptop = "link set lo up\n" + SetUp(kLaptop, kLaptopAddress) +
                         "route add broadcast 255.255.255.255 dev " + kLaptop + "\n";
    if (options_.wired) {
        air +=
            AddCable(kWired, kLaptopWiredPort, getpid(), kLaptopWired, "02:76:62:00:00:03", true);
        laptop += SetUp(kLaptopWired, kLaptopWiredAddress);
    }
    Ip(air, air_.Get());
    Ip(laptop);
    if (!options_.rate.empty()) {
        Shape();
    }
}

void Site::Shape() {
    // All traffic between the laptop and wlan0 of the boards passes this link.
    const auto limit = [this](const char* interface, int network) {
        Command command{{"tc", "qdisc", "add", "dev", interface, "root", "tbf", "rate",
                         options_.rate, "burst", "64kb", "latency", "50ms"}};
        command.network = network;
        if (vboard::Run(command) != 0) {
            throw std::runtime_error("the air cannot be limited to \"" + options_.rate +
                                     "\" (use a rate such as 40mbit)");
        }
    };
    limit(kLaptop, -1);
    limit(kLaptopPort, air_.Get());
}

int Site::Run() {
    loop_.Add(signals_.Get(), [this] { OnSignal(); });
    control_ = std::make_unique<ControlServer>(
        &loop_, state_,
        [this](int connection, const json& request) { return Handle(connection, request); },
        [this](int connection) { OnClosed(connection); });
    loop_.Run();
    control_.reset();
    return 0;
}

void Site::OnSignal() {
    signalfd_siginfo info{};
    if (read(signals_.Get(), &info, sizeof(info)) != sizeof(info)) {
        return;
    }
    if (info.ssi_signo == SIGCHLD) {
        Reap();
    } else {
        Stop();
    }
}

void Site::Reap() {
    for (auto board = started_.begin(); board != started_.end();) {
        const bool ended = waitpid(board->second, nullptr, WNOHANG) == board->second;
        board = ended ? started_.erase(board) : std::next(board);
    }
    if (stopping_ && Empty()) {
        loop_.Stop();
    }
}

// Lets the boards end first. A second call does not wait for them.
void Site::Stop() {
    if (stopping_) {
        loop_.Stop();
        return;
    }
    stopping_ = true;
    for (const auto& board : boards_) {
        control_->HangUp(board.second);
    }
    for (const auto& [number, runner] : started_) {
        if (boards_.count(number) == 0) {
            (void)kill(runner, SIGTERM);
        }
    }
    if (Empty()) {
        loop_.Stop();
    }
}

void Site::OnClosed(int connection) {
    for (auto board = boards_.begin(); board != boards_.end();) {
        board = board->second == connection ? boards_.erase(board) : std::next(board);
    }
    if (stopping_ && Empty()) {
        loop_.Stop();
    }
}

json Site::Handle(int connection, const json& request) {
    const std::string command = request.at("command");
    if (command == "status") {
        return Status();
    }
    if (command == "join") {
        return Join(connection, request.at("number"));
    }
    if (command == "start") {
        return StartBoards(request);
    }
    if (command == "stop") {
        Stop();
    } else if (command == "lease") {
        Lease(request.at("number"), request.at("address"));
    } else if (command == "ap" && request.at("action") == "dhcp") {
        dhcp_->Start();
    } else if (command == "ap" && request.at("action") == "no-dhcp") {
        dhcp_->Stop();
    } else {
        throw std::runtime_error("unknown request to the site: \"" + command + "\"");
    }
    return json::object();
}

std::vector<int> Site::FreeNumbers(int count) const {
    std::vector<int> free;
    for (int number = 1; number <= kMaxBoards && static_cast<int>(free.size()) < count; ++number) {
        if (boards_.count(number) == 0 && started_.count(number) == 0) {
            free.push_back(number);
        }
    }
    if (stopping_ || static_cast<int>(free.size()) < count) {
        throw std::runtime_error(stopping_ ? "the site is being stopped"
                                           : "a site has room for " + std::to_string(kMaxBoards) +
                                                 " boards");
    }
    return free;
}

json Site::Join(int connection, int number) {
    if (number == 0) {
        number = FreeNumbers(1).front();
    }
    if (stopping_ || !boards_.emplace(number, connection).second) {
        throw std::runtime_error(stopping_ ? "the site is being stopped"
                                           : "board " + std::to_string(number) +
                                                 " is already on the site");
    }
    return {{"number", number}, {"runnerPid", getpid()}, {"air", PathOf(air_)}};
}

json Site::StartBoards(const json& request) {
    const std::vector<int> numbers = FreeNumbers(request.at("count"));
    for (const int number : numbers) {
        const StateDir folder(BoardFolder(state_.Path(), number));
        const UniqueFd log(open((folder.Path() / "runner.log").c_str(),
                                O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!log) {
            throw SysError("cannot write the log of board " + std::to_string(number));
        }
        Command command{{std::filesystem::read_symlink("/proc/self/exe"), "run", "--quiet",
                         "--site", state_.Path(), "--number", std::to_string(number)}};
        for (const json& argument : request.at("arguments")) {
            command.argv.push_back(argument);
        }
        command.directory = request.at("directory");
        command.output = log.Get();
        command.error = log.Get();
        command.dieWithParent = true;
        command.newSession = true;
        started_[number] = Start(command);
    }
    return {{"numbers", numbers}};
}

// The server reads its configuration only at its start, so restart it if it runs. It forgets the
// other leases.
void Site::Lease(int number, const std::string& address) {
    in_addr parsed{};
    if (number < 1 || number > kMaxBoards || inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
        throw std::runtime_error("give a board, 1 to " + std::to_string(kMaxBoards) +
                                 ", and an IPv4 address");
    }
    leases_[number] = address;
    std::string config = kDhcpConfig;
    for (const auto& [board, lease] : leases_) {
        config += "static_lease " + WlanMac(board) + " " + lease + "\n";
    }
    const bool running = dhcp_->Running();
    dhcp_ = std::make_unique<DhcpServer>(state_.Path(), config, air_.Get());
    if (running) {
        dhcp_->Start();
    }
}

json Site::Status() const {
    json numbers = json::array();
    for (const auto& board : boards_) {
        numbers.push_back(board.first);
    }
    json started = json::array();
    for (const auto& board : started_) {
        started.push_back(board.first);
    }
    return {{"runnerPid", getpid()},   {"initPid", -1},
            {"boards", numbers},       {"started", started},
            {"rate", options_.rate},   {"dhcp", dhcp_->Running()},
            {"wired", options_.wired}, {"stateDir", state_.Path()}};
}

}  // namespace vboard::site
