// What the command lines of kvtool and vboard have in common.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>

namespace kvtool {

// Parses the arguments. Returns nothing when the command is to run. Otherwise it has printed what
// there is to say and returns 0 after --help, or a status above 100 after a usage error.
// A wrong command is named, with the command that was probably meant.
std::optional<int> ParseCommandLine(CLI::App* app, int argc, char** argv);

// Adds the hidden command "completion bash|zsh", which prints a completion script for all commands
// and options that stand in `app` when the command runs. Options whose type name is FILE, DIR or
// NAME=FILE complete files.
void AddCompletion(CLI::App* app);

}  // namespace kvtool
