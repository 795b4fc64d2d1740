// The option tables of kvtool's commands.
#pragma once

#include <CLI/App.hpp>
#include <functional>
#include <string>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/package/layout.h"

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

// The options --layout and --size.
struct LayoutOptions {
    std::string file;
    std::vector<std::string> sizes;

    // Throws ToolError(kUsage).
    Layout Make() const;
};
void AddLayout(CLI::App* command, LayoutOptions* options);

}  // namespace kvtool
