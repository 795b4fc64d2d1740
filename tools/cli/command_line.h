// The option tables of kvtool's commands.
#pragma once

#include <CLI/App.hpp>
#include <functional>
#include <string>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/cli/layout_options.h"
#include "tools/device/upgrade_session.h"
#include "tools/package/signature.h"

namespace kvtool {

// The command that the arguments chose.
struct Chosen {
    std::function<ExitCode(Json*)> run;
    bool json = false;
    // diff and verify have the exit codes of diff(1): 2 if they cannot compare.
    bool compares = false;
};

void AddPackageCommands(CLI::App* root, Chosen* chosen);
void AddToolboxCommands(CLI::App* root, Chosen* chosen);
void AddDeviceCommands(CLI::App* root, Chosen* chosen);
void AddFleetCommands(CLI::App* root, Chosen* chosen);
void AddLadderCommand(CLI::App* root, Chosen* chosen);
void AddServeCommand(CLI::App* root, Chosen* chosen);

// Adds --layout and --size.
void AddLayout(CLI::App* command, LayoutOptions* options);
// Adds an option that takes seconds, with fractions.
void AddSeconds(CLI::App* app, const char* name, Millis* value, const char* help);
// Adds --connect-timeout and --reply-timeout.
void AddAnswerTimes(CLI::App* app, UpgradeTimes* times);
// Adds --stall-timeout, --verify-timeout, --leave-timeout and --back-timeout.
void AddUpgradeTimes(CLI::App* app, UpgradeTimes* times);
// Adds --trusted-key and --signature.
void AddTrust(CLI::App* command, Trust* trust);

}  // namespace kvtool
