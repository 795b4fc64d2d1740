// `kvtool serve` without its command line: a local page on the engine of `kvtool fleet`.
#pragma once

#include <string>

#include "tools/page/run_control.h"

namespace kvtool::page {

struct ServeRequest {
    uint16_t port = 0;  // 0: any free port
    std::string journal;
    bool openBrowser = true;
    RunSettings settings;
};

// Called on the thread of Serve.
class ServeListener {
  public:
    virtual ~ServeListener() = default;
    // The page can be opened.
    virtual void Ready(const std::string& address, uint16_t port) = 0;
    // The server waits for the upgrades under way, then ends.
    virtual void Ending(const Flying& flying) = 0;
    virtual void Warn(const std::string& text) = 0;
};

// Serves until Ctrl-C. If upgrades are under way, the first Ctrl-C starts nothing more and waits
// for them, and a second one, or SIGTERM, abandons them. Returns kDone, or kInterrupted if upgrades
// were abandoned. Throws ToolError if it cannot begin. Call it from the main thread.
ExitCode Serve(const ServeRequest& request, ServeListener* listener);

}  // namespace kvtool::page
