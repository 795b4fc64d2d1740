// The option tables of kvtool's commands.
#pragma once

#include <CLI/App.hpp>
#include <functional>
#include <string>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/cli/layout_options.h"
#include "tools/package/signature.h"

namespace kvtool {

// The command that the arguments chose.
struct Chosen {
    std::function<ExitCode(Json*)> run;
    bool json = false;
    // diff and verify end as diff(1) does: 2 for whatever keeps them from comparing.
    bool compares = false;
};

void AddPackageCommands(CLI::App* root, Chosen* chosen);
void AddToolboxCommands(CLI::App* root, Chosen* chosen);
void AddDeviceCommands(CLI::App* root, Chosen* chosen);

// Adds --layout and --size.
void AddLayout(CLI::App* command, LayoutOptions* options);
// Adds --trusted-key and --signature.
void AddTrust(CLI::App* command, Trust* trust);

}  // namespace kvtool
