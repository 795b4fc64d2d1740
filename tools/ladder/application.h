// What the supervisor hears of the application: from a script or from a log.
#pragma once

#include <optional>
#include <string>

#include "tools/ladder/timeline.h"

namespace kvtool::ladder {

enum class SignalKind {
    kBeat,
    kUpgrade,   // the flash writer starts
    kPowerCut,  // ends the boot
    kNothing,   // nothing has happened up to here, so that an endless silence ends at the limit
    kEnd,       // nothing is known from here on
};

struct Signal {
    Ms at;
    SignalKind kind;
    bool ready = false;
};

// What a log shows, or a script presumes, about a boot besides the heartbeats.
struct BootFacts {
    std::optional<bool> marker;  // whether it existed; none: it is as the boot before left it
    bool restartSpent = false;   // the boot had its restart before its time 0
    bool recovery = false;       // no application is installed, or the debug marker existed
};

class Application {
  public:
    Application() = default;
    virtual ~Application() = default;
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // Begins the first boot, or the one that follows `before`. False: there is none.
    virtual bool NextBoot(const Boot* before, BootFacts* facts) = 0;
    // Boots with the same key have the same signals. Empty: no boot is like another.
    virtual std::string Key() const = 0;
    // The next signal of this boot, in the order of their times. None: silence for ever.
    virtual std::optional<Signal> Next() = 0;
    // Whether only heartbeats at the same interval follow, and how long it is.
    virtual std::optional<Ms> Settled() const = 0;
    // Whether the boot's signals end, or a power cut is among them. False if heartbeats or silence
    // go on for ever.
    virtual bool Finite() const = 0;
    // Says that startapp.sh runs at `at`. Returns whether that changes the signals after `at`. If
    // so, a later signal that Next has already returned does not come.
    virtual bool Restarted(Ms at) = 0;
};

}  // namespace kvtool::ladder
