#include "tools/cli/fleet_view.h"

#include <algorithm>
#include <cmath>

#include "tools/fleet/report.h"

namespace kvtool {

using fleet::Member;
using fleet::State;
using fleet::UnderWay;

namespace {

constexpr double kTerminalEvery = 0.2;
constexpr double kPlainEvery = 5.0;
constexpr double kEventEvery = 1.0;
constexpr size_t kPlainColumns = 100;
constexpr size_t kBar = 20;
constexpr double kStalls = 3.0;

double Seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string Duration(double seconds) {
    const long whole = std::lround(std::ceil(seconds));
    return whole < 100 ? std::to_string(whole) + " s"
                       : std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
}

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string Percent(uint64_t part, uint64_t whole) {
    return std::to_string(whole > 0 ? part * 100 / whole : 0) + "%";
}

std::string Bar(uint64_t part, uint64_t whole) {
    const size_t full = whole > 0 ? static_cast<size_t>(part * kBar / whole) : 0;
    return "[" + std::string(full, '#') + std::string(kBar - full, ' ') + "]";
}

// The first parts that fit.
std::string Fitted(const std::vector<std::string>& parts, const char* between, size_t columns) {
    std::string text;
    for (const std::string& part : parts) {
        std::string longer = text;
        longer += text.empty() ? "" : between;
        longer += part;
        if (Width(longer) >= columns) {
            break;
        }
        text = std::move(longer);
    }
    return text;
}

const char* PhaseName(State state) {
    switch (state) {
        case State::kPlanned:
            return "waiting";
        case State::kFinishing:
            return "verifying";
        case State::kAccepted:
            return "following";
        default:
            return StateName(state);
    }
}

}  // namespace

std::string FleetRowText(const FleetRow& row, Clock::time_point now, size_t columns) {
    const Member& member = row.member;
    const State state = member.progress.state;
    std::vector<std::string> parts = {Padded(member.id, 17), Padded(PhaseName(state), 10)};
    if (state == State::kUploading) {
        const UploadProgress& upload = row.upload;
        parts.push_back(Padded(Percent(upload.acknowledged, upload.total), 4));
        const double rate = row.rate.Rate();
        if (upload.silent >= kStalls) {
            parts.push_back("stalled for " + Duration(upload.silent));
        } else if (rate > 0) {
            const auto left = static_cast<double>(upload.total - upload.acknowledged);
            parts.push_back(Padded(Duration(left / rate) + " left", 10));
            parts.push_back(Padded(ShortSizeText(static_cast<uint64_t>(rate)) + "/s", 12));
        }
        parts.push_back(Bar(upload.acknowledged, upload.total));
    } else if (UnderWay(member)) {
        parts.push_back("for " + Duration(Seconds(row.since, now)));
        parts.push_back(row.last);
    } else if (state != State::kPlanned && state != State::kFailed) {
        parts.push_back(member.text);
    }
    std::string text = Fitted(parts, "  ", columns);
    // A long reason of a failure is cut rather than left out. The report has the whole text.
    if (state == State::kFailed && Width(text) + 12 < columns) {
        text += "  " + Shortened(member.text, columns - 3 - Width(text));
    }
    return text;
}

std::string FleetTotalText(const FleetTotal& total, size_t columns) {
    const size_t all = total.done + total.failed + total.underWay + total.waiting;
    std::vector<std::string> parts = {"total: " + std::to_string(total.done) + " of " +
                                      std::to_string(all) + " done"};
    if (total.failed > 0) {
        parts.push_back(std::to_string(total.failed) + " failed");
    }
    if (total.secondsLeft > 0) {
        parts.push_back("about " + Duration(total.secondsLeft) + " left");
    }
    parts.push_back(std::to_string(total.underWay) + " under way");
    parts.push_back(Percent(total.sent, total.size) + " sent");
    if (total.rate > 0) {
        parts.push_back(ShortSizeText(static_cast<uint64_t>(total.rate)) + "/s");
    }
    return Fitted(parts, ", ", columns);
}

std::vector<size_t> RowsToShow(const std::vector<FleetRow>& rows, size_t lines) {
    const auto rank = [&rows](size_t i) {
        const Member& member = rows[i].member;
        return UnderWay(member)                           ? 0
               : member.progress.state == State::kFailed  ? 1
               : member.progress.state == State::kPlanned ? 2
                                                          : 3;
    };
    std::vector<size_t> order(rows.size());
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    if (rows.size() > lines) {
        std::stable_sort(order.begin(), order.end(),
                         [&rank](size_t a, size_t b) { return rank(a) < rank(b); });
        order.resize(lines);
        std::sort(order.begin(), order.end());
    }
    return order;
}

std::string UnderWayText(const std::vector<FleetRow>& rows, const FleetTotal& total,
                         double restartLimit, Clock::time_point now) {
    std::string text = std::to_string(total.underWay) + " under way will finish";
    double left = 0;
    for (const FleetRow& row : rows) {
        if (UnderWay(row.member)) {
            left = std::max(left, fleet::SecondsLeft(row) + total.followed);
            text += "\n  " + FleetRowText(row, now, kPlainColumns);
        }
    }
    text += "\n";
    text += left > 0 ? "about " + Duration(left) : "";
    // Until a device has been seen alive, only the limit of a restart is known.
    if (total.followed == 0) {
        text += left > 0 ? " of uploads, then " : "";
        text += "at most " + Duration(restartLimit) + " for the restart of each";
    }
    return text + "; Ctrl-C again ends kvtool at once";
}

FleetView::FleetView(bool json, uint64_t streamSize, double restartLimit,
                     const Interrupt& interrupted)
    : json_(json),
      terminal_(!json && IsTerminal(stdout)),
      out_(json ? stderr : stdout),
      area_(out_),
      restartLimit_(restartLimit),
      interrupted_(interrupted),
      tracker_(streamSize) {}

void FleetView::Clear() {
    if (terminal_) {
        area_.Show({});
    }
}

void FleetView::Print(const std::string& text) {
    Clear();
    (void)fprintf(out_, "%s\n", text.c_str());
    (void)fflush(out_);
}

void FleetView::Changed(size_t member, const Member& what) {
    tracker_.Changed(member, what);
    const State state = what.progress.state;
    if (!terminal_ && !json_ && state != State::kPlanned) {
        Print(what.id + ": " + PhaseName(state) +
              (what.progress.Over() ? ": " + what.text : std::string()));
    }
}

void FleetView::Progress(size_t member, const UploadProgress& progress) {
    tracker_.Progress(member, progress);
    const Clock::time_point now = Clock::now();
    reported_.resize(std::max(reported_.size(), member + 1));
    if (json_ && Seconds(reported_[member], now) >= kEventEvery) {
        reported_[member] = now;
        const Json event = {{"schema", kJsonSchema},
                            {"event", "progress"},
                            {"device", tracker_.Rows()[member].member.id},
                            {"bytes_acknowledged", progress.acknowledged},
                            {"bytes_total", progress.total}};
        (void)printf("%s\n", JsonLine(event).c_str());
        (void)fflush(stdout);
    }
}

void FleetView::Line(size_t member, const std::string& text) {
    tracker_.Line(member, text);
    if (!terminal_) {
        Print(tracker_.Rows()[member].member.id + ": " + text);
    }
}

void FleetView::Note(const std::string& text) {
    Print(text);
}

void FleetView::Written(const Json& line) {
    if (json_) {
        (void)printf("%s\n", JsonLine(line).c_str());
        (void)fflush(stdout);
    }
}

void FleetView::Tick() {
    const Clock::time_point now = Clock::now();
    if (interrupted_.Raised() && !toldUnderWay_) {
        toldUnderWay_ = true;
        const FleetTotal total = tracker_.Total(now);
        if (total.underWay > 0) {
            Print(UnderWayText(tracker_.Rows(), total, restartLimit_, now));
        }
    }
    if (json_ || Seconds(shown_, now) < (terminal_ ? kTerminalEvery : kPlainEvery)) {
        return;
    }
    shown_ = now;
    tracker_.Measure(now);
    if (!terminal_) {
        const std::string total = FleetTotalText(tracker_.Total(now), kPlainColumns);
        if (total != total_) {
            Print(total);
        }
        total_ = total;
        return;
    }
    const auto [columns, lines] = SizeOf(out_);
    const std::vector<FleetRow>& rows = tracker_.Rows();
    std::vector<std::string> text;
    // One line for the total, one for the cursor.
    for (const size_t i : RowsToShow(rows, lines > 3 ? lines - 2 : 1)) {
        text.push_back(FleetRowText(rows[i], now, columns));
    }
    text.push_back(FleetTotalText(tracker_.Total(now), columns));
    area_.Show(text);
}

}  // namespace kvtool
