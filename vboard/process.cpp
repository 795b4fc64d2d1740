#include "vboard/process.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vboard {

namespace {

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

std::runtime_error SysError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

std::string FindTool(const std::string& name) {
    if (!name.empty() && name[0] == '/') {
        return name;
    }
    for (const char* directory : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
        std::string path = directory + name;
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return "";
}

UniqueFd BlockSignals() {
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        (void)sigaddset(&set, number);
    }
    (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
    return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
}

UniqueFd OpenNamespace(pid_t pid, const char* name) {
    UniqueFd fd(
        open(("/proc/" + std::to_string(pid) + "/ns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        throw SysError("cannot reach the board's namespaces");
    }
    return fd;
}

void EnterNamespace(const UniqueFd& space, int type) {
    if (setns(space.Get(), type) != 0) {
        throw SysError("cannot enter the board's namespaces");
    }
}

void ResetSignals() {
    for (int number = 1; number < NSIG; ++number) {
        (void)signal(number, SIG_DFL);
    }
    sigset_t none;
    (void)sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

pid_t Start(const Command& command) {
    const std::string path = FindTool(command.argv.at(0));
    const std::vector<char*> argv = Pointers(command.argv);
    const std::vector<char*> environment = Pointers(command.environment);
    char* const* const env = command.environment.empty() ? environ : environment.data();
    const pid_t pid = fork();
    if (pid < 0) {
        throw SysError("cannot create a process");
    }
    if (pid > 0) {
        return pid;
    }
    // Only async-signal-safe calls from here: another thread may hold any lock.
    if (command.dieWithParent) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    ResetSignals();
    if (command.newSession) {
        (void)setsid();
    }
    if ((command.network >= 0 && setns(command.network, CLONE_NEWNET) != 0) ||
        (!command.directory.empty() && chdir(command.directory.c_str()) != 0)) {
        _exit(126);
    }
    const int input = command.input >= 0 ? command.input : open("/dev/null", O_RDONLY | O_CLOEXEC);
    (void)dup2(input, STDIN_FILENO);
    if (command.output >= 0) {
        (void)dup2(command.output, STDOUT_FILENO);
    }
    if (command.error >= 0) {
        (void)dup2(command.error, STDERR_FILENO);
    }
    (void)execve(path.c_str(), argv.data(), env);
    _exit(127);
}

int ExitCode(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

int WaitStatus(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            throw SysError("cannot wait for a process");
        }
    }
    return status;
}

int Run(Command command, const std::string& input) {
    if (input.empty()) {
        return ExitCode(WaitStatus(Start(command)));
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw SysError("cannot create a pipe");
    }
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    command.input = readEnd.Get();
    const pid_t pid = Start(command);
    readEnd.Reset();
    // A short text fits into the pipe. If the child does not read it, its status shows that.
    (void)!write(writeEnd.Get(), input.data(), input.size());
    writeEnd.Reset();
    return ExitCode(WaitStatus(pid));
}

void SendMessage(int socket, const nlohmann::json& message, int fd) {
    const std::string text = message.dump();
    iovec part{const_cast<char*>(text.data()), text.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (fd >= 0) {
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        cmsghdr* const item = CMSG_FIRSTHDR(&header);
        item->cmsg_level = SOL_SOCKET;
        item->cmsg_type = SCM_RIGHTS;
        item->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(item), &fd, sizeof(fd));
    }
    if (sendmsg(socket, &header, MSG_NOSIGNAL) < 0) {
        throw SysError("cannot send a message between runner and board");
    }
}

std::optional<nlohmann::json> ReceiveMessage(int socket, UniqueFd* fd) {
    const ssize_t length = recv(socket, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (length <= 0) {
        return std::nullopt;
    }
    std::string text(static_cast<size_t>(length), '\0');
    iovec part{text.data(), text.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    if (recvmsg(socket, &header, MSG_CMSG_CLOEXEC) != length) {
        return std::nullopt;
    }
    const cmsghdr* const item = CMSG_FIRSTHDR(&header);
    if (item != nullptr && item->cmsg_type == SCM_RIGHTS) {
        int received = -1;
        std::memcpy(&received, CMSG_DATA(item), sizeof(received));
        UniqueFd owner(received);
        if (fd != nullptr) {
            *fd = std::move(owner);
        }
    }
    return nlohmann::json::parse(text);
}

}  // namespace vboard
