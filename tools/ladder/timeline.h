// What the supervisor does, boot by boot: the result of a replay of its monitor.
// Times are milliseconds since the supervisor of that boot started, unless a name says otherwise.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvtool::ladder {

using Ms = int64_t;

enum class EventKind {
    kOffline,         // a check found the application silent; the supervisor takes the button
    kOnline,          // the first heartbeat after that
    kButtonReturned,  // the second heartbeat in a row: the button is the application's again
    kMarkerRemoved,   // a heartbeat removed the reboot marker
    kRestart,         // the supervisor decided to restart the application
    kStarted,         // startapp.sh
    kReboot,          // the marker is created, the watchdog starves, reboot -f
    kRecovery,        // service Wi-Fi and services start; the marker is removed
    kUpgrade,         // flash is being written: the monitor rests
    kPowerCut,        // the power was cut, or something other than the monitor reset the device
};
// A stable word: "offline", "button_returned", …
const char* EventName(EventKind kind);

struct Event {
    Ms at;
    EventKind kind;
    // Seconds of silence that the check found; 0 for events without a check.
    uint32_t silence = 0;
    // When a trace log shows the same step.
    std::optional<Ms> seen;
};

// How the application looks to the supervisor.
enum class State { kReady, kNotReady, kSilent, kOffline, kRecovery, kUpgrade };
const char* StateName(State state);

struct Period {
    Ms from;
    Ms to;
    State state;
    uint64_t beats;  // heartbeats in it
};

enum class End {
    kReboot,
    kRecovery,
    kPowerCut,
    kSettled,   // the application goes on beating: nothing more happens
    kInputEnd,  // script or log end here
    kLimit,     // longer than the replay may last
};
const char* EndName(End end);

// How much later a heartbeat could have come and still prevented the step: up to the step's check.
struct StepMargin {
    EventKind step;  // kOffline, kRestart, kReboot or kRecovery
    Ms later;        // after the heartbeat
};
struct BeatMargin {
    Ms at;                          // the heartbeat
    Ms silence;                     // since the one before, or since the supervisor's start
    std::vector<StepMargin> steps;  // the steps that would have followed without it, in order
};
// A step that was taken.
struct MissedBeat {
    EventKind step;
    Ms at;
    // How much too late the next heartbeat of this boot came. None: no heartbeat came.
    std::optional<Ms> late;
};
struct Margins {
    // The heartbeat that came closest to being too late, of those that the supervisor did not miss.
    std::optional<BeatMargin> closest;
    // Heartbeats that ended a silence, in their order.
    std::vector<BeatMargin> beats;
    std::vector<MissedBeat> missed;
};

struct Boot {
    int number = 1;
    bool marker = false;  // existed at the start
    Ms length = 0;
    End end = End::kInputEnd;
    std::vector<Event> events;
    std::vector<Period> periods;  // without gaps, from 0 to length
    Margins margins;
    // For a log: what is uncertain about this boot, in words.
    std::vector<std::string> notes;
};

struct Timeline {
    std::vector<Boot> boots;
    // The boot that would follow the last one is like this one, and so on for ever.
    std::optional<int> repeats;
    // For a trace log: how it differs from the replay, in words.
    std::vector<std::string> differences;
};

// "1:35", "1:02:03", with tenths if it has any: "0:02.5".
std::string TimeText(Ms time);
// "95 s", "2.5 s", "186 s", "13 min 10 s", "2 h".
std::string SpanText(Ms span);
// What an event means, in words: "offline: 6 s of silence; …".
std::string EventText(const Event& event);
// How the time line ends, in words.
std::string ResultText(const Timeline& timeline);

}  // namespace kvtool::ladder
