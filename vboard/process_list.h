// The board's processes, seen from the host.
#pragma once

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vboard {

struct BoardThread {
    pid_t tid = 0;  // as the board sees it
    std::string name;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BoardThread, tid, name)

struct BoardProcess {
    pid_t pid = 0;      // as the board sees it
    pid_t hostPid = 0;  // as the host sees it
    std::string name;
    std::vector<BoardThread> threads;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BoardProcess, pid, hostPid, name, threads)

// All processes in the PID namespace of `init`, including `init`, sorted by the board's pids.
std::vector<BoardProcess> ListBoard(pid_t init);

// Kills `init` and all processes in its PID namespace. When it returns, each of them has the signal
// and executes no more of its program, even if it must still wait for a device before it is gone.
// Killing `init` alone would leave the others running until the kernel kills them. Reads all of the
// host's /proc: a few milliseconds.
void KillBoard(pid_t init);

}  // namespace vboard
