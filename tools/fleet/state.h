// What a device goes through in a fleet run. Pure: no input, no output, no clock.
#pragma once

#include <string>

namespace kvtool::fleet {

enum class State {
    kPlanned,     // in the plan; nothing was done
    kConnecting,  // about to connect and ask who it is
    kUploading,   // about to send the package
    kFinishing,   // about to send the trailer: from here on the device may accept
    kAccepted,    // the device has accepted; it goes on by itself
    kLooking,     // about to look at a device that an earlier run left in doubt
    kDone,        // seen alive
    kFailed,
};

// The word that stands in the journal.
const char* StateName(State state);
// False: no such word.
bool ParseState(const std::string& name, State* state);

// Whether a device may go from one state to the other.
bool MayFollow(State from, State to);

// What is known of a device. `reached` is the furthest that its latest attempt has come, which
// tells how a failed device or an interrupted one was left.
struct Progress {
    State state = State::kPlanned;
    State reached = State::kPlanned;  // up to kAccepted
    int attempts = 0;

    // Throws std::logic_error when the device may not go there.
    void Enter(State next);
    bool Over() const { return state == State::kDone || state == State::kFailed; }
};

// What a later run does about a device.
enum class Next {
    kUpgrade,  // it has not accepted anything
    kLook,     // it may have accepted, or has: look what became of it
    kNothing,  // done
};
Next NextFor(const Progress& progress);

// How a device is left whose latest attempt came so far, in words.
const char* LeftText(State reached);

}  // namespace kvtool::fleet
