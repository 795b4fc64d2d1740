#include "tools/ladder/picture.h"

#include <algorithm>
#include <array>

#include "tools/base/text.h"
#include "tools/ladder/scale.h"
#include "tools/ladder/svg.h"

namespace kvtool::ladder {

namespace {

using svg::Line;
using svg::Number;
using svg::Rect;
using svg::Text;
using svg::TextWidth;

constexpr double kWidth = 800;
constexpr double kLeft = 96;  // where the lanes begin, after their names
constexpr double kRight = 24;
constexpr double kLabelHeight = 16;
constexpr double kLaneHeight = 26;
constexpr double kThinHeight = 9;
constexpr double kGap = 5;
constexpr size_t kMostLabels = 24;
constexpr size_t kMostSentences = 80;

const char* Words(State state) {
    switch (state) {
        case State::kReady:
            return "heartbeats";
        case State::kNotReady:
            return "not ready";
        case State::kSilent:
            return "silence";
        case State::kOffline:
            return "offline";
        case State::kRecovery:
            return "recovery";
        case State::kUpgrade:
            return "flash is written";
    }
    return "";
}

// The text of an event's label; empty: it has none.
std::string LabelText(EventKind kind) {
    switch (kind) {
        case EventKind::kOffline:
            return "offline";
        case EventKind::kOnline:
            return "heartbeat";
        case EventKind::kMarkerRemoved:
            return "marker removed";
        case EventKind::kRestart:
            return "restart";
        case EventKind::kReboot:
            return "reboot";
        case EventKind::kRecovery:
            return "recovery";
        case EventKind::kUpgrade:
            return "flash is written";
        case EventKind::kPowerCut:
            return "power cut or reset";
        case EventKind::kButtonReturned:
        case EventKind::kStarted:
            break;
    }
    return "";
}

bool IsBigStep(EventKind kind) {
    return kind == EventKind::kRestart || kind == EventKind::kReboot ||
           kind == EventKind::kRecovery || kind == EventKind::kPowerCut;
}

struct Label {
    double x;
    double from;  // where its text begins
    std::string text;
    size_t row;
    bool big;
};

// Draws one boot.
class BootPicture {
  public:
    BootPicture(const Boot& boot, double unit) : boot_(boot), scale_(boot), unit_(unit) {}

    // Returns the markup; *y is the top before and the bottom after it.
    std::string Draw(double* y);

  private:
    double X(Ms at) const { return kLeft + scale_.Place(at) * unit_; }
    std::vector<Label> Labels() const;
    std::string Heading() const;
    void Flags(const std::vector<Label>& labels, double bottom);
    void Application(double y);
    void Owned(double y, const char* name, const char* style,
               const std::vector<std::pair<Ms, Ms>>& spans);
    std::vector<std::pair<Ms, Ms>> ButtonSpans() const;
    std::vector<std::pair<Ms, Ms>> MarkerSpans() const;
    void Axis(double y);

    const Boot& boot_;
    Scale scale_;
    double unit_;  // pixels per millisecond
    std::string out_;
};

std::string BootPicture::Heading() const {
    return "Boot " + std::to_string(boot_.number);
}

// Each label gets the lowest row in which it does not run into another one.
std::vector<Label> BootPicture::Labels() const {
    std::vector<Label> labels;
    size_t all = 0;
    for (const Event& event : boot_.events) {
        all += LabelText(event.kind).empty() ? 0 : 1;
    }
    std::vector<double> ends;
    for (const Event& event : boot_.events) {
        std::string text = LabelText(event.kind);
        const bool big = IsBigStep(event.kind);
        if (text.empty() || (all > kMostLabels && !big)) {
            continue;
        }
        if (event.kind == EventKind::kMarkerRemoved && !labels.empty()) {
            labels.back().text += ", " + text;
            ends[labels.back().row] += TextWidth(", " + text);
            continue;
        }
        text += " " + TimeText(event.at);
        const double x = X(event.at);
        const double width = TextWidth(text);
        // A label at the right edge ends at its line instead of beginning there.
        const bool left = x + width > kWidth - kRight;
        const double from = left ? x - width : x;
        size_t row = 0;
        while (row < ends.size() && ends[row] + TextWidth(" ") > from) {
            ++row;
        }
        if (row == ends.size()) {
            ends.push_back(0);
        }
        ends[row] = from + width;
        labels.push_back({x, from, text, row, big});
    }
    return labels;
}

void BootPicture::Flags(const std::vector<Label>& labels, double bottom) {
    const auto y = [bottom](const Label& label) {
        return bottom - kGap - static_cast<double>(label.row) * kLabelHeight;
    };
    for (const Label& label : labels) {
        out_ +=
            Line(label.x, y(label) - 9, label.x, bottom + kLaneHeight, label.big ? "step" : "flag");
    }
    // All texts after all lines: a text covers the line of a label above it.
    for (const Label& label : labels) {
        const bool left = label.from < label.x;
        out_ += Text(left ? label.x - 4 : label.x + 4, y(label), label.text,
                     label.big ? "label" : "label soft", left ? "end" : "");
    }
}

void BootPicture::Application(double y) {
    out_ += Text(kLeft - 8, y + 17, "application", "", "end");
    double drawn = kLeft;
    for (const Period& period : boot_.periods) {
        const double from = std::max(X(period.from), drawn);
        const double to = std::max(X(period.to), X(period.from) + 2);
        if (to - from < 0.5) {
            continue;  // too short to be seen
        }
        out_ += Rect(from, y, to - from, kLaneHeight, StateName(period.state));
        drawn = to;
        const std::string words = Words(period.state);
        if (TextWidth(words) + 8 < to - from) {
            const bool light = period.state == State::kSilent || period.state == State::kOffline;
            out_ += Text((from + to) / 2, y + 17, words, light ? "onlight" : "on");
        }
    }
    for (const auto& [from, to] : scale_.Breaks()) {
        const double x = X(from) + (X(to) - X(from)) * 0.85;
        out_ += "<path d=\"M" + Number(x) + " " + Number(y - 2) + "l-5 " + Number(kLaneHeight + 4) +
                "h4l5 -" + Number(kLaneHeight + 4) + "z\" class=\"break\"/>\n";
    }
}

void BootPicture::Owned(double y, const char* name, const char* style,
                        const std::vector<std::pair<Ms, Ms>>& spans) {
    out_ += Text(kLeft - 8, y + kThinHeight, name, "soft", "end");
    out_ += Rect(kLeft, y, X(boot_.length) - kLeft, kThinHeight, "lane", 2);
    for (const auto& [from, to] : spans) {
        const double width = std::max(X(to) - X(from), 4.0);
        out_ += Rect(std::min(X(from), X(boot_.length) - width), y, width, kThinHeight, style, 2);
    }
}

// The times in which the supervisor watches the button.
std::vector<std::pair<Ms, Ms>> BootPicture::ButtonSpans() const {
    std::vector<std::pair<Ms, Ms>> spans;
    bool open = false;
    for (const Event& event : boot_.events) {
        if (event.kind == EventKind::kOffline && !open) {
            spans.emplace_back(event.at, boot_.length);
            open = true;
        } else if (event.kind == EventKind::kButtonReturned && open) {
            spans.back().second = event.at;
            open = false;
        }
    }
    return spans;
}

std::vector<std::pair<Ms, Ms>> BootPicture::MarkerSpans() const {
    std::vector<std::pair<Ms, Ms>> spans;
    if (boot_.marker) {
        spans.emplace_back(0, boot_.length);
    }
    for (const Event& event : boot_.events) {
        if (event.kind == EventKind::kReboot && spans.empty()) {
            spans.emplace_back(event.at, boot_.length);
        } else if (!spans.empty() && (event.kind == EventKind::kMarkerRemoved ||
                                      event.kind == EventKind::kRecovery)) {
            spans.back().second = event.at;
        }
    }
    return spans;
}

void BootPicture::Axis(double y) {
    constexpr std::array<Ms, 12> kSteps = {10,  15,   30,   60,    120,   300,
                                           600, 1800, 3600, 10800, 43200, 86400};
    constexpr double kRoom = 56;
    Ms step = kSteps.back() * 1000;
    for (const Ms candidate : kSteps) {
        if (static_cast<double>(candidate * 1000) * unit_ >= kRoom) {
            step = candidate * 1000;
            break;
        }
    }
    out_ += Line(kLeft, y, X(boot_.length), y, "axis");
    double last = kLeft - kRoom;
    const auto breaks = scale_.Breaks();
    auto next = breaks.begin();
    for (Ms at = 0; at <= boot_.length; at += step) {
        if (next != breaks.end() && at > next->first) {
            // No times inside a shortened stretch.
            at = (next->second + step - 1) / step * step;
            ++next;
            if (at > boot_.length) {
                break;
            }
        }
        if (X(at) - last < kRoom * 0.75) {
            continue;
        }
        last = X(at);
        out_ += Line(last, y, last, y + 4, "tick");
        out_ += Text(last, y + 15, TimeText(at), "soft", at == 0 ? "" : "middle");
    }
}

std::string BootPicture::Draw(double* y) {
    const std::vector<Label> labels = Labels();
    size_t rows = 0;
    for (const Label& label : labels) {
        rows = std::max(rows, label.row + 1);
    }
    out_ += Text(16, *y + 12, Heading(), "boot");
    const double top = *y + 12 + static_cast<double>(std::max<size_t>(rows, 1)) * kLabelHeight;
    Application(top);
    Owned(top + kLaneHeight + kGap, "button", "button", ButtonSpans());
    Owned(top + kLaneHeight + kThinHeight + 2 * kGap, "marker", "marker", MarkerSpans());
    Flags(labels, top);
    const double axis = top + kLaneHeight + 2 * kThinHeight + 3 * kGap;
    Axis(axis);
    *y = axis + 34;
    return out_;
}

std::string Legend(const Timeline& timeline, double y) {
    std::array<bool, 6> present{};
    for (const Boot& boot : timeline.boots) {
        for (const Period& period : boot.periods) {
            present[static_cast<size_t>(period.state)] = true;
        }
    }
    std::string out;
    double x = 16;
    const auto add = [&out, &x, y](const char* style, const std::string& text) {
        out += Rect(x, y - 9, 12, 10, style, 2);
        out += Text(x + 17, y, text, "soft");
        x += 17 + TextWidth(text) + 14;
    };
    for (size_t i = 0; i < present.size(); ++i) {
        if (present[i]) {
            add(StateName(static_cast<State>(i)), Words(static_cast<State>(i)));
        }
    }
    add("button", "the supervisor watches the button");
    add("marker", "the reboot marker exists");
    return out;
}

// The picture in words, for people who cannot see it.
std::string Description(const Timeline& timeline) {
    std::string text;
    size_t sentences = 0;
    for (const Boot& boot : timeline.boots) {
        text += "Boot " + std::to_string(boot.number) + ", " + (boot.marker ? "with" : "without") +
                " the reboot marker. ";
        for (const Event& event : boot.events) {
            if (++sentences <= kMostSentences) {
                text += TimeText(event.at) + ": " + EventText(event) + ". ";
            }
        }
    }
    if (sentences > kMostSentences) {
        text += "And " + std::to_string(sentences - kMostSentences) + " more events. ";
    }
    return text + "Result: " + ResultText(timeline) + ".";
}

// The title cut to the width of the picture.
std::string SeenTitle(const std::string& title) {
    constexpr size_t kMost = 100;
    size_t length = std::min(title.size(), kMost);
    while (length < title.size() && (static_cast<unsigned char>(title[length]) & 0xC0U) == 0x80) {
        --length;
    }
    return length < title.size() ? title.substr(0, length) + "…" : title;
}

}  // namespace

std::string Picture(const Timeline& timeline, const std::string& title) {
    Ms longest = 1;
    for (const Boot& boot : timeline.boots) {
        longest = std::max(longest, Scale(boot).Drawn());
    }
    const double unit = (kWidth - kLeft - kRight) / static_cast<double>(longest);
    std::string body;
    double y = 40;
    for (const Boot& boot : timeline.boots) {
        body += BootPicture(boot, unit).Draw(&y);
    }
    body += Text(16, y + 4, "Result: " + ResultText(timeline), "");
    body += Legend(timeline, y + 26);
    const double height = y + 42;
    const std::string size = Number(kWidth) + " " + Number(height);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + size + "\" width=\"" +
           Number(kWidth) + "\" height=\"" + Number(height) +
           "\" role=\"img\" aria-labelledby=\"title desc\">\n<title id=\"title\">" +
           MarkupText(title) + "</title>\n<desc id=\"desc\">" + MarkupText(Description(timeline)) +
           "</desc>\n" + svg::StyleSheet() + Rect(0.5, 0.5, kWidth - 1, height - 1, "page", 6) +
           Text(16, 24, SeenTitle(title), "title") + body + "</svg>\n";
}

}  // namespace kvtool::ladder
