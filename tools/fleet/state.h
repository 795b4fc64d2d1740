// The states of a device in a fleet run. Does no input or output and reads no clock.
#pragma once

#include <string>

namespace kvtool::fleet {

enum class State {
    kPlanned,     // in the plan; nothing has been done yet
    kConnecting,  // about to connect and ask for its identity
    kUploading,   // about to send the package
    kFinishing,   // about to send the trailer; from now on the device may accept
    kAccepted,    // the device has accepted and continues by itself
    kLooking,     // about to look at a device that has accepted or may have, in an earlier run
    kDone,        // seen alive
    kFailed,
};

// The word for it in the journal.
const char* StateName(State state);
// Returns false if there is no such word.
bool ParseState(const std::string& name, State* state);

// Whether a device may go from one state to the other.
bool MayFollow(State from, State to);

// What is known of a device. `reached` is the last state that its latest attempt reached. It shows
// how a failed or interrupted attempt left the device.
struct Progress {
    State state = State::kPlanned;
    State reached = State::kPlanned;  // up to kAccepted
    int attempts = 0;

    // Throws std::logic_error if the device may not enter that state now.
    void Enter(State next);
    bool Over() const { return state == State::kDone || state == State::kFailed; }
};

// What a later run does with a device.
enum class Next {
    kUpgrade,  // it has not accepted anything
    kLook,     // it has accepted, or may have: find out what became of it
    kNothing,  // done
};
Next NextFor(const Progress& progress);

// How an attempt that came this far leaves the device, in words.
const char* LeftText(State reached);

}  // namespace kvtool::fleet
