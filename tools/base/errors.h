// Exit codes of kvtool and the exception that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace kvtool {

// Documented in docs/kvtool.md; scripts depend on the numbers.
enum class ExitCode : int {
    kDone = 0,
    kInternal = 1,
    kDifferent = 1,  // of the commands that compare, which end with 2 for any trouble
    kUsage = 2,
    kRefused = 3,         // file unusable, or refused here because the device would refuse it
    kUnreachable = 4,     // nothing found, or no connection
    kBadReply = 5,        // the device answered, but not as the protocol says
    kLost = 6,            // the connection broke or stalled
    kBusy = 7,            // an upgrade of the device is under way, as it says or another kvtool
    kNoVerdict = 8,       // everything was sent, the device gave no answer
    kBackInRecovery = 9,  // accepted; the device restarted into recovery mode
    kNeverLeft = 10,      // accepted; the device was never seen to leave recovery mode
    kNoReply = 11,        // connected, but a request got no answer in time
    kNotSeenAlive = 12,   // accepted; left recovery mode and was not seen alive as expected
    kSomeFailed = 13,     // of a fleet: not every device was seen alive; each has its own code
    kInterrupted = 130,
};

// A failure that ends the command. what() is one line for the technician.
class ToolError : public std::runtime_error {
  public:
    ToolError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode Code() const { return code_; }

  private:
    ExitCode code_;
};

}  // namespace kvtool
