// Runs commands on the board or in its bench's network.
#pragma once

#include <string>
#include <vector>

#include "vboard/state.h"

namespace vboard {

// Runs a command, looked up on PATH, on the caller's terminal: inside the board or, if `board` is
// false, in the bench's network with the host's files and processes. Returns its exit status, 128 +
// N for signal N, or 127 when it cannot be executed. In the bench's network the command replaces
// this process.
int Exec(const StateDir& state, bool board, const std::vector<std::string>& command);

}  // namespace vboard
