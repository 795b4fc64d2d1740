#include "tools/ladder/recording.h"

#include <algorithm>

#include "main/kv_monitor_decision.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/text.h"

namespace kvtool::ladder {

namespace {

// The check timer may have another phase, and a log shows whole seconds.
constexpr Ms kTolerance = kMonitorCheckPeriodMs + 1000;

bool IsStep(EventKind kind) {
    return kind == EventKind::kOffline || kind == EventKind::kRestart ||
           kind == EventKind::kReboot || kind == EventKind::kRecovery;
}

void CompareBoot(const RecordedBoot& recorded, Boot* boot, std::vector<std::string>* differences) {
    const std::string where = "boot " + std::to_string(boot->number) + ": ";
    for (const Event& seen : recorded.seen) {
        const auto event =
            std::find_if(boot->events.begin(), boot->events.end(), [&seen](const Event& candidate) {
                return candidate.kind == seen.kind && !candidate.seen &&
                       std::abs(candidate.at - seen.at) <= kTolerance;
            });
        if (event != boot->events.end()) {
            event->seen = seen.at;
        } else {
            differences->push_back(where + "the log shows '" + EventName(seen.kind) + "' at " +
                                   TimeText(seen.at) + ", the replay does not");
        }
    }
    for (const Event& event : boot->events) {
        if (IsStep(event.kind) && event.silence > 0 && !event.seen &&
            event.at + kTolerance < recorded.length) {
            differences->push_back(where + "the replay has '" + EventName(event.kind) + "' at " +
                                   TimeText(event.at) + ", the log does not");
        }
    }
    if (boot->end == End::kReboot && boot->length + kTolerance < recorded.length) {
        differences->push_back(where + "the log goes on until " + TimeText(recorded.length));
    }
}

}  // namespace

Recording ReadLogs(const std::vector<std::string>& files) {
    std::vector<LogLine> lines;
    for (const std::string& file : files) {
        const Bytes bytes = ReadWholeFile(file);
        const std::string text(bytes.begin(), bytes.end());
        const std::string name = Printable(file) + ":";
        int number = 0;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::min(text.find('\n', at), text.size());
            lines.push_back({name + std::to_string(++number) + ": ", text.substr(at, end - at)});
            at = end + 1;
        }
    }
    Recording recording = IsTraceLog(lines) ? ReadTraceLog(lines) : ReadHeartbeatLog(lines);
    if (recording.boots.empty()) {
        throw ToolError(ExitCode::kRefused, "the log holds neither heartbeats nor trace lines");
    }
    return recording;
}

bool RecordedApplication::NextBoot(const Boot* before, BootFacts* facts) {
    *facts = {};
    if (before != nullptr) {
        // A heartbeat log may come from a PC where nothing reboots. What follows a reboot of the
        // replay then belongs to its next boot.
        const auto& signals = Now().signals;
        const Ms over = offset_ + before->length;
        const auto rest = std::find_if(signals.begin(), signals.end(),
                                       [over](const Signal& signal) { return signal.at > over; });
        if (recording_.format == LogFormat::kHeartbeats && before->end == End::kReboot &&
            rest != signals.end()) {
            offset_ = over;
            next_ = static_cast<size_t>(rest - signals.begin());
            ended_ = false;
            return true;
        }
        if (boot_ + 1 == recording_.boots.size()) {
            return false;
        }
        ++boot_;
    }
    offset_ = 0;
    next_ = 0;
    ended_ = false;
    *facts = Now().facts;
    return true;
}

std::optional<Signal> RecordedApplication::Next() {
    if (next_ < Now().signals.size()) {
        Signal signal = Now().signals[next_++];
        signal.at -= offset_;
        return signal;
    }
    if (ended_) {
        return std::nullopt;
    }
    ended_ = true;
    const bool last = boot_ + 1 == recording_.boots.size();
    return Signal{Now().length - offset_, last ? SignalKind::kEnd : SignalKind::kPowerCut};
}

bool RecordedApplication::Restarted(Ms at) {
    (void)at;  // the log has what really came after the restart
    return false;
}

void CompareWithLog(const Recording& recording, Timeline* timeline) {
    if (recording.format != LogFormat::kTrace) {
        timeline->boots.front().notes = recording.boots.front().notes;
        return;
    }
    for (size_t i = 0; i < timeline->boots.size() && i < recording.boots.size(); ++i) {
        timeline->boots[i].notes = recording.boots[i].notes;
        CompareBoot(recording.boots[i], &timeline->boots[i], &timeline->differences);
    }
}

}  // namespace kvtool::ladder
