// Commands in the board's surroundings.
#pragma once

#include <string>
#include <vector>

#include "vboard/state.h"

namespace vboard {

// Runs a command, looked up on PATH, on the caller's terminal. On the bench: the bench's network
// with the host's files and processes; else inside the board. Returns its exit status, 128 + N
// for signal N; 127 when it cannot be executed.
int Exec(const StateDir& state, bool board, const std::vector<std::string>& command);

}  // namespace vboard
