#include "tools/cli/fleet_view.h"

#include <algorithm>
#include <cmath>

#include "tools/fleet/report.h"

namespace kvtool {

using fleet::Member;
using fleet::State;

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

bool UnderWay(const Member& member) {
    return member.progress.state != State::kPlanned && !member.progress.Over();
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
    } else if (state != State::kPlanned) {
        parts.push_back(member.text);
    }
    std::string text = Fitted(parts, "  ", columns);
    // A long reason is cut rather than left out. The report has the whole text.
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

FleetView::FleetView(bool json, uint64_t streamSize, const Interrupt& interrupted)
    : json_(json),
      terminal_(!json && IsTerminal(stdout)),
      out_(json ? stderr : stdout),
      area_(out_),
      streamSize_(streamSize),
      interrupted_(interrupted) {}

FleetRow& FleetView::Row(size_t member) {
    if (rows_.size() <= member) {
        rows_.resize(member + 1);
    }
    return rows_[member];
}

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
    FleetRow& row = Row(member);
    const Clock::time_point now = Clock::now();
    const State before = row.member.progress.state;
    const State state = what.progress.state;
    if (state == State::kDone && before == State::kAccepted) {
        followedSum_ += Seconds(row.since, now);
        ++followedCount_;
    }
    if (state == State::kUploading) {
        row.upload = UploadProgress();
        row.rate = RateMeter();
    }
    row.member = what;
    row.since = now;
    if (!terminal_ && !json_ && state != State::kPlanned) {
        Print(what.id + ": " + PhaseName(state) +
              (what.progress.Over() ? ": " + what.text : std::string()));
    }
}

void FleetView::Progress(size_t member, const UploadProgress& progress) {
    FleetRow& row = Row(member);
    moved_ += progress.acknowledged - std::min(progress.acknowledged, row.upload.acknowledged);
    row.upload = progress;
    row.rate.Add(progress.seconds, progress.acknowledged);
    const Clock::time_point now = Clock::now();
    if (json_ && Seconds(row.reported, now) >= kEventEvery) {
        row.reported = now;
        const Json event = {{"schema", kJsonSchema},
                            {"event", "progress"},
                            {"device", row.member.id},
                            {"bytes_acknowledged", progress.acknowledged},
                            {"bytes_total", progress.total}};
        (void)printf("%s\n", JsonLine(event).c_str());
        (void)fflush(stdout);
    }
}

void FleetView::Line(size_t member, const std::string& text) {
    FleetRow& row = Row(member);
    row.last = text;
    if (!terminal_) {
        Print(row.member.id + ": " + text);
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

FleetTotal FleetView::Total(Clock::time_point now) const {
    FleetTotal total;
    total.rate = rate_.Rate();
    total.followed = followedCount_ > 0 ? followedSum_ / static_cast<double>(followedCount_) : 0;
    double left = 0;  // for the devices that are followed already
    for (const FleetRow& row : rows_) {
        const State state = row.member.progress.state;
        if (state == State::kDone) {
            ++total.done;
        } else if (state == State::kFailed) {
            ++total.failed;
            continue;
        } else {
            ++(state == State::kPlanned ? total.waiting : total.underWay);
        }
        const bool sent = state == State::kDone || row.member.progress.reached >= State::kFinishing;
        total.size += streamSize_;
        total.sent += sent ? streamSize_ : row.upload.acknowledged;
        left = state == State::kAccepted ? std::max(left, total.followed - Seconds(row.since, now))
                                         : left;
    }
    const auto rest = static_cast<double>(total.size - std::min(total.sent, total.size));
    if (rest > 0) {
        total.secondsLeft = total.rate > 0 ? rest / total.rate + total.followed : 0;
    } else {
        total.secondsLeft = left;
    }
    return total;
}

// After Ctrl-C: lists the devices under way and estimates the time that they need.
void FleetView::TellUnderWay(Clock::time_point now) {
    toldUnderWay_ = true;
    const FleetTotal total = Total(now);
    std::string text = std::to_string(total.underWay) + " under way will finish";
    double left = 0;
    for (const FleetRow& row : rows_) {
        if (UnderWay(row.member)) {
            const double rate = row.rate.Rate();
            const auto bytes = static_cast<double>(row.upload.total - row.upload.acknowledged);
            const bool uploads = row.member.progress.state == State::kUploading && rate > 0;
            left = std::max(left, (uploads ? bytes / rate : 0) + total.followed);
            text += "\n  " + FleetRowText(row, now, kPlainColumns);
        }
    }
    text += left > 0 ? "\nabout " + Duration(left) +
                           (total.followed > 0 ? "" : " of uploads, then their restart")
                     : "\nthe time that they need is not known";
    Print(text + "; Ctrl-C again ends kvtool at once");
}

void FleetView::Tick() {
    const Clock::time_point now = Clock::now();
    if (interrupted_.Raised() && !toldUnderWay_) {
        TellUnderWay(now);
    }
    if (json_ || Seconds(shown_, now) < (terminal_ ? kTerminalEvery : kPlainEvery)) {
        return;
    }
    shown_ = now;
    rate_.Add(Seconds(start_, now), moved_);
    if (!terminal_) {
        Print(FleetTotalText(Total(now), kPlainColumns));
        return;
    }
    const auto [columns, lines] = SizeOf(out_);
    std::vector<std::string> text;
    // One line for the total, one for the cursor.
    for (const size_t i : RowsToShow(rows_, lines > 3 ? lines - 2 : 1)) {
        text.push_back(FleetRowText(rows_[i], now, columns));
    }
    text.push_back(FleetTotalText(Total(now), columns));
    area_.Show(text);
}

}  // namespace kvtool
