// The command conform, after the command line is parsed.
#pragma once

#include <string>

#include "tools/base/errors.h"
#include "tools/conform/conform.h"
#include "tools/package/layout.h"

namespace kvtool {

struct ConformCommand {
    conform::ConformRequest request;
    std::string package;     // file to upload; empty: one that writes nothing
    std::string transcript;  // file to write the exchange to; empty: none
    bool json = false;
};

// Like those of commands.h. Returns kBadReply if the device breaks a rule.
ExitCode RunConform(const ConformCommand& command, const Layout& layout, Json* json);

}  // namespace kvtool
