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
        EnterNamespace(OpenNamespace(runner, "user"), CLONE_NEWUSER);
    }
    if (!board) {
        EnterNamespace(OpenNamespace(runner, "net"), CLONE_NEWNET);
        Execute(command);
    }
    // Only a child gets into the board's PID namespace, so only the child enters the others. It
    // ends when the board is reset, and this process after it.
    EnterNamespace(OpenNamespace(init, "pid"), CLONE_NEWPID);
    const UniqueFd net = OpenNamespace(init, "net");
    const UniqueFd uts = OpenNamespace(init, "uts");
    const UniqueFd ipc = OpenNamespace(init, "ipc");
    const UniqueFd mnt = OpenNamespace(init, "mnt");
    const pid_t child = fork();
    if (child < 0) {
        throw SysError("cannot create a process");
    }
    if (child > 0) {
        // Ctrl-C is for the command. This process ends with it.
        (void)signal(SIGINT, SIG_IGN);
        (void)signal(SIGQUIT, SIG_IGN);
        return ExitCode(WaitStatus(child));
    }
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    EnterNamespace(net, CLONE_NEWNET);
    EnterNamespace(uts, CLONE_NEWUTS);
    EnterNamespace(ipc, CLONE_NEWIPC);
    EnterNamespace(mnt, CLONE_NEWNS);
    for (const std::string& variable : BoardEnvironment(status.at("speed"))) {
        (void)putenv(const_cast<char*>(strdup(variable.c_str())));
    }
    Execute(command);
}

}  // namespace vboard
