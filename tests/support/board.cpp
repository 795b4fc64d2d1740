#include "tests/support/board.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <ctime>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace kv_test {

namespace {

std::string Quoted(const std::string& word) {
    std::string quoted = "'";
    for (const char letter : word) {
        quoted += letter == '\'' ? "'\\''" : std::string(1, letter);
    }
    return quoted + "' ";
}

std::string Joined(const Lines& words) {
    std::string line;
    for (const std::string& word : words) {
        line += Quoted(word);
    }
    return line;
}

int ReceiveDescriptor(int channel) {
    char byte = 0;
    struct iovec data = {&byte, 1};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (recvmsg(channel, &message, MSG_CMSG_CLOEXEC) != 1) {
        return -1;
    }
    int descriptor = -1;
    const struct cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header != nullptr) {
        memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
    }
    return descriptor;
}

// Opens a socket in the network where this script runs and passes it over the Unix socket CHANNEL,
// so that a test can use it as if it ran there. "tcp" and "udp" are connected to HOST. "broadcast"
// is not, because answers come from other addresses. "icmp" receives all packets of that protocol.
constexpr char kOpenSocket[] = R"(
import socket, sys
channel, kind, host, port = sys.argv[1:]
opened = (socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) if kind == "icmp" else
          socket.socket(socket.AF_INET, socket.SOCK_STREAM if kind == "tcp" else socket.SOCK_DGRAM))
opened.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
if kind == "tcp":  # each send of a test becomes one segment
    opened.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
if kind in ("tcp", "udp"):
    opened.connect((host, int(port)))
socket.send_fds(socket.socket(fileno=int(channel)), [b"s"], [opened.fileno()])
)";

}  // namespace

std::string BinDir() {
    const char* const chosen = getenv("KV_BIN_DIR");
    return chosen != nullptr ? chosen : KV_BIN_DIR;
}

pid_t ForkDependent() {
    const pid_t child = fork();
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    }
    return child;
}

CommandResult RunCommand(const Lines& command, int timeoutSeconds) {
    return Run("exec timeout -k 1 " + std::to_string(timeoutSeconds) + " " + Joined(command));
}

void Board::Start(const Lines& options, const Lines& program) {
    Lines command = {BinDir() + "/vboard", "run", "--state", folder_.Path(), "--quiet"};
    command.insert(command.end(), options.begin(), options.end());
    command.push_back("--");
    const Lines usual = {BinDir() + "/upgradeMain"};
    const Lines& chosen = program.empty() ? usual : program;
    command.insert(command.end(), chosen.begin(), chosen.end());
    const std::string line = "exec " + Joined(command) + ">" + Path("runner.log") + " 2>&1";
    runner_ = ForkDependent();
    if (runner_ == 0) {
        (void)execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    if (!WaitBoot(1)) {
        throw std::runtime_error("the board did not start: " + ReadFile(Path("runner.log")));
    }
}

void Board::StartRecovery(const Lines& options) {
    Start(options);
    if (!WaitRecovery()) {
        throw std::runtime_error("no recovery: " + Trace());
    }
}

void Board::InstallApplication() {
    (void)Do({"flash", "write", "mtd5", MakeApplicationImage(*this)});
}

void Board::StartSilent(const std::string& speed) {
    InstallApplication();
    (void)Do({"app", "silent"});
    Start({"--no-wifi", "--speed", speed});
}

void Board::SendBeats(const Lines& datagrams) {
    std::string script = "import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n";
    for (const std::string& datagram : datagrams) {
        script += "s.sendto(" + datagram + ", (\"127.0.0.1\", 5555))\n";
    }
    const CommandResult sent = Try({"exec", "--board", "--", "python3", "-c", script});
    EXPECT_EQ(sent.status, 0) << sent.output;
}

void Board::Stop() {
    if (runner_ > 0) {
        (void)kill(runner_, SIGTERM);
        (void)Await();
    }
}

int Board::Await() {
    int status = 0;
    (void)waitpid(runner_, &status, 0);
    runner_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

CommandResult Board::Try(const Lines& arguments, int timeoutSeconds) {
    Lines command = {BinDir() + "/vboard", "--state", folder_.Path()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunCommand(command, timeoutSeconds);
}

std::string Board::Do(const Lines& arguments) {
    const CommandResult result = Try(arguments);
    if (result.status != 0) {
        throw std::runtime_error("vboard " + arguments[0] + " failed: " + result.output);
    }
    return result.output;
}

CommandResult Board::OnBench(const std::string& command) {
    return Try({"exec", "--", "/bin/sh", "-c", command});
}

CommandResult Board::OnBoard(const std::string& command) {
    return Try({"exec", "--board", "--", "/bin/sh", "-c", command});
}

void Board::Fault(Lines words) {
    words.insert(words.begin(), "fault");
    (void)Do(words);
}

void Board::ReplaceCommand(const std::string& name, const std::string& script) {
    WriteFile(Path("param/" + name), "#!/bin/sh\n" + script + "\n");
    const std::string file = "/param/" + name;
    const CommandResult replaced =
        OnBoard("chmod +x " + file + " && mount --bind " + file + " $(command -v " + name + ")");
    EXPECT_EQ(replaced.status, 0) << replaced.output;
}

bool Board::Wait(Lines words, int boot, int timeoutSeconds) {
    words.insert(words.begin(), {"wait", "--boot", std::to_string(boot)});
    words.insert(words.end(), {"--timeout", std::to_string(timeoutSeconds)});
    return Try(words, timeoutSeconds + 5).status == 0;
}

bool Board::WaitTrace(const std::string& text, int boot, int timeoutSeconds) {
    return Wait({"--log", text}, boot, timeoutSeconds);
}

bool Board::WaitConsole(const std::string& text, int boot, int timeoutSeconds) {
    return Wait({"--console-log", text}, boot, timeoutSeconds);
}

bool Board::WaitBoot(int boot, int timeoutSeconds) {
    return Wait({}, boot, timeoutSeconds);
}

std::string Board::Trace(int boot) const {
    return ReadFile(Path("boot-" + std::to_string(boot) + "/trace.log"));
}

Lines Board::Messages(int boot) const {
    static const std::regex header(
        "\033\\[[0-9;]*m\\S+ \\S+ \\[\\d\\d\\] \\d+ +(\\S+) (\\S+):(\\S+):\\d+ \033\\[m(.*)");
    Lines messages;
    std::istringstream lines(Trace(boot));
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, header)) {
            messages.push_back(match[1].str() + " " + match[3].str() + ": " + match[4].str());
        }
    }
    return messages;
}

std::vector<Board::TimedLine> Board::Timed(int boot) const {
    std::vector<TimedLine> lines;
    std::istringstream trace(Trace(boot));
    // Time, counter, process ID, level and place, text.
    static const std::regex form(
        "\033\\[[0-9;]*m(\\S+ \\S+) \\[\\d\\d\\] \\d+ +(\\S+ \\S+) \033\\[m(.*)");
    std::smatch match;
    for (std::string line; std::getline(trace, line);) {
        tm when{};
        if (std::regex_match(line, match, form) &&
            strptime(match[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &when) != nullptr) {
            lines.push_back({timegm(&when), match[2].str() + " " + match[3].str()});
        }
    }
    return lines;
}

std::string Board::Console(int boot) const {
    return ReadFile(Path("boot-" + std::to_string(boot) + "/console.log"));
}

Lines Board::Echoes(int boot) const {
    Lines echoes;
    std::istringstream console(Console(boot));
    for (std::string line; std::getline(console, line);) {
        if (line.compare(0, 2, "# ") == 0 && line.back() == '\r') {
            echoes.push_back(line.substr(2, line.size() - 3));
        }
    }
    return echoes;
}

std::vector<nlohmann::json> Board::Operations() const {
    std::vector<nlohmann::json> operations;
    std::istringstream lines(ReadFile(Path("ops.jsonl")));
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        operations.push_back(nlohmann::json::parse(line));
    }
    return operations;
}

nlohmann::json Board::Status() {
    return nlohmann::json::parse(Do({"status", "--json"}));
}

std::string Board::Reason(int boot) {
    return ReadFile(Path("boot-" + std::to_string(boot) + "/reason"));
}

bool Board::WaitFeeds(uint64_t feeds) {
    const uint64_t before = Feeds();
    return WaitUntil([&] { return Feeds() >= before + feeds; }, kBoardPatience);
}

void Board::ExpectFed() {
    std::vector<double> gaps;
    double last = 0;
    for (const nlohmann::json& operation : Operations()) {
        const std::string name = operation.at("op");
        const double at = operation.contains("board") ? operation.at("board") : operation.at("t");
        if (name == "ioctl:KEEPALIVE" && last != 0) {
            gaps.push_back(at - last);
        }
        last = name == "reset" ? 0 : name == "ioctl:KEEPALIVE" ? at : last;
    }
    ASSERT_GE(gaps.size(), 3U);
    std::sort(gaps.begin(), gaps.end());
    EXPECT_LT(gaps[gaps.size() / 2], 1.3);
    EXPECT_LT(gaps.back(), 10);
}

std::map<std::string, long> Board::Sleeps() {
    std::map<std::string, long> sleeps;
    const std::string tasks = "/proc/" + std::to_string(ProgramPid()) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::istringstream status(ReadFile(task.path() / "status"));
        std::string name;
        for (std::string line; std::getline(status, line);) {
            if (line.compare(0, 6, "Name:\t") == 0) {
                name = line.substr(6);
            } else if (line.compare(0, 24, "voluntary_ctxt_switches:") == 0) {
                sleeps[name] += std::stol(line.substr(24));
            }
        }
    }
    return sleeps;
}

std::string Board::Restless(const std::map<std::string, SleepRow>& rows,
                            const std::function<void()>& meanwhile) {
    constexpr double kLoopRate = kLoopsRest ? 0 : 10.5;
    const std::map<std::string, long> before = Sleeps();
    const auto start = Clock::now();
    meanwhile();
    const std::map<std::string, long> after = Sleeps();
    const double seconds = SecondsSince(start);
    std::ostringstream restless;
    for (const auto& [name, count] : after) {
        const auto row = rows.find(name);
        double most = row != rows.end() ? row->second.rate * seconds + row->second.slack : 0;
        if (name == "upgradeMain") {
            most += kLoopRate * seconds;
        } else if (name == "__KV_HV_LoopPro") {
            most += 4 * kLoopRate * seconds;
        }
        if (before.count(name) == 0) {
            restless << name << " was not there before\n";
        } else if (static_cast<double>(count - before.at(name)) > most) {
            restless << name << " slept " << count - before.at(name) << " times in " << seconds
                     << " s; the limit is " << most << "\n";
        }
    }
    return restless.str();
}

void Board::ExpectRest(const std::map<std::string, SleepRow>& rows,
                       const std::function<void()>& meanwhile) {
    std::string restless;
    for (int i = 0; i < 3; ++i) {
        restless = Restless(rows, meanwhile);
        if (restless.empty()) {
            return;
        }
    }
    ADD_FAILURE() << restless;
}

pid_t Board::ProgramPid() {
    return Status().at("program").at("hostPid").get<pid_t>();
}

void Board::Signal(int signal) {
    (void)kill(ProgramPid(), signal);
}

UniqueFd Board::Connect(const std::string& kind, int port, const std::string& host) {
    int channel[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, channel) != 0) {
        return UniqueFd();
    }
    const UniqueFd own(channel[0]);
    const UniqueFd other(channel[1]);
    (void)fcntl(own.Get(), F_SETFD, FD_CLOEXEC);
    const CommandResult result =
        Try({"exec", "--", "python3", "-c", kOpenSocket, std::to_string(other.Get()), kind, host,
             std::to_string(port)});
    return UniqueFd(result.status == 0 ? ReceiveDescriptor(own.Get()) : -1);
}

std::string Board::Flash(const std::string& mtd) const {
    return ReadFile(Path("flash/" + mtd + ".bin"));
}

Lines ChildrenOf(pid_t process) {
    const std::string number = std::to_string(process);
    std::istringstream all(ReadFile("/proc/" + number + "/task/" + number + "/children"));
    return {std::istream_iterator<std::string>(all), {}};
}

void ExpectGone(const Lines& processes) {
    for (const std::string& process : processes) {
        // Killed processes need a moment to go away.
        EXPECT_TRUE(WaitUntil([&] {
            const std::string stat = ReadFile("/proc/" + process + "/stat");
            return stat.empty() || Contains(stat, ") Z ");
        })) << process;
    }
}

std::string MakeApplicationImage(const Board& board) {
    const std::string tree = board.Path("app");
    const std::string image = board.Path("app.img");
    const CommandResult made =
        Run("mkdir -p " + tree + "/bin && cp " + BinDir() + "/cameraMain " + tree +
            "/bin && mksquashfs " + tree + " " + image + " -quiet -no-progress -all-root");
    if (made.status != 0) {
        throw std::runtime_error("no application image: " + made.output);
    }
    return image;
}

}  // namespace kv_test
