// The short commands: they send requests to the runner or access the flash files.
#pragma once

#include <string>
#include <vector>

#include "vboard/state.h"

namespace vboard {

void ShowStatus(const StateDir& state, bool asJson);
void ShowOperations(const StateDir& state, bool asJson);

struct FaultOptions {
    std::string device;
    std::string operation;
    std::string errorName;  // "EIO"; empty with shortBytes
    uint32_t shortBytes = 0;
    uint32_t skip = 0;
    uint32_t at = 0;  // the first one to fail, counted from 1; 0: as `skip` says
    uint32_t count = 1;
    uint64_t after = 0;   // device "power": the chip's step after which the power fails,
    uint64_t inside = 0;  // or inside which; 0: not given
    std::string half = "first";
};
void AddFault(const StateDir& state, const FaultOptions& options);

// Sets how the stand-in application behaves from its next heartbeat on, whether a board runs or
// not.
void SetApplication(const StateDir& state, const std::string& mode, unsigned seconds);

// Both work whether a board runs or not. Writing fills the rest of the partition with 0xFF; a
// partition without a file is created with the size that `layout` gives it.
void ReadFlash(const StateDir& state, const std::string& mtd, const std::string& file);
void WriteFlash(const StateDir& state, const std::string& mtd, const std::string& file,
                const std::string& layout, uint32_t eraseBlock);

constexpr double kLongestPress = 86400;
// Presses and releases the button in turn, for the given seconds each, 0 to kLongestPress. The
// button is released at the end, and also when this process is killed.
void Press(const StateDir& state, const std::vector<double>& seconds);

// Cuts the power for a moment. Returns when the next boot has started its program.
void Reset(const StateDir& state);
// "off" cuts the power and returns when no process of the board is left. "on" returns when the next
// boot has started its program.
void SetPower(const StateDir& state, const std::string& action);
// Returns when the runner has ended.
void Stop(const StateDir& state);
// Sends a request whose reply does not matter: "ap", "link".
void Send(const StateDir& state, const std::string& command, const std::string& action);

}  // namespace vboard
