// Shows a running fleet upgrade: a table that updates itself on a terminal, lines elsewhere, events
// for programs.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tools/cli/progress.h"
#include "tools/cli/terminal.h"
#include "tools/fleet/runner.h"

namespace kvtool {

// What the view knows of one device.
struct FleetRow {
    fleet::Member member;
    UploadProgress upload;
    RateMeter rate;
    std::string last;            // the latest message about it
    Clock::time_point since;     // when it entered its state
    Clock::time_point reported;  // when the last progress event was printed
};

// The total of all rows.
struct FleetTotal {
    size_t done = 0;
    size_t failed = 0;
    size_t underWay = 0;
    size_t waiting = 0;
    uint64_t sent = 0;    // bytes acknowledged by all devices
    uint64_t size = 0;    // bytes to send to all devices
    double rate = 0;      // bytes a second over all uploads; 0: not known
    double followed = 0;  // average seconds from acceptance to being seen alive; 0: none seen yet
    double secondsLeft = 0;  // 0: not known
};

// One line, narrower than `columns`. Leaves out what does not fit, least important parts first.
std::string FleetRowText(const FleetRow& row, Clock::time_point now, size_t columns);
std::string FleetTotalText(const FleetTotal& total, size_t columns);
// The rows that a window of `lines` lines shows, in the order of the devices. Devices under way
// have priority, then those that failed.
std::vector<size_t> RowsToShow(const std::vector<FleetRow>& rows, size_t lines);

class FleetView : public fleet::RunListener, public fleet::JournalWatcher {
  public:
    // Once `interrupted` is raised, the view lists the devices under way. `streamSize`: bytes of
    // one upload.
    FleetView(bool json, uint64_t streamSize, const Interrupt& interrupted);

    void Changed(size_t member, const fleet::Member& what) override;
    void Progress(size_t member, const UploadProgress& progress) override;
    void Line(size_t member, const std::string& text) override;
    void Note(const std::string& text) override;
    void Tick() override;
    void Written(const Json& line) override;
    // Removes the table from the terminal.
    void Clear();

  private:
    FleetTotal Total(Clock::time_point now) const;
    void TellUnderWay(Clock::time_point now);
    void Print(const std::string& text);
    FleetRow& Row(size_t member);

    bool json_;
    bool terminal_;
    FILE* out_;
    LiveLines area_;
    uint64_t streamSize_;
    const Interrupt& interrupted_;
    bool toldUnderWay_ = false;
    std::vector<FleetRow> rows_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point shown_ = start_;
    uint64_t moved_ = 0;  // bytes acknowledged in this run, failed uploads included
    RateMeter rate_;
    double followedSum_ = 0;
    size_t followedCount_ = 0;
};

}  // namespace kvtool
