// Processes, namespaces and messages, for the runners and for the board's init.
#pragma once

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/kv_raii.h"

namespace vboard {

// An error of a system call: "`what`: strerror(errno)".
std::runtime_error SysError(const std::string& what);

// Absolute path of a program of the host, searched for in the folders that a device has; empty if
// there is none.
std::string FindTool(const std::string& name);

struct Command {
    std::vector<std::string> argv;              // argv[0]: a name for FindTool or an absolute path
    std::vector<std::string> environment = {};  // "NAME=VALUE"; empty: the caller's own
    std::string directory = {};                 // working directory; empty: the caller's own
    int network = -1;                           // network namespace; -1: the caller's own
    int input = -1;                             // the child's descriptors; -1: /dev/null for input,
    int output = -1;                            // the caller's own for the other two
    int error = -1;
    bool dieWithParent = false;  // SIGKILL when the calling thread ends
    bool newSession = false;
};

// Starts a program with default signal dispositions and an empty signal mask. May be called with
// several threads running. If the program cannot be executed, the child ends with status 127.
pid_t Start(const Command& command);
// Starts a program with `input` on its standard input and waits for it. Returns its exit status,
// 128 + N for signal N.
int Run(Command command, const std::string& input = "");
int WaitStatus(pid_t pid);
int ExitCode(int waitStatus);

// Blocks SIGINT, SIGTERM, SIGHUP and SIGCHLD and ignores SIGPIPE, also for threads started later.
// Returns a descriptor to read the blocked ones from.
UniqueFd BlockSignals();

// The first opens a namespace of process `pid`; `name` is as in /proc/PID/ns. The second moves the
// caller into it; `type` is its CLONE_NEW… flag. Both throw.
UniqueFd OpenNamespace(pid_t pid, const char* name);
void EnterNamespace(const UniqueFd& space, int type);

// Restores default dispositions and an empty mask. Async-signal-safe, for a child before its exec.
void ResetSignals();

// Sends a message over a SOCK_SEQPACKET pair, with a descriptor if `fd` >= 0.
void SendMessage(int socket, const nlohmann::json& message, int fd = -1);
// Blocks until a message comes. No value at the end of the stream.
std::optional<nlohmann::json> ReceiveMessage(int socket, UniqueFd* fd = nullptr);

}  // namespace vboard
