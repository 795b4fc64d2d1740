// The commands pack and inspect, after the command line is parsed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/cli/layout_options.h"
#include "tools/package/check.h"
#include "tools/package/signature.h"

namespace kvtool {

struct PackCommand {
    std::string output;  // "-": standard output
    std::optional<std::string> ic;
    std::optional<std::string> sensor;
    std::string recipe;                  // empty: none
    std::string manifest;                // empty: none
    std::string sign;                    // file of a secret key; empty: no signature
    std::optional<std::string> comment;  // of the signature
    std::vector<std::string> images;     // NAME=FILE
    bool force = false;
    bool json = false;
};

struct InspectCommand {
    std::string file;
    Identity device;  // the device to check the package for
    Trust trust;
    bool json = false;
};

// Like those of commands.h.
ExitCode RunPack(const PackCommand& command, const LayoutOptions& layout, Json* json);
ExitCode RunInspect(const InspectCommand& command, const Layout& layout, Json* json);

}  // namespace kvtool
