#include <cctype>
#include <cmath>
#include <ctime>

#include "tools/base/errors.h"
#include "tools/base/text.h"
#include "tools/ladder/recording.h"

namespace kvtool::ladder {

namespace {

[[noreturn]] void Fail(const LogLine& line, const std::string& what) {
    throw ToolError(ExitCode::kRefused, line.where + what);
}

// Milliseconds from a date and time, or from seconds. *rest gets what follows.
std::optional<Ms> ReadTime(const std::string& text, std::string* rest) {
    struct tm when {};
    const char* end = strptime(text.c_str(), "%Y-%m-%d", &when);
    if (end != nullptr && (*end == ' ' || *end == 'T')) {
        end = strptime(end + 1, "%H:%M:%S", &when);
    } else {
        end = nullptr;
    }
    double seconds = 0;
    char* after = nullptr;
    if (end != nullptr) {
        seconds = static_cast<double>(timegm(&when));
        after = const_cast<char*>(end);
        if (*end == '.') {
            seconds += strtod(end, &after);
        }
    } else {
        seconds = strtod(text.c_str(), &after);
        if (after == text.c_str()) {
            return std::nullopt;
        }
    }
    if (!std::isfinite(seconds) || std::abs(seconds) > 1e11) {
        return std::nullopt;
    }
    *rest = Trimmed(after);
    return std::llround(seconds * 1000);
}

class Reader {
  public:
    void Line(const LogLine& line);
    Recording Take();

  private:
    void Begin(Ms at);

    Recording recording_;
    Ms start_ = 0;
    Ms last_ = 0;
};

void Reader::Begin(Ms at) {
    recording_.boots.emplace_back();
    start_ = last_ = at;
}

void Reader::Line(const LogLine& line) {
    const std::string text = Trimmed(line.text.substr(0, line.text.find('#')));
    if (text.empty()) {
        return;
    }
    std::string word;
    const std::optional<Ms> at = ReadTime(text, &word);
    if (!at) {
        Fail(line, "expected a time in seconds, or a date and time");
    }
    if (word == "boot") {
        Begin(*at);
        return;
    }
    if (recording_.boots.empty()) {
        Begin(*at);
        recording_.boots.back().notes.emplace_back(
            "the log does not begin with 'boot': the supervisor is assumed to start with the first "
            "line");
    }
    if (*at < last_) {
        Fail(line, "the time goes backwards; 'boot' begins a new clock");
    }
    last_ = *at;
    RecordedBoot& boot = recording_.boots.back();
    boot.length = *at - start_;
    const bool ready = word == "1" || word == "ready";
    if (ready || word == "0" || word == "not-ready") {
        boot.signals.push_back({*at - start_, SignalKind::kBeat, ready});
    } else if (word != "end") {
        Fail(line, "unknown word '" + Printable(word) + "'" +
                       DidYouMean(word, {"ready", "not-ready", "boot", "end"}));
    }
}

Recording Reader::Take() {
    return std::move(recording_);
}

}  // namespace

Recording ReadHeartbeatLog(const std::vector<LogLine>& lines) {
    Reader reader;
    for (const LogLine& line : lines) {
        reader.Line(line);
    }
    return reader.Take();
}

}  // namespace kvtool::ladder
