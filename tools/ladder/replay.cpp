#include "tools/ladder/replay.h"

#include <algorithm>
#include <map>

#include "main/kv_monitor_decision.h"
#include "tools/base/wait.h"

namespace kvtool::ladder {

namespace {

constexpr Ms kSecond = 1000;
constexpr Ms kCheckPeriod = kMonitorCheckPeriodMs;
// The last of a restart's commands before startapp.sh is "sleep 3"; the others take no time worth
// counting.
constexpr Ms kRestartWait = 3 * kSecond;
// How much of an endless state the time line shows.
constexpr Ms kTail = 30 * kSecond;

// The supervisor of one boot.
struct Supervisor {
    MonitoredProcess record = KV_MONITOR_NewRecord(0);
    bool marker = false;
    bool quiet = false;
    Ms nextCheck = kCheckPeriod;
    Ms busyUntil = 0;  // its loop runs a command until then

    Ms CheckTime() const { return std::max(nextCheck, busyUntil); }

    MonitorDecision Decide(Ms at, bool heartbeat, bool ready) {
        const auto now = static_cast<uint32_t>(at / kSecond);
        const MonitorDecision decision =
            KV_MONITOR_Decide(&record, {now, heartbeat, ready, quiet, marker});
        if (decision.removeMarker || decision.step == MonitorStep::kRecover) {
            marker = false;
        }
        if (decision.step == MonitorStep::kReboot) {
            marker = true;
        }
        if (decision.step == MonitorStep::kRecover) {
            quiet = true;
        }
        if (decision.step == MonitorStep::kRestart) {
            busyUntil = at + kRestartWait;
        }
        return decision;
    }

    // The check timer fires. Nothing if the check found no silence.
    std::optional<MonitorDecision> Check(Ms at) {
        // The timer keeps its phase unless it is more than a period late.
        nextCheck += kCheckPeriod;
        if (nextCheck < at) {
            nextCheck = at + kCheckPeriod;
        }
        if (!KV_MONITOR_IsSilent(record, static_cast<uint32_t>(at / kSecond))) {
            return std::nullopt;
        }
        return Decide(at, false, false);
    }
};

std::optional<EventKind> StepEvent(MonitorStep step) {
    switch (step) {
        case MonitorStep::kNone:
            break;
        case MonitorStep::kRestart:
            return EventKind::kRestart;
        case MonitorStep::kReboot:
            return EventKind::kReboot;
        case MonitorStep::kRecover:
            return EventKind::kRecovery;
    }
    return std::nullopt;
}

// The steps that would follow if no heartbeat came from `at` on; only the first one on request.
std::vector<StepMargin> StepsOfSilence(Supervisor supervisor, Ms at, bool onlyFirst) {
    std::vector<StepMargin> steps;
    for (bool over = supervisor.quiet; !over;) {
        const Ms now = supervisor.CheckTime();
        const std::optional<MonitorDecision> decision = supervisor.Check(now);
        if (!decision) {
            continue;
        }
        if (decision->startButton) {
            steps.push_back({EventKind::kOffline, now - at});
        }
        if (const std::optional<EventKind> step = StepEvent(decision->step)) {
            steps.push_back({*step, now - at});
            over = *step != EventKind::kRestart;
        }
        over = over || (onlyFirst && !steps.empty());
    }
    return steps;
}

bool IsBeating(State state) {
    return state == State::kReady || state == State::kNotReady;
}

// Collects the periods of one boot in their order.
class Periods {
  public:
    explicit Periods(std::vector<Period>* out) : out_(out) {}

    void Beat(Ms at, State state) {
        if (now_.state != state) {
            Enter(at, state);
        }
        ++now_.beats;
        lastBeat_ = at;
    }
    // A heartbeat that changes nothing.
    void Ignore() { ++now_.beats; }
    void Enter(Ms at, State state) {
        Close(at, IsBeating(now_.state) && !IsBeating(state));
        now_ = {at, at, state, 0};
    }
    // Ends the last period. Heartbeats that have ended leave a silence behind.
    void End(Ms at, bool goesOn) { Close(at, IsBeating(now_.state) && !goesOn); }

  private:
    void Close(Ms at, bool fellSilent) {
        now_.to = fellSilent ? lastBeat_ : at;
        Push(now_);
        if (fellSilent) {
            Push({lastBeat_, at, State::kSilent, 0});
        }
    }
    void Push(const Period& period) {
        if (period.to > period.from || period.beats > 0) {
            out_->push_back(period);
        }
    }

    std::vector<Period>* out_;
    Period now_{0, 0, State::kSilent, 0};
    Ms lastBeat_ = 0;
};

// Replays one boot.
class BootReplay {
  public:
    BootReplay(Application* application, bool margins, Ms limit, Boot* boot)
        : application_(application), margins_(margins), limit_(limit), boot_(boot) {}

    // *marker is the state before and after the boot.
    void Run(const BootFacts& facts, bool* marker);

  private:
    void Handle(const Signal& signal);
    void Beat(Ms at, bool ready);
    void Check(Ms at);
    void Rest(Ms at, EventKind kind, State state, uint32_t silence);
    void Restart(Ms at, uint32_t silence);
    void NoteMargins(Ms at);
    void NoteMissed(Ms at, EventKind step);
    void EndIfSettled(Ms at);
    void Finish(Ms at, End end);
    void Add(Ms at, EventKind kind, uint32_t silence = 0) {
        boot_->events.push_back({at, kind, silence, std::nullopt});
    }

    Application* application_;
    bool margins_;
    Ms limit_;
    Boot* boot_;
    Periods periods_{&boot_->periods};
    Supervisor supervisor_;
    std::optional<Signal> pending_;
    Ms lastBeat_ = 0;
    bool hasButton_ = false;  // the supervisor watches the button
    std::optional<Ms> settledSince_;
    bool over_ = false;
};

void BootReplay::Finish(Ms at, End end) {
    over_ = true;
    boot_->length = at;
    boot_->end = end;
    periods_.End(at, end == End::kSettled);
    // A power cut may come before the end of a restart.
    boot_->events.erase(std::remove_if(boot_->events.begin(), boot_->events.end(),
                                       [at](const Event& event) { return event.at > at; }),
                        boot_->events.end());
}

void BootReplay::NoteMargins(Ms at) {
    Margins& margins = boot_->margins;
    for (auto missed = margins.missed.rbegin(); missed != margins.missed.rend() && !missed->late;
         ++missed) {
        missed->late = at - missed->at;
    }
    const bool online = supervisor_.record.online != 0;
    BeatMargin margin{at, at - lastBeat_, StepsOfSilence(supervisor_, at, online)};
    if (!online) {
        margins.beats.push_back(std::move(margin));
    } else if (!margins.closest ||
               margin.steps.front().later < margins.closest->steps.front().later) {
        margins.closest = std::move(margin);
    }
}

void BootReplay::NoteMissed(Ms at, EventKind step) {
    if (margins_) {
        boot_->margins.missed.push_back({step, at, std::nullopt});
    }
}

void BootReplay::Beat(Ms at, bool ready) {
    if (supervisor_.quiet) {
        (void)supervisor_.Decide(at, true, ready);
        periods_.Ignore();
        return;
    }
    if (margins_) {
        NoteMargins(at);
    }
    const bool wasOnline = supervisor_.record.online != 0;
    const MonitorDecision decision = supervisor_.Decide(at, true, ready);
    periods_.Beat(at, ready ? State::kReady : State::kNotReady);
    lastBeat_ = at;
    if (!wasOnline) {
        Add(at, EventKind::kOnline);
    }
    if (decision.removeMarker) {
        Add(at, EventKind::kMarkerRemoved);
    }
    if (decision.stopButton && hasButton_) {
        Add(at, EventKind::kButtonReturned);
        hasButton_ = false;
    }
    EndIfSettled(at);
}

// Ends the boot once nothing new can follow.
void BootReplay::EndIfSettled(Ms at) {
    const std::optional<Ms> interval = application_->Settled();
    if (!interval || *interval > supervisor_.record.heartbeat_timeout * kSecond) {
        settledSince_.reset();
        return;
    }
    if (!settledSince_) {
        settledSince_ = at;
    }
    if (at - *settledSince_ >= kTail) {
        Finish(at, End::kSettled);
    }
}

// The monitor rests from now on.
void BootReplay::Rest(Ms at, EventKind kind, State state, uint32_t silence) {
    supervisor_.quiet = true;
    Add(at, kind, silence);
    periods_.Enter(at, state);
    if (!application_->Finite()) {
        Finish(at + kTail, End::kRecovery);
    }
}

void BootReplay::Restart(Ms at, uint32_t silence) {
    Add(at, EventKind::kRestart, silence);
    const Ms start = at + kRestartWait;
    Add(start, EventKind::kStarted);
    if (application_->Restarted(start) && (!pending_ || pending_->at > start)) {
        pending_ = application_->Next();
    }
}

void BootReplay::Check(Ms at) {
    const std::optional<MonitorDecision> decision = supervisor_.Check(at);
    if (!decision || !decision->logOffline) {
        return;
    }
    const uint32_t silence = decision->offTime;
    if (decision->startButton) {
        hasButton_ = true;
        NoteMissed(at, EventKind::kOffline);
        Add(at, EventKind::kOffline, silence);
        periods_.Enter(at, State::kOffline);
    }
    const std::optional<EventKind> step = StepEvent(decision->step);
    if (!step) {
        return;
    }
    NoteMissed(at, *step);
    if (*step == EventKind::kRestart) {
        Restart(at, silence);
    } else if (*step == EventKind::kRecovery) {
        Rest(at, *step, State::kRecovery, silence);
    } else {
        Add(at, *step, silence);
        Finish(at, End::kReboot);
    }
}

void BootReplay::Handle(const Signal& signal) {
    switch (signal.kind) {
        case SignalKind::kBeat:
            Beat(std::max(signal.at, supervisor_.busyUntil), signal.ready);
            break;
        case SignalKind::kUpgrade:
            Rest(signal.at, EventKind::kUpgrade, State::kUpgrade, 0);
            break;
        case SignalKind::kPowerCut:
            Add(signal.at, EventKind::kPowerCut);
            Finish(signal.at, End::kPowerCut);
            break;
        case SignalKind::kNothing:
            break;
        case SignalKind::kEnd:
            Finish(signal.at, supervisor_.quiet ? End::kRecovery : End::kInputEnd);
            break;
    }
}

void BootReplay::Run(const BootFacts& facts, bool* marker) {
    supervisor_.marker = boot_->marker = facts.marker.value_or(*marker);
    if (facts.restartSpent) {
        supervisor_.record.restart_budget = 0;
    }
    if (facts.recovery) {
        Rest(0, EventKind::kRecovery, State::kRecovery, 0);
    }
    pending_ = application_->Next();
    while (!over_) {
        ThrowIfInterrupted();
        const Ms check = supervisor_.CheckTime();
        // A heartbeat waits while the loop is busy. What else happens to the device does not.
        const bool waits = pending_ && pending_->kind == SignalKind::kBeat;
        const bool first = pending_ && (waits ? std::max(pending_->at, supervisor_.busyUntil)
                                              : pending_->at) <= check;
        if ((first ? pending_->at : check) > limit_) {
            Finish(limit_, End::kLimit);
        } else if (first) {
            const Signal signal = *pending_;
            pending_ = application_->Next();
            Handle(signal);
        } else {
            Check(check);
        }
    }
    *marker = supervisor_.marker;
}

}  // namespace

Timeline Replay(Application* application, const ReplayOptions& options) {
    Timeline timeline;
    std::map<std::pair<std::string, bool>, int> known;
    BootFacts facts;
    bool marker = false;
    Ms left = options.limit;
    while (
        application->NextBoot(timeline.boots.empty() ? nullptr : &timeline.boots.back(), &facts)) {
        const std::string key = application->Key();
        const int number = static_cast<int>(timeline.boots.size()) + 1;
        if (!key.empty()) {
            const auto [like, isNew] = known.emplace(std::make_pair(key, marker), number);
            if (!isNew) {
                timeline.repeats = like->second;
                break;
            }
        }
        Boot boot;
        boot.number = number;
        BootReplay(application, options.margins, left, &boot).Run(facts, &marker);
        left -= boot.length;
        timeline.boots.push_back(std::move(boot));
        if (timeline.boots.back().end == End::kLimit) {
            break;
        }
        facts = {};
    }
    return timeline;
}

}  // namespace kvtool::ladder
