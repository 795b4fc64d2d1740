#include "tools/fleet/state.h"

#include <array>
#include <cstddef>
#include <stdexcept>

namespace kvtool::fleet {

namespace {

constexpr std::array<const char*, 8> kNames = {"planned",  "connecting", "uploading", "finishing",
                                               "accepted", "looking",    "done",      "failed"};

}  // namespace

const char* StateName(State state) {
    return kNames.at(static_cast<size_t>(state));
}

bool ParseState(const std::string& name, State* state) {
    for (size_t i = 0; i < kNames.size(); ++i) {
        if (name == kNames.at(i)) {
            *state = static_cast<State>(i);
            return true;
        }
    }
    return false;
}

bool MayFollow(State from, State to) {
    switch (to) {
        case State::kPlanned:
            return false;
        case State::kConnecting:
            // Also after a failed or interrupted attempt, or a look that settled the doubt.
            return from != State::kFinishing && from != State::kAccepted && from != State::kDone;
        case State::kUploading:
            return from == State::kConnecting;
        case State::kFinishing:
            return from == State::kUploading;
        case State::kAccepted:
            return from == State::kFinishing;
        case State::kLooking:
            return from == State::kFinishing || from == State::kAccepted ||
                   from == State::kLooking || from == State::kFailed;
        case State::kDone:
            return from == State::kAccepted || from == State::kLooking;
        case State::kFailed:
            return from != State::kDone;
    }
    return false;
}

void Progress::Enter(State next) {
    // A device that may have accepted must be looked at first.
    const bool unseen =
        next == State::kConnecting && state != State::kLooking && NextFor(*this) != Next::kUpgrade;
    if (!MayFollow(state, next) || unseen) {
        throw std::logic_error(std::string("a device cannot go from ") + StateName(state) + " to " +
                               StateName(next));
    }
    if (next == State::kConnecting) {
        ++attempts;
    }
    if (next >= State::kConnecting && next <= State::kAccepted) {
        reached = next;
    }
    state = next;
}

Next NextFor(const Progress& progress) {
    if (progress.state == State::kDone) {
        return Next::kNothing;
    }
    return progress.reached >= State::kFinishing ? Next::kLook : Next::kUpgrade;
}

const char* LeftText(State reached) {
    switch (reached) {
        case State::kUploading:
            return "it has only part of the package, flashes nothing, and waits in recovery mode "
                   "for a new upgrade";
        case State::kFinishing:
            return "in doubt: the whole package may have been sent; if the device accepts it, it "
                   "flashes and restarts by itself, so do not switch it off";
        case State::kAccepted:
            return "it has accepted the package and continues by itself; do not switch it off";
        default:
            return "no part of the package was sent; it stays as it is";
    }
}

}  // namespace kvtool::fleet
