// Shows what a watch sees: a live table on a terminal, elsewhere a line for each change.
#pragma once

#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "tools/cli/report.h"
#include "tools/cli/terminal.h"
#include "tools/device/watch.h"

namespace kvtool {

class WatchView {
  public:
    enum class Style { kTable, kLines, kJson };
    WatchView(Style style, FILE* out) : style_(style), out_(out), live_(out) {}

    // Returns false if it could not be written.
    bool Show(const WatchRound& round);
    // Leaves the last table on the screen, without the words that say how to end.
    void End();

  private:
    struct GoneDevice {
        FoundDevice device;
        Clock::time_point since;
    };

    void Tell(const DeviceChange& change);
    void TellWarning(const std::string& text);
    void Line(const std::string& text);
    void Remember(const DeviceChange& change);
    void ShowTable(const WatchRound& round);

    Style style_;
    FILE* out_;
    LiveLines live_;
    std::vector<std::string> warnings_;  // those of the last round
    std::vector<GoneDevice> gone_;       // gone, but still in the table
    std::deque<std::string> last_;       // the last changes, in words
    std::vector<std::string> table_;
};

}  // namespace kvtool
