// What the command lines of kvtool and vboard have in common.
#pragma once

#include <CLI/App.hpp>
#include <string>

namespace kvtool {

// Parses the arguments. Returns true when the command is to run. Returns false after --help and
// after a usage error; what there is to say has been printed then, and *failed tells which it was.
// A wrong command is named, with the command that was probably meant.
bool ParseCommandLine(CLI::App* app, int argc, char** argv, bool* failed);

// Adds the hidden command "completion bash|zsh", which prints a completion script for all commands
// and options that stand in `app` when the command runs. Options whose type name is FILE, DIR or
// NAME=FILE complete files.
void AddCompletion(CLI::App* app);

}  // namespace kvtool
