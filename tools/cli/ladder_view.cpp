#include "tools/cli/ladder_view.h"

#include <algorithm>

#include "tools/cli/terminal.h"

namespace kvtool {

namespace {

using ladder::Boot;
using ladder::Event;
using ladder::EventKind;
using ladder::Ms;
using ladder::Period;
using ladder::State;

constexpr size_t kNarrowest = 60;
constexpr size_t kTimeColumn = 10;
// Most lines shown for one boot; a long log may have thousands of events.
constexpr size_t kMostLines = 60;
constexpr size_t kLastLines = 10;

char Letter(State state) {
    switch (state) {
        case State::kReady:
            return '#';
        case State::kNotReady:
            return '+';
        case State::kSilent:
            return '.';
        case State::kOffline:
            return '-';
        case State::kRecovery:
            return '=';
        case State::kUpgrade:
            return 'w';
    }
    return '?';
}

// The event's letter in the band; 0: the band does not show this event.
char Letter(EventKind kind) {
    switch (kind) {
        case EventKind::kRestart:
            return 'R';
        case EventKind::kReboot:
            return 'B';
        case EventKind::kRecovery:
            return 'V';
        case EventKind::kPowerCut:
            return 'P';
        default:
            return 0;
    }
}

// The boot as one line of letters. A place shows what lasts longest in it, or an event.
std::string Band(const Boot& boot, size_t width) {
    const auto whole = static_cast<double>(std::max<Ms>(boot.length, 1));
    const auto column = [whole, width](Ms at) {
        return std::min(width - 1, static_cast<size_t>(static_cast<double>(at) / whole *
                                                       static_cast<double>(width)));
    };
    std::string band(width, ' ');
    std::vector<Ms> longest(width, -1);
    for (const Period& period : boot.periods) {
        const size_t last = column(std::max(period.from, period.to - 1));
        for (size_t i = column(period.from); i <= last; ++i) {
            const auto begin =
                static_cast<Ms>(whole * static_cast<double>(i) / static_cast<double>(width));
            const auto end =
                static_cast<Ms>(whole * static_cast<double>(i + 1) / static_cast<double>(width));
            const Ms share = std::min(period.to, end) - std::max(period.from, begin);
            if (share > longest[i]) {
                longest[i] = share;
                band[i] = Letter(period.state);
            }
        }
    }
    for (const Event& event : boot.events) {
        if (const char letter = Letter(event.kind); letter != 0) {
            band[column(event.at)] = letter;
        }
    }
    return band;
}

std::string Columns(Ms at, const std::string& text) {
    const std::string time = ladder::TimeText(at);
    return std::string(kTimeColumn - std::min(kTimeColumn - 1, time.size()) - 1, ' ') + time +
           "  " + text;
}

std::string Beats(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " heartbeat" : " heartbeats");
}

std::string PeriodText(const Period& period) {
    switch (period.state) {
        case State::kReady:
            return Beats(period.beats) + " in " + ladder::SpanText(period.to - period.from);
        case State::kNotReady:
            return Beats(period.beats) + " in " + ladder::SpanText(period.to - period.from) +
                   ", not ready";
        case State::kSilent:
            return "silence";
        case State::kRecovery:
        case State::kUpgrade:
            return period.beats > 0 ? Beats(period.beats) + ", ignored" : "";
        case State::kOffline:
            break;
    }
    return "";
}

std::string EventLine(const Event& event) {
    const std::string seen = event.seen ? "  (log " + ladder::TimeText(*event.seen) + ")" : "";
    return Columns(event.at, ladder::EventText(event) + seen);
}

// Periods and events in the order of their times.
std::vector<std::string> BootLines(const Boot& boot) {
    std::vector<std::string> lines;
    auto event = boot.events.begin();
    for (const Period& period : boot.periods) {
        const auto before = [&period](const Event& other) {
            return other.at < period.from ||
                   (other.at == period.from && other.kind == EventKind::kStarted);
        };
        for (; event != boot.events.end() && before(*event); ++event) {
            lines.push_back(EventLine(*event));
        }
        if (const std::string text = PeriodText(period); !text.empty()) {
            lines.push_back(Columns(period.from, text));
        }
    }
    for (; event != boot.events.end(); ++event) {
        lines.push_back(EventLine(*event));
    }
    return lines;
}

void PrintMargin(std::ostream& out, const ladder::BeatMargin& margin, const char* what,
                 size_t width) {
    std::string text = what;
    for (size_t i = 0; i < margin.steps.size(); ++i) {
        text += std::string(i == 0 ? "" : ", ") + EventName(margin.steps[i].step) + " " +
                ladder::SpanText(margin.steps[i].later) + " later";
    }
    out << Shortened(Columns(margin.at, text), width) << '\n';
}

void PrintMargins(std::ostream& out, const Boot& boot, size_t width) {
    const ladder::Margins& margins = boot.margins;
    out << "  what if a heartbeat had come later?\n";
    if (margins.closest) {
        PrintMargin(out, *margins.closest, "closest while online: ", width);
    }
    size_t left = kMostLines;
    for (const ladder::BeatMargin& margin : margins.beats) {
        if (left-- == 0) {
            out << "            … and " << margins.beats.size() - kMostLines << " more\n";
            break;
        }
        const std::string what = "after " + ladder::SpanText(margin.silence) + ": ";
        PrintMargin(out, margin, what.c_str(), width);
    }
    for (const ladder::MissedBeat& missed : margins.missed) {
        if (missed.step == EventKind::kOffline) {
            continue;  // a heartbeat above or a step below already shows this silence
        }
        const std::string text = missed.late ? ": the next heartbeat came " +
                                                   ladder::SpanText(*missed.late) +
                                                   " too late to prevent it"
                                             : ": no heartbeat came that could prevent it";
        out << Columns(missed.at, EventName(missed.step) + text) << '\n';
    }
}

void PrintBoot(std::ostream& out, const Boot& boot, size_t width) {
    out << "boot " << boot.number << ", " << (boot.marker ? "with" : "without")
        << " the reboot marker, lasts " << ladder::TimeText(boot.length) << '\n';
    for (const std::string& note : boot.notes) {
        out << Shortened("  assumed: " + note, width) << '\n';
    }
    out << "  " << Band(boot, width - 4) << '\n';
    const std::vector<std::string> lines = BootLines(boot);
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines.size() > kMostLines && i == kMostLines - kLastLines) {
            const size_t skipped = lines.size() - kMostLines;
            out << "            … " << skipped << " more lines; --json has them all …\n";
            i += skipped;
        }
        out << Shortened(lines[i], width) << '\n';
    }
}

}  // namespace

void PrintTimeline(std::ostream& out, const ladder::Timeline& timeline, bool margins,
                   size_t width) {
    width = std::max(width, kNarrowest);
    for (const Boot& boot : timeline.boots) {
        PrintBoot(out, boot, width);
        if (margins) {
            PrintMargins(out, boot, width);
        }
        out << '\n';
    }
    for (const std::string& difference : timeline.differences) {
        out << "DIFFERENT " << difference << '\n';
    }
    out << "# ready  + not ready  . silent  - offline  = recovery  w flash is written\n"
           "R restart  B reboot  V recovery begins  P power cut or reset\n"
        << "result: " << ResultText(timeline) << '\n';
}

}  // namespace kvtool
