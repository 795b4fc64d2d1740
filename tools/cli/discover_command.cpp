#include <algorithm>
#include <iostream>

#include "tools/cli/commands.h"
#include "tools/cli/report.h"
#include "tools/cli/terminal.h"
#include "tools/cli/watch_view.h"
#include "tools/device/device_json.h"
#include "tools/device/watch.h"

namespace kvtool {

namespace {

ExitCode RunWatch(const DiscoverCommand& command, const Matcher& matcher) {
    WatchRequest request;
    request.search = command.request;
    request.matcher = matcher;
    request.goneAfter = command.goneAfter;
    WatchView view(command.json         ? WatchView::Style::kJson
                   : IsTerminal(stdout) ? WatchView::Style::kTable
                                        : WatchView::Style::kLines,
                   stdout);
    try {
        Watch(request, [&view](const WatchRound& round) { return view.Show(round); });
    } catch (const ToolError& error) {
        // Ctrl-C is the normal end of a watch.
        if (error.Code() != ExitCode::kInterrupted) {
            throw;
        }
        view.End();
        return ExitCode::kDone;
    }
    // Standard output has lost its reader. kvtool reports this when it ends.
    std::cout.setstate(std::ios::badbit);
    return ExitCode::kInternal;
}

}  // namespace

ExitCode RunDiscover(const DiscoverCommand& command, Json* json) {
    if (!command.request.host.empty()) {
        (*json)["host"] = Printable(command.request.host);
    }
    const Matcher matcher(command.match);
    if (command.watch) {
        return RunWatch(command, matcher);
    }
    const DiscoveryResult result = Discover(command.request, nullptr);
    json->update(DiscoveryJson(result, matcher));
    if (!command.json) {
        const size_t width = IsTerminal(stdout) ? SizeOf(stdout).columns - 1 : 0;
        PrintDiscovery(std::cout, result, {matcher, command.verbose, width});
    }
    const bool found =
        std::any_of(result.devices.begin(), result.devices.end(),
                    [&matcher](const FoundDevice& device) { return matcher.Matches(device); });
    return found ? ExitCode::kDone : ExitCode::kUnreachable;
}

}  // namespace kvtool
