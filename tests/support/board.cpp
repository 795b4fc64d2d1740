#include "tests/support/board.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace kv_test {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> Pointers(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (const auto& word : words) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Starts a program with its output going to `output`. Descriptors without close-on-exec are
// inherited.
pid_t Spawn(const std::vector<std::string>& command, int output) {
    const auto pointers = Pointers(command);
    const pid_t pid = fork();
    if (pid == 0) {
        (void)dup2(output, 1);
        (void)dup2(output, 2);
        (void)execv(pointers[0], pointers.data());
        _exit(127);
    }
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    return pid;
}

int ExitStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Reads until the end or the deadline; false at the deadline.
bool ReadAll(int fd, std::string* text, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        struct pollfd readable = {fd, POLLIN, 0};
        if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) {
            return false;
        }
        char block[4096];
        const ssize_t got = read(fd, block, sizeof(block));
        if (got <= 0) {
            return true;
        }
        text->append(block, static_cast<size_t>(got));
    }
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

}  // namespace

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string BinDir() {
    const char* const chosen = getenv("KV_BIN_DIR");
    return chosen != nullptr ? chosen : KV_BIN_DIR;
}

CommandResult RunCommand(const std::vector<std::string>& command, int timeoutSeconds) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t pid = Spawn(command, ends[1]);
    (void)close(ends[1]);
    CommandResult result = {0, ""};
    if (!ReadAll(ends[0], &result.output, Clock::now() + std::chrono::seconds(timeoutSeconds))) {
        result.output += "\n(stopped by the test after its time-out)\n";
        (void)kill(pid, SIGKILL);
    }
    (void)close(ends[0]);
    int status = 0;
    (void)waitpid(pid, &status, 0);
    result.status = ExitStatus(status);
    return result;
}

Board::Board() {
    char folder[] = "/tmp/kv-board-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        throw std::runtime_error("no folder for the board");
    }
    state_ = folder;
}

Board::~Board() {
    Stop();
    (void)RunCommand({"/bin/rm", "-rf", state_});
}

void Board::Start(const std::vector<std::string>& options, const std::string& program) {
    std::vector<std::string> command = {BinDir() + "/vboard", "run", "--state", state_, "--quiet"};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), {"--", program.empty() ? BinDir() + "/upgradeMain" : program});
    const int log = open((state_ + "/runner.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    runner_ = Spawn(command, log);
    (void)close(log);
    if (!WaitBoot(1)) {
        throw std::runtime_error("the board did not start: " + ReadFile(state_ + "/runner.log"));
    }
}

void Board::InstallApplication() {
    const std::string tree = Path("app");
    const std::string image = Path("app.img");
    const CommandResult made = RunCommand({"/bin/sh", "-ec",
                                           "mkdir -p " + tree + "/bin; cp " + BinDir() +
                                               "/cameraMain " + tree + "/bin; mksquashfs " + tree +
                                               " " + image + " -quiet -no-progress -all-root"});
    if (made.status != 0) {
        throw std::runtime_error("no application image: " + made.output);
    }
    (void)Do({"flash", "write", "mtd5", image});
}

void Board::Stop() {
    if (runner_ > 0) {
        (void)kill(runner_, SIGTERM);
        (void)waitpid(runner_, nullptr, 0);
        runner_ = -1;
    }
}

CommandResult Board::Try(const std::vector<std::string>& arguments, int timeoutSeconds) {
    std::vector<std::string> command = {BinDir() + "/vboard", "--state", state_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunCommand(command, timeoutSeconds);
}

std::string Board::Do(const std::vector<std::string>& arguments) {
    const CommandResult result = Try(arguments);
    if (result.status != 0) {
        throw std::runtime_error("vboard " + arguments[0] + " failed: " + result.output);
    }
    return result.output;
}

CommandResult Board::OnBench(const std::string& command, int timeoutSeconds) {
    return Try({"exec", "--", "/bin/sh", "-c", command}, timeoutSeconds);
}

CommandResult Board::OnBoard(const std::string& command, int timeoutSeconds) {
    return Try({"exec", "--board", "--", "/bin/sh", "-c", command}, timeoutSeconds);
}

bool Board::WaitTrace(const std::string& text, int boot, int timeoutSeconds) {
    return Try({"wait", "--boot", std::to_string(boot), "--log", text, "--timeout",
                std::to_string(timeoutSeconds)},
               timeoutSeconds + 5)
               .status == 0;
}

bool Board::WaitConsole(const std::string& text, int boot, int timeoutSeconds) {
    return Try({"wait", "--boot", std::to_string(boot), "--console-log", text, "--timeout",
                std::to_string(timeoutSeconds)},
               timeoutSeconds + 5)
               .status == 0;
}

bool Board::WaitBoot(int boot, int timeoutSeconds) {
    return Try({"wait", "--boot", std::to_string(boot), "--timeout",
                std::to_string(timeoutSeconds)},
               timeoutSeconds + 5)
               .status == 0;
}

std::string Board::Trace(int boot) const {
    return ReadFile(state_ + "/boot-" + std::to_string(boot) + "/trace.log");
}

std::vector<std::string> Board::Messages(int boot) const {
    static const std::regex header(
        "\033\\[[0-9;]*m\\S+ \\S+ \\[\\d\\d\\] \\d+ +(\\S+) (\\S+):(\\S+):\\d+ \033\\[m(.*)");
    std::vector<std::string> messages;
    std::istringstream lines(Trace(boot));
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, header)) {
            messages.push_back(match[1].str() + " " + match[3].str() + ": " + match[4].str());
        }
    }
    return messages;
}

std::string Board::Console(int boot) const {
    return ReadFile(state_ + "/boot-" + std::to_string(boot) + "/console.log");
}

std::vector<nlohmann::json> Board::Operations() const {
    std::vector<nlohmann::json> operations;
    std::istringstream lines(ReadFile(state_ + "/ops.jsonl"));
    for (std::string line; std::getline(lines, line);) {
        operations.push_back(nlohmann::json::parse(line));
    }
    return operations;
}

nlohmann::json Board::Status() {
    return nlohmann::json::parse(Do({"status", "--json"}));
}

std::string Board::Reason(int boot) {
    return ReadFile(state_ + "/boot-" + std::to_string(boot) + "/reason");
}

bool Board::WaitFeeds(uint64_t feeds) {
    const auto fed = [this] { return Status().at("watchdog").at("feeds").get<uint64_t>(); };
    const uint64_t before = fed();
    return WaitUntil([&] { return fed() >= before + feeds; });
}

pid_t Board::ProgramPid() {
    return Status().at("program").at("hostPid").get<pid_t>();
}

void Board::Signal(int signal) {
    (void)kill(ProgramPid(), signal);
}

int Board::Connect(const std::string& kind, int port, const std::string& host) {
    int channel[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, channel) != 0) {
        return -1;
    }
    (void)fcntl(channel[0], F_SETFD, FD_CLOEXEC);
    const CommandResult result = Try({"exec", "--", KV_BENCH_SOCKET, std::to_string(channel[1]),
                                      kind, host, std::to_string(port)});
    (void)close(channel[1]);
    const int descriptor = result.status == 0 ? ReceiveDescriptor(channel[0]) : -1;
    (void)close(channel[0]);
    return descriptor;
}

std::string Board::Flash(const std::string& mtd) const {
    return ReadFile(state_ + "/flash/" + mtd + ".bin");
}

std::string MakeApplicationImage(const Board& board) {
    const std::string tree = board.Path("tree");
    const std::string image = board.Path("app.squashfs");
    const CommandResult made =
        RunCommand({"/bin/sh", "-ec",
                    "mkdir -p " + tree + "/bin; printf '#!/bin/sh\\nexec sleep 1000\\n' >" + tree +
                        "/bin/cameraMain; chmod +x " + tree + "/bin/cameraMain; mksquashfs " +
                        tree + " " + image + " -quiet -all-root"});
    if (made.status != 0) {
        throw std::runtime_error("no application image: " + made.output);
    }
    return image;
}

bool WaitUntil(const std::function<bool()>& holds, double timeoutSeconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (!holds()) {
        if (Clock::now() > end) {
            return false;
        }
        (void)usleep(10000);
    }
    return true;
}

size_t CountOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

double LargestFeedGap(const std::vector<nlohmann::json>& operations) {
    double largest = 0;
    std::map<int, double> last;
    for (const auto& operation : operations) {
        if (operation.at("op") != "ioctl:KEEPALIVE") {
            continue;
        }
        const int boot = operation.at("boot");
        const double at = operation.at("t");
        if (last.count(boot) != 0) {
            largest = std::max(largest, at - last[boot]);
        }
        last[boot] = at;
    }
    return largest;
}

}  // namespace kv_test
