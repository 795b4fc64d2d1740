// Reads a board's logs while it runs.
#pragma once

#include <string>

#include "vboard/state.h"

namespace vboard {

struct LogOptions {
    int boot = 0;  // 0: the newest
    bool console = false;
    bool follow = false;
};
// Prints a log. With `follow`, continues with the logs of later boots and ends with the board.
void ShowLog(const StateDir& state, const LogOptions& options);

struct WaitOptions {
    int boot = 0;         // 0: the current boot or any later one
    std::string trace;    // text to find in trace.log
    std::string console;  // text to find in console.log
    double timeout = 60;  // seconds
};
// Waits until a board is switched on, then until the logs of one boot contain the texts; without
// texts, until that boot has started its program. Throws when time is up or the board is stopped.
void WaitForLog(const StateDir& state, const WaitOptions& options);

}  // namespace vboard
