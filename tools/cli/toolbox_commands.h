// The commands extract, diff and verify, after the command line is parsed.
#pragma once

#include <string>
#include <vector>

#include "tools/base/errors.h"
#include "tools/base/json.h"

namespace kvtool {

struct ExtractCommand {
    std::string file;
    std::vector<std::string> names;  // entries or partitions; empty: all
    std::string folder;
    bool force = false;
    bool json = false;
};

struct DiffCommand {
    std::string a;
    std::string b;
    bool json = false;
};

struct VerifyCommand {
    std::string file;
    std::vector<std::string> dumps;  // NAME=FILE
    bool json = false;
};

// Like those of commands.h. Diff and verify return kDifferent if something differs.
ExitCode RunExtract(const ExtractCommand& command, Json* json);
ExitCode RunDiff(const DiffCommand& command, Json* json);
ExitCode RunVerify(const VerifyCommand& command, Json* json);

}  // namespace kvtool
