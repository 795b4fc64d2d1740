// kvtool: what a technician runs on a PC against a camera in recovery mode.

#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/base/command_line.h"
#include "tools/base/wait.h"
#include "tools/cli/command_line.h"

namespace {

using kvtool::ExitCode;
using kvtool::Json;

ExitCode RunChosen(const kvtool::Chosen& chosen, Json* json, std::string* problem) {
    try {
        kvtool::CatchInterrupts();
        return chosen.run(json);
    } catch (const kvtool::ToolError& error) {
        *problem = error.what();
        return error.Code();
    } catch (const std::exception& error) {
        *problem = std::string("internal error: ") + error.what();
        return ExitCode::kInternal;
    }
}

int Status(const kvtool::Chosen& chosen, ExitCode code, bool failed) {
    const bool trouble = chosen.compares && failed && code != ExitCode::kInterrupted;
    return static_cast<int>(trouble ? ExitCode::kUsage : code);
}

int Run(int argc, char** argv) {
    kvtool::Chosen chosen;
    CLI::App app("Upgrade packages and recovery of cameras that run upgradeMain");
    app.name("kvtool");
    app.require_subcommand(1);
    kvtool::AddPackageCommands(&app, &chosen);
    kvtool::AddToolboxCommands(&app, &chosen);
    kvtool::AddDeviceCommands(&app, &chosen);
    kvtool::AddCompletion(&app);
    if (const std::optional<int> ended = kvtool::ParseCommandLine(&app, argc, argv)) {
        return static_cast<int>(*ended == 0 ? ExitCode::kDone : ExitCode::kUsage);
    }
    std::string problem;
    int status = 0;
    if (chosen.run) {
        const std::string command = app.get_subcommands().front()->get_name();
        Json json = {{"schema", kvtool::kJsonSchema}, {"command", command}, {"exit_code", 0}};
        const ExitCode code = RunChosen(chosen, &json, &problem);
        status = Status(chosen, code, !problem.empty());
        json["exit_code"] = status;
        if (!problem.empty()) {
            json["error"] = problem;
            std::cerr << "kvtool: " << problem << '\n';
        }
        if (chosen.json) {
            std::cout << kvtool::JsonLine(json) << '\n';
        }
    }
    std::cout.flush();
    if (!std::cout) {
        std::cerr << "kvtool: cannot write to standard output\n";
        return static_cast<int>(ExitCode::kInternal);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "kvtool: internal error: " << error.what() << '\n';
        return static_cast<int>(ExitCode::kInternal);
    }
}
