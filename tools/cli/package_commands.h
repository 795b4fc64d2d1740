// The commands that work on packages alone, as the command line hands them over.
#pragma once

#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/package/check.h"

namespace kvtool {

struct PackCommand {
    std::string output;  // "-": standard output
    std::string ic;
    std::string sensor;
    std::vector<std::string> images;  // NAME=FILE
    bool force = false;
    bool json = false;
};

struct InspectCommand {
    std::string file;
    Identity device;  // what to check against
    bool json = false;
};

// As those of commands.h.
ExitCode RunPack(const PackCommand& command, const Layout& layout, Json* json);
ExitCode RunInspect(const InspectCommand& command, const Layout& layout, Json* json);

}  // namespace kvtool
