// Reads the supervisor's trace, with or without its console output, colours and line ends of a
// serial line. The trace shows the heartbeats of one second out of four, but it has a line for each
// check that finds silence, and that line tells the time of the last heartbeat. So between two
// heartbeats without such a line there was no silence.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/kv_platform.h"
#include "main/kv_monitor_decision.h"
#include "tools/base/text.h"
#include "tools/ladder/recording.h"

namespace kvtool::ladder {

namespace {

constexpr Ms kSecond = 1000;
constexpr Ms kCheckPeriod = kMonitorCheckPeriodMs;
constexpr int kSequences = 100;
// A longer pause counts as a change of the clock. With a heartbeat every second, and in a silence,
// the monitor traces something at least every 4 s.
constexpr int64_t kLongestPause = kv::kWatchdogTimeoutSeconds;

// The log keeper's line before each boot (packaging/scripts/upgrade_keep_log.sh).
constexpr char kKeptBoot[] = "# upgrade_keep_log.sh: boot ";

struct TraceLine {
    int64_t seconds = 0;
    int sequence = 0;
    long process = 0;
    std::string function;
    std::string message;
};

bool StartsWith(const std::string& text, const char* start) {
    return text.compare(0, strlen(start), start) == 0;
}

// The text without colours and without a carriage return at its end.
std::string Plain(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\033' && i + 1 < text.size() && text[i + 1] == '[') {
            i = std::min(text.find('m', i), text.size());
        } else if (text[i] != '\r') {
            out += text[i];
        }
    }
    return out;
}

// "2026-11-25 21:26:47 [03] 0042  DEBUG upgrade_main:main:338 app file exist!", whatever a serial
// logger puts before it.
std::optional<TraceLine> ParseTraceLine(const std::string& raw) {
    const std::string text = Plain(raw);
    constexpr size_t kStamp = 19;
    struct tm when {};
    size_t bracket = text.find(" [");
    for (; bracket != std::string::npos; bracket = text.find(" [", bracket + 1)) {
        const std::string stamp = bracket < kStamp ? "" : text.substr(bracket - kStamp, kStamp);
        const char* const end = strptime(stamp.c_str(), "%Y-%m-%d %H:%M:%S", &when);
        if (end != nullptr && *end == '\0') {
            break;
        }
    }
    if (bracket == std::string::npos) {
        return std::nullopt;
    }
    TraceLine line;
    std::array<char, 8> level{};
    std::array<char, 64> file{};
    std::array<char, 64> function{};
    unsigned place = 0;
    int used = 0;
    if (sscanf(text.c_str() + bracket, " [%2d] %ld %7s %63[^:]:%63[^:]:%u %n", &line.sequence,
               &line.process, level.data(), file.data(), function.data(), &place, &used) != 6 ||
        used == 0 || line.sequence < 0) {
        return std::nullopt;
    }
    line.seconds = timegm(&when);
    line.function = function.data();
    line.message = text.substr(bracket + static_cast<size_t>(used));
    return line;
}

// One boot, while its lines are read.
class BootReader {
  public:
    void Trace(const TraceLine& line);
    void Console(const std::string& text);
    void SetMarker(bool exists) { boot_.facts.marker = exists; }
    // Whether the line is of a later run of the supervisor.
    bool BelongsToNext(const TraceLine& line) const;
    RecordedBoot Take();

  private:
    Ms Follow(const TraceLine& line);
    void Started(const TraceLine& line);
    void Monitor(Ms at, const std::string& message);
    void Online(Ms at);
    void Offline(Ms at, int silence, int timeout);
    void Beat(Ms at, bool fill);
    void Escalated(Ms at);
    void Resolve(EventKind kind);

    RecordedBoot boot_;
    bool begun_ = false;      // has a line
    bool hasStart_ = false;   // has the line after which the monitor starts
    bool monitored_ = false;  // has a line of the monitor
    bool resting_ = false;    // recovery, or flash is being written
    int64_t start_ = 0;       // when the boot began, on the log's clock
    int64_t last_ = 0;
    int sequence_ = 0;
    long process_ = 0;
    int missing_ = 0;
    bool clockSet_ = false;
    std::optional<Ms> lastBeat_;
    std::optional<Ms> lastOffline_;
    std::optional<Ms> restart_;
    std::optional<Ms> escalation_;  // the last check that found a silence over the limit
};

bool BootReader::BelongsToNext(const TraceLine& line) const {
    if (!begun_) {
        return false;
    }
    const bool again = line.sequence == 0 && sequence_ != kSequences - 1;
    return again || line.process != process_ ||
           (hasStart_ && StartsWith(line.message, "Watchdog Timeout:"));
}

// Keeps up with counter and clock. Returns the time of the line.
Ms BootReader::Follow(const TraceLine& line) {
    if (!begun_) {
        start_ = line.seconds;
    } else {
        missing_ += (line.sequence - sequence_ - 1 + kSequences) % kSequences;
        const int64_t passed = line.seconds - last_;
        if (passed < 0 || (passed > kLongestPause && !resting_)) {
            clockSet_ = true;
            start_ += passed - 1;
        }
    }
    begun_ = true;
    last_ = line.seconds;
    sequence_ = line.sequence;
    process_ = line.process;
    return (line.seconds - start_) * kSecond;
}

// The monitor starts right after this line.
void BootReader::Started(const TraceLine& line) {
    hasStart_ = true;
    start_ = line.seconds;
}

void BootReader::Trace(const TraceLine& line) {
    const Ms at = Follow(line);
    boot_.length = std::max(boot_.length, at);
    if (line.function == "__KV_cameraMainProcessHandle") {
        Monitor(at, line.message);
    } else if (StartsWith(line.message, "app file exist!")) {
        Started(line);
        boot_.length = 0;
    } else if (StartsWith(line.message, "app file not exist!")) {
        Started(line);
        boot_.length = 0;
        boot_.facts.recovery = resting_ = true;
    } else if (StartsWith(line.message, "Start to stop feeding the dog!")) {
        Resolve(EventKind::kReboot);
    } else if (StartsWith(line.message, "MINI ProtocolInit Init Success!")) {
        if (escalation_) {
            Resolve(EventKind::kRecovery);
        } else if (!monitored_) {
            boot_.facts.recovery = true;
        }
        resting_ = true;
    } else if (line.function == "KV_UPGRADE_Proc" && !resting_) {
        boot_.signals.push_back({at, SignalKind::kUpgrade});
        resting_ = true;
    }
}

void BootReader::Console(const std::string& text) {
    if (!monitored_ && text == "# rm " + std::string(kv::kRebootMarker)) {
        boot_.facts.marker = true;
    }
}

void BootReader::Monitor(Ms at, const std::string& message) {
    int timeout = 0;
    int silence = 0;
    const std::string online = std::string("Process ") + kv::kAppName + " online";
    if (StartsWith(message, online.c_str())) {
        Online(at);
    } else if (sscanf(message.c_str(), "Proces->start_timeout = %d, cameraMain off time = %d",
                      &timeout, &silence) == 2 &&
               silence >= 0 && silence < 1'000'000) {
        if (!hasStart_ && !monitored_) {
            // The log begins in this silence, so the boot begins with the last heartbeat.
            start_ = last_ - silence;
            at = boot_.length = silence * kSecond;
        }
        Offline(at, silence, timeout);
    } else {
        // A check has ended. If it had led to a reboot or to recovery, its escalation would be
        // resolved by now.
        escalation_.reset();
    }
    monitored_ = true;
}

// With `fill`, heartbeats came every second since the last one.
void BootReader::Beat(Ms at, bool fill) {
    for (Ms between = lastBeat_.value_or(at) + kSecond; fill && between < at; between += kSecond) {
        boot_.signals.push_back({between, SignalKind::kBeat, true});
    }
    if (!lastBeat_ || at > *lastBeat_) {
        boot_.signals.push_back({at, SignalKind::kBeat, true});
        lastBeat_ = at;
    }
}

void BootReader::Online(Ms at) {
    const bool silent = lastOffline_ && (!lastBeat_ || *lastOffline_ > *lastBeat_);
    if (silent && at > *lastOffline_ + kCheckPeriod) {
        // The check in between found a heartbeat, which is not in the log.
        Beat(*lastOffline_ + kCheckPeriod - kSecond, false);
    }
    Beat(at, !silent || at > *lastOffline_ + kCheckPeriod);
}

void BootReader::Offline(Ms at, int silence, int timeout) {
    const Ms seen = at - silence * kSecond;
    const bool silent = lastOffline_ && (!lastBeat_ || *lastOffline_ > *lastBeat_);
    // After a restart the line tells the restart's time less half the limit. That is before the
    // silence was found, so it is no heartbeat.
    if (seen >= lastBeat_.value_or(0) + kSecond && (!silent || seen > *lastOffline_)) {
        Beat(seen, !silent);
    }
    if (!lastOffline_ || (lastBeat_ && *lastBeat_ > *lastOffline_)) {
        boot_.seen.push_back({at, EventKind::kOffline, static_cast<uint32_t>(silence), {}});
    }
    lastOffline_ = at;
    if (silence > timeout) {
        Escalated(at);
    }
}

void BootReader::Escalated(Ms at) {
    escalation_ = at;
    if (!restart_) {
        restart_ = at;
        boot_.seen.push_back({at, EventKind::kRestart, 0, {}});
    }
}

// Sets what the last escalation was. Until then a log's first escalation is recorded as a restart.
void BootReader::Resolve(EventKind kind) {
    if (!escalation_) {
        return;
    }
    if (restart_ == escalation_) {
        boot_.facts.restartSpent = true;
        boot_.seen.back().kind = kind;
    } else {
        boot_.seen.push_back({*escalation_, kind, 0, {}});
    }
    if (kind == EventKind::kRecovery) {
        boot_.facts.marker = true;
    } else if (!lastBeat_ && !boot_.facts.marker) {
        boot_.facts.marker = false;
    }
    // The replay's step may come a little later than the log's end.
    boot_.length = std::max(boot_.length, *escalation_ + kCheckPeriod + kSecond);
    escalation_.reset();
}

RecordedBoot BootReader::Take() {
    if (!hasStart_ && !boot_.facts.recovery) {
        boot_.notes.emplace_back(
            "the log begins in the middle of this boot; what came before is not known");
    }
    if (missing_ > 0) {
        boot_.notes.push_back("at least " + std::to_string(missing_) + " trace lines are missing");
    }
    if (clockSet_) {
        boot_.notes.emplace_back(
            "the device's clock was set; the replay assumes that one second passed");
    }
    std::stable_sort(boot_.signals.begin(), boot_.signals.end(),
                     [](const Signal& a, const Signal& b) { return a.at < b.at; });
    return std::move(boot_);
}

}  // namespace

bool IsTraceLog(const std::vector<LogLine>& lines) {
    for (const LogLine& line : lines) {
        if (ParseTraceLine(line.text)) {
            return true;
        }
    }
    return false;
}

Recording ReadTraceLog(const std::vector<LogLine>& lines) {
    Recording recording;
    recording.format = LogFormat::kTrace;
    std::optional<BootReader> boot;
    std::optional<bool> marker;  // of the boot that begins with the next trace line
    const auto end = [&recording, &boot] {
        if (boot) {
            recording.boots.push_back(boot->Take());
            boot.reset();
        }
    };
    for (const LogLine& line : lines) {
        const std::optional<TraceLine> trace = ParseTraceLine(line.text);
        if (!trace) {
            const std::string text = Plain(line.text);
            if (StartsWith(text, kKeptBoot)) {
                end();
                marker = text.find("marker exists") != std::string::npos;
            } else if (boot) {
                boot->Console(text);
            }
            continue;
        }
        if (boot && boot->BelongsToNext(*trace)) {
            end();
        }
        if (!boot) {
            boot.emplace();
            if (marker) {
                boot->SetMarker(*marker);
            }
            marker.reset();
        }
        boot->Trace(*trace);
    }
    end();
    return recording;
}

}  // namespace kvtool::ladder
