// Shows a running fleet upgrade: a table that updates itself on a terminal, lines elsewhere, events
// for programs.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tools/cli/terminal.h"
#include "tools/fleet/tracker.h"

namespace kvtool {

using FleetRow = fleet::TrackedMember;
using FleetTotal = fleet::RunTotal;

// One line, narrower than `columns`. Leaves out what does not fit, least important parts first.
std::string FleetRowText(const FleetRow& row, Clock::time_point now, size_t columns);
std::string FleetTotalText(const FleetTotal& total, size_t columns);
// The rows that a window of `lines` lines shows, in the order of the devices. Devices under way
// have priority, then those that failed.
std::vector<size_t> RowsToShow(const std::vector<FleetRow>& rows, size_t lines);

// After Ctrl-C: lists the devices under way and estimates the time that they need. `restartLimit`:
// the longest time that kvtool follows a device, in seconds.
std::string UnderWayText(const std::vector<FleetRow>& rows, const FleetTotal& total,
                         double restartLimit, Clock::time_point now);

class FleetView : public fleet::RunListener, public fleet::JournalWatcher {
  public:
    // Once `interrupted` is raised, the view lists the devices under way. `streamSize`: bytes of
    // one upload. `restartLimit`: the longest time that kvtool follows a device, in seconds.
    FleetView(bool json, uint64_t streamSize, double restartLimit, const Interrupt& interrupted);

    void Changed(size_t member, const fleet::Member& what) override;
    void Progress(size_t member, const UploadProgress& progress) override;
    void Line(size_t member, const std::string& text) override;
    void Note(const std::string& text) override;
    void Stopping(const std::string& why) override { Note(why); }
    void Tick() override;
    void Written(const Json& line) override;
    // Removes the table from the terminal.
    void Clear();

  private:
    void Print(const std::string& text);

    bool json_;
    bool terminal_;
    FILE* out_;
    LiveLines area_;
    double restartLimit_;
    const Interrupt& interrupted_;
    bool toldUnderWay_ = false;
    fleet::Tracker tracker_;
    std::vector<Clock::time_point> reported_;  // when each device's last progress event was printed
    std::string total_;                        // as printed last, where there is no terminal
    Clock::time_point shown_ = Clock::now();
};

}  // namespace kvtool
