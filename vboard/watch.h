// Reading a board's logs from outside, live.
#pragma once

#include <string>

#include "vboard/state.h"

namespace vboard {

struct LogOptions {
    int boot = 0;  // 0: the newest
    bool console = false;
    bool follow = false;
};
// Prints a log; following, goes on with the next boots' and ends with the board.
void ShowLog(const StateDir& state, const LogOptions& options);

struct WaitOptions {
    int boot = 0;         // 0: the present boot or any later one
    std::string trace;    // text to be found in trace.log
    std::string console;  // text to be found in console.log
    double timeout = 60;  // seconds
};
// Waits until one boot's logs hold the texts; without texts, until that boot's program is started.
// Waits for a board to be switched on, too. Throws when time is up or the board is stopped.
void WaitForLog(const StateDir& state, const WaitOptions& options);

}  // namespace vboard
