// Command-line code shared by kvtool and vboard.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>

namespace kvtool {

// Parses the arguments, and runs the callback of the command if it has one. Returns nothing if the
// arguments are right. Otherwise it has printed help, the version or an error, and returns 0 after
// --help or --version, or a status above 100 after a usage error.
// The error for an unknown command names the one that was probably meant.
std::optional<int> ParseCommandLine(CLI::App* app, int argc, char** argv);

// Adds the hidden command "completion bash|zsh". It prints a completion script for all commands and
// options that `app` has when the command runs. Values with the type name FILE, DIR or NAME=FILE
// complete file names.
void AddCompletion(CLI::App* app);

}  // namespace kvtool
