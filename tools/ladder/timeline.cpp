#include "tools/ladder/timeline.h"

#include <array>
#include <cstdio>

namespace kvtool::ladder {

namespace {

constexpr Ms kSecond = 1000;
constexpr Ms kMinute = 60 * kSecond;
constexpr Ms kHour = 60 * kMinute;

std::string Format(const char* format, long long a, long long b = 0, long long c = 0) {
    std::array<char, 64> text{};
    (void)snprintf(text.data(), text.size(), format, a, b, c);
    return text.data();
}

}  // namespace

const char* EventName(EventKind kind) {
    static constexpr std::array<const char*, 10> kNames = {
        "offline", "online", "button_returned", "marker_removed", "restart",
        "started", "reboot", "recovery",        "upgrade",        "power_cut"};
    return kNames[static_cast<size_t>(kind)];
}

const char* StateName(State state) {
    static constexpr std::array<const char*, 6> kNames = {"ready",   "not_ready", "silent",
                                                          "offline", "recovery",  "upgrade"};
    return kNames[static_cast<size_t>(state)];
}

const char* EndName(End end) {
    static constexpr std::array<const char*, 6> kNames = {"reboot",  "recovery",  "power_cut",
                                                          "settled", "input_end", "limit"};
    return kNames[static_cast<size_t>(end)];
}

std::string TimeText(Ms time) {
    const long long tenths = time % kSecond / 100;
    std::string text = time < kHour
                           ? Format("%lld:%02lld", time / kMinute, time % kMinute / kSecond)
                           : Format("%lld:%02lld:%02lld", time / kHour, time % kHour / kMinute,
                                    time % kMinute / kSecond);
    return tenths == 0 ? text : text + Format(".%lld", tenths);
}

std::string SpanText(Ms span) {
    if (span < 10 * kMinute) {
        return Format("%lld", span / kSecond) +
               (span % kSecond == 0 ? "" : Format(".%lld", span % kSecond / 100)) + " s";
    }
    const struct {
        Ms unit;
        const char* name;
    } units[] = {{kHour, " h"}, {kMinute, " min"}, {kSecond, " s"}};
    std::string text;
    for (const auto& unit : units) {
        if (span / unit.unit > 0) {
            text += (text.empty() ? "" : " ") + Format("%lld", span / unit.unit) + unit.name;
            span %= unit.unit;
        }
    }
    return text;
}

std::string EventText(const Event& event) {
    const std::string cause =
        event.silence > 0 ? ": " + SpanText(event.silence * kSecond) + " of silence" : "";
    switch (event.kind) {
        case EventKind::kOffline:
            return "offline" + cause + "; the supervisor has the button";
        case EventKind::kOnline:
            return "heartbeat: online again";
        case EventKind::kButtonReturned:
            return "second heartbeat: the button is the application's again";
        case EventKind::kMarkerRemoved:
            return "the heartbeat removes the reboot marker";
        case EventKind::kRestart:
            return "restart" + cause + "; the only one in this boot";
        case EventKind::kStarted:
            return "startapp.sh";
        case EventKind::kReboot:
            return "reboot" + cause + "; the marker is created";
        case EventKind::kRecovery:
            return event.silence > 0 ? "recovery" + cause + "; the marker is removed" : "recovery";
        case EventKind::kUpgrade:
            return "flash is being written; the monitor rests";
        case EventKind::kPowerCut:
            return "power cut, or a reset from elsewhere";
    }
    return "";
}

std::string ResultText(const Timeline& timeline) {
    if (timeline.boots.empty()) {
        return "nothing happens";
    }
    const Boot& last = timeline.boots.back();
    const std::string boot = "boot " + std::to_string(last.number);
    if (timeline.repeats) {
        return "the next boot is like boot " + std::to_string(*timeline.repeats) +
               ": this repeats for ever";
    }
    switch (last.end) {
        case End::kRecovery:
            return "in recovery since " + boot + "; the device waits for a technician";
        case End::kSettled:
            return "in " + boot + " the application beats on, and nothing more happens";
        case End::kLimit:
            return "the replay stopped in " + boot + "; --for makes it longer";
        case End::kReboot:
        case End::kPowerCut:
            return "nothing is known of the time after " + boot;
        case End::kInputEnd:
            break;
    }
    return "the input ends in " + boot;
}

}  // namespace kvtool::ladder
