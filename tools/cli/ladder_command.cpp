#include "tools/cli/ladder_command.h"

#include <iostream>

#include "tools/base/files.h"
#include "tools/base/text.h"
#include "tools/cli/ladder_view.h"
#include "tools/cli/terminal.h"
#include "tools/ladder/picture.h"
#include "tools/ladder/recording.h"
#include "tools/ladder/replay.h"
#include "tools/ladder/script.h"
#include "tools/ladder/timeline_json.h"

namespace kvtool {

namespace {

ladder::Timeline ReplayLogs(const LadderCommand& command, const ladder::ReplayOptions& options) {
    const ladder::Recording recording = ladder::ReadLogs(command.logs);
    ladder::RecordedApplication application(recording);
    ladder::Timeline timeline = Replay(&application, options);
    CompareWithLog(recording, &timeline);
    return timeline;
}

ladder::Timeline ReplayScript(const LadderCommand& command, const ladder::ReplayOptions& options) {
    ladder::ScriptApplication application(ladder::ParseScript(command.script));
    return Replay(&application, options);
}

}  // namespace

ExitCode RunLadder(const LadderCommand& command, Json* json) {
    if (command.script.empty() == command.logs.empty()) {
        throw ToolError(ExitCode::kUsage, "give either --script or --log");
    }
    ladder::ReplayOptions options;
    options.margins = command.whatIf;
    if (!command.limit.empty()) {
        options.limit = ladder::ParseDuration(command.limit);
    }
    const bool script = command.logs.empty();
    const ladder::Timeline timeline =
        script ? ReplayScript(command, options) : ReplayLogs(command, options);
    if (script) {
        (*json)["script"] = Printable(command.script);
    } else {
        (*json)["logs"] = Json::array();
        for (const std::string& log : command.logs) {
            (*json)["logs"].push_back(Printable(log));
        }
    }
    json->update(TimelineJson(timeline, command.whatIf));
    if (!command.svg.empty()) {
        const std::string title =
            script ? "Script: " + Printable(command.script) : "Log of a device";
        const std::string picture = ladder::Picture(timeline, title);
        WriteWholeFile(command.svg, Bytes(picture.begin(), picture.end()));
        (*json)["svg"] = Printable(command.svg);
    }
    if (!command.json) {
        PrintTimeline(std::cout, timeline, command.whatIf, SizeOf(stdout).columns);
    }
    return ExitCode::kDone;
}

}  // namespace kvtool
