// Exit codes of kvtool and the exception that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace kvtool {

// Documented in docs/kvtool.md; scripts depend on the numbers.
enum class ExitCode : int {
    kDone = 0,
    kInternal = 1,
    kDifferent = 1,  // of commands that compare; these use 2 for any trouble
    kUsage = 2,
    kRefused = 3,         // file unusable, or the device would refuse it
    kUnreachable = 4,     // nothing found, or no connection
    kBadReply = 5,        // the device broke the protocol or failed
    kLost = 6,            // the connection broke or stalled
    kBusy = 7,            // an upgrade is under way, according to the device or another kvtool
    kNoVerdict = 8,       // everything was sent, but the device gave no answer
    kBackInRecovery = 9,  // accepted; the device restarted into recovery mode
    kNeverLeft = 10,      // accepted; the device was not seen to leave recovery mode
    kNoReply = 11,        // connected, but a request got no answer in time
    kNotSeenAlive = 12,   // accepted; left recovery mode, but was not seen alive
    kSomeFailed = 13,     // not all devices of a fleet are done; each has a code of its own
    kInterrupted = 130,
};

// A failure that ends the command. what() tells the user why.
class ToolError : public std::runtime_error {
  public:
    ToolError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode Code() const { return code_; }

  private:
    ExitCode code_;
};

}  // namespace kvtool
