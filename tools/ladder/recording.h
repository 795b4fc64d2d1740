// What logs say about an application: heartbeat logs and trace logs, read into one form.
#pragma once

#include <string>
#include <vector>

#include "tools/ladder/application.h"

namespace kvtool::ladder {

struct RecordedBoot {
    std::vector<Signal> signals;  // in the order of their times
    Ms length = 0;
    BootFacts facts;
    std::vector<Event> seen;  // the steps that a trace log shows
    std::vector<std::string> notes;
};

enum class LogFormat { kHeartbeats, kTrace };

struct Recording {
    LogFormat format = LogFormat::kHeartbeats;
    std::vector<RecordedBoot> boots;
};

// A line of a log with the place for error messages: "FILE:LINE: ".
struct LogLine {
    std::string where;
    std::string text;
};

// Reads the files in this order as one log. docs/kvtool.md describes the formats.
// Throws ToolError(kRefused).
Recording ReadLogs(const std::vector<std::string>& files);

// The two formats. A trace log is one with at least one trace line.
bool IsTraceLog(const std::vector<LogLine>& lines);
Recording ReadTraceLog(const std::vector<LogLine>& lines);
Recording ReadHeartbeatLog(const std::vector<LogLine>& lines);

class RecordedApplication : public Application {
  public:
    explicit RecordedApplication(const Recording& recording) : recording_(recording) {}

    bool NextBoot(const Boot* before, BootFacts* facts) override;
    std::string Key() const override { return ""; }
    std::optional<Signal> Next() override;
    std::optional<Ms> Settled() const override { return std::nullopt; }
    bool Finite() const override { return true; }
    bool Restarted(Ms at) override;

  private:
    const RecordedBoot& Now() const { return recording_.boots[boot_]; }

    const Recording& recording_;
    size_t boot_ = 0;
    size_t next_ = 0;
    Ms offset_ = 0;  // where this boot begins in the recorded one
    bool ended_ = false;
};

// Adds to the time line when the log shows each step, the notes of the recording, and what differs.
void CompareWithLog(const Recording& recording, Timeline* timeline);

}  // namespace kvtool::ladder
