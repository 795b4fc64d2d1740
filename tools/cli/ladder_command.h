// The command ladder, after the command line is parsed.
#pragma once

#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/base/json.h"

namespace kvtool {

struct LadderCommand {
    std::string script;
    std::vector<std::string> logs;  // instead of a script
    std::string svg;                // file for a picture; empty: none
    std::string limit;              // longest time to replay, with its unit; empty: the default
    bool whatIf = false;
    bool json = false;
};

// Like those of commands.h.
ExitCode RunLadder(const LadderCommand& command, Json* json);

}  // namespace kvtool
