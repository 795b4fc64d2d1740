#include "vboard/exec.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "vboard/boot.h"
#include "vboard/control.h"
#include "vboard/process.h"

namespace vboard {

namespace {

UniqueFd Namespace(pid_t pid, const char* name) {
    UniqueFd fd(
        open(("/proc/" + std::to_string(pid) + "/ns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        throw SysError("cannot reach the board's namespaces");
    }
    return fd;
}

void Enter(const UniqueFd& space, int type) {
    if (setns(space.Get(), type) != 0) {
        throw SysError("cannot enter the board's namespaces");
    }
}

[[noreturn]] void Execute(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    (void)execvp(argv[0], argv.data());
    std::cerr << "vboard: " << command[0] << ": " << std::strerror(errno) << "\n";
    _exit(127);
}

}  // namespace

int Exec(const StateDir& state, bool board, const std::vector<std::string>& command) {
    const nlohmann::json status = ControlClient(state).Request({{"command", "status"}});
    const pid_t runner = status.at("runnerPid");
    const pid_t init = status.at("initPid");
    if (board && init < 0) {
        throw std::runtime_error("the board is off");
    }
    if (geteuid() != 0) {
        Enter(Namespace(runner, "user"), CLONE_NEWUSER);
    }
    if (!board) {
        Enter(Namespace(runner, "net"), CLONE_NEWNET);
        Execute(command);
    }
    // All but the first are entered by the child alone, so that this process holds nothing of a
    // board that is reset in the meantime.
    Enter(Namespace(init, "pid"), CLONE_NEWPID);
    const UniqueFd net = Namespace(init, "net");
    const UniqueFd uts = Namespace(init, "uts");
    const UniqueFd ipc = Namespace(init, "ipc");
    const UniqueFd mnt = Namespace(init, "mnt");
    const pid_t child = fork();
    if (child < 0) {
        throw SysError("cannot create a process");
    }
    if (child > 0) {
        // Ctrl-C is for the command; its end is this one's.
        (void)signal(SIGINT, SIG_IGN);
        (void)signal(SIGQUIT, SIG_IGN);
        return ExitCode(WaitStatus(child));
    }
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    Enter(net, CLONE_NEWNET);
    Enter(uts, CLONE_NEWUTS);
    Enter(ipc, CLONE_NEWIPC);
    Enter(mnt, CLONE_NEWNS);
    for (const std::string& variable : BoardEnvironment(status.at("speed"))) {
        (void)putenv(const_cast<char*>(strdup(variable.c_str())));
    }
    Execute(command);
}

}  // namespace vboard
