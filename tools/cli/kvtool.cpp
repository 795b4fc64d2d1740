// kvtool: builds upgrade packages and puts them on cameras in recovery mode, from a PC.

#include <kv_version.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <regex>
#include <string>

#include "common/kv_platform.h"
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

// The status after a failure. Of a command that compares, 1 would mean a difference.
int FailureStatus(const kvtool::Chosen& chosen, ExitCode code) {
    const bool trouble = chosen.compares && code != ExitCode::kInterrupted;
    return static_cast<int>(trouble ? ExitCode::kUsage : code);
}

// "--wait 5" becomes "--wait=5". The word after --wait may also be the host. It is the time if it
// is a number of at most five digits, with or without a fraction.
std::vector<std::string> JoinWaitTime(int argc, char** argv) {
    const std::regex time("[0-9]{1,5}(\\.[0-9]+)?");
    std::vector<std::string> words;
    bool options = true;
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        options = options && word != "--";
        if (options && !words.empty() && words.back() == "--wait" && std::regex_match(word, time)) {
            words.back() += "=" + word;
        } else {
            words.push_back(word);
        }
    }
    return words;
}

// "upgrade", "fleet upgrade".
std::string CommandName(const CLI::App& app) {
    std::string name;
    for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
        at = at->get_subcommands().front();
        name += (name.empty() ? "" : " ") + at->get_name();
    }
    return name;
}

int Run(int argc, char** argv) {
    kvtool::Chosen chosen;
    CLI::App app("Build upgrade packages, find cameras that run upgradeMain, upgrade them");
    app.name("kvtool");
    app.set_version_flag("--version",
                         std::string("kvtool ") + kv::kVersion + ", built for " + kv::kDeviceName);
    app.require_subcommand(1);
    kvtool::AddPackageCommands(&app, &chosen);
    kvtool::AddToolboxCommands(&app, &chosen);
    kvtool::AddDeviceCommands(&app, &chosen);
    kvtool::AddFleetCommands(&app, &chosen);
    kvtool::AddLadderCommand(&app, &chosen);
    kvtool::AddServeCommand(&app, &chosen);
    kvtool::AddCompletion(&app);
    std::vector<std::string> words = JoinWaitTime(argc, argv);
    std::vector<char*> arguments;
    arguments.reserve(words.size());
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    if (const std::optional<int> ended =
            kvtool::ParseCommandLine(&app, static_cast<int>(arguments.size()), arguments.data())) {
        return static_cast<int>(*ended == 0 ? ExitCode::kDone : ExitCode::kUsage);
    }
    std::string problem;
    int status = 0;
    if (chosen.run) {
        const std::string command = CommandName(app);
        Json json = {{"schema", kvtool::kJsonSchema}, {"command", command}, {"exit_code", 0}};
        const ExitCode code = RunChosen(chosen, &json, &problem);
        status = problem.empty() ? static_cast<int>(code) : FailureStatus(chosen, code);
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
        return FailureStatus(chosen, ExitCode::kInternal);
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
