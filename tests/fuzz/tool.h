// For the fuzzers of kvtool.
#pragma once

#include "tests/fuzz/world.h"
#include "tools/base/errors.h"

namespace fuzz {

// Runs the action. Returns false if it fails. The text of the failure must be safe to print. It may
// be an internal error of kvtool only if the system has refused something.
inline bool Try(const std::function<void()>& action) {
    try {
        action();
        return true;
    } catch (const kvtool::ToolError& error) {
        std::string text = error.what();
        for (size_t at = 0; (at = text.find('\n', at)) != text.npos;) {
            text[at] = ' ';
        }
        RequireSafe(text);
        Require(error.Code() != kvtool::ExitCode::kInternal || g_world.refusals > 0);
        return false;
    }
}

}  // namespace fuzz
