#include "tools/base/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "tools/base/text.h"

namespace kvtool {

namespace {

// The command that requires a subcommand but was given none.
CLI::App* CommandWithoutChoice(CLI::App* app) {
    while (!app->get_subcommands().empty()) {
        app = app->get_subcommands().front();
    }
    return app->get_require_subcommand_min() > 0 ? app : nullptr;
}

// The error for an unknown word where a command should be. Empty if there is none.
std::string UnknownCommand(CLI::App* app) {
    CLI::App* const parent = CommandWithoutChoice(app);
    const std::vector<std::string> rest = app->remaining(true);
    const auto word = std::find_if(rest.begin(), rest.end(), [](const std::string& text) {
        return !text.empty() && text.front() != '-';
    });
    if (parent == nullptr || word == rest.end()) {
        return "";
    }
    std::vector<std::string> names;
    for (const CLI::App* command : parent->get_subcommands([](CLI::App*) { return true; })) {
        if (!command->get_group().empty()) {
            names.push_back(command->get_name());
        }
    }
    return "unknown command '" + Printable(*word) + "'" + DidYouMean(*word, names);
}

}  // namespace

std::optional<int> ParseCommandLine(CLI::App* app, int argc, char** argv) {
    try {
        app->parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app->exit(error);
        }
        const std::string unknown = UnknownCommand(app);
        std::cerr << app->get_name() << ": "
                  << (unknown.empty() ? Printable(error.what()) : unknown)
                  << "\nRun with --help for more information.\n";
        return error.get_exit_code();
    }
}

}  // namespace kvtool
