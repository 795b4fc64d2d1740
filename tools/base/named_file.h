// Arguments of the form NAME=FILE.
#pragma once

#include <string>

#include "tools/base/errors.h"
#include "tools/base/text.h"

namespace kvtool {

struct NamedFile {
    std::string name;
    std::string file;
};

// Drops spaces around both parts. Throws ToolError(kUsage).
inline NamedFile ParseNamedFile(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw ToolError(ExitCode::kUsage, "'" + Printable(text) + "' is not NAME=FILE");
    }
    return {Trimmed(text.substr(0, equals)), Trimmed(text.substr(equals + 1))};
}

}  // namespace kvtool
