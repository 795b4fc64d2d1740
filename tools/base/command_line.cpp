#include "tools/base/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <numeric>

#include "tools/base/text.h"

namespace kvtool {

namespace {

// How many letters to insert, drop or replace to turn one word into the other.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// The command that requires a subcommand but was given none.
CLI::App* CommandWithoutChoice(CLI::App* app) {
    while (!app->get_subcommands().empty()) {
        app = app->get_subcommands().front();
    }
    return app->get_require_subcommand_min() > 0 ? app : nullptr;
}

// The error for a word in place of a command; empty: there is no such word.
std::string UnknownCommand(CLI::App* app) {
    CLI::App* const parent = CommandWithoutChoice(app);
    const std::vector<std::string> rest = app->remaining(true);
    const auto word = std::find_if(rest.begin(), rest.end(), [](const std::string& text) {
        return !text.empty() && text.front() != '-';
    });
    if (parent == nullptr || word == rest.end()) {
        return "";
    }
    std::string nearest;
    size_t best = std::max<size_t>(word->size() / 2, 1) + 1;
    for (const CLI::App* command : parent->get_subcommands([](CLI::App*) { return true; })) {
        const size_t distance = EditDistance(*word, command->get_name());
        if (!command->get_group().empty() && distance < best) {
            best = distance;
            nearest = command->get_name();
        }
    }
    return "unknown command '" + Printable(*word) + "'" +
           (nearest.empty() ? "" : " (did you mean '" + nearest + "'?)");
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
