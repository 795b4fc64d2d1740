// What the host must offer. Each lack is reported as one sentence, thrown as std::runtime_error.
#pragma once

#include <string>

namespace vboard {

// Programs of the host's packages, what an accelerated clock needs, and /dev/fuse.
void CheckHost(bool wifi, int speed);

// The library that accelerates the clock of a program that preloads it.
std::string ClockLibrary();

// For an ordinary user: makes the caller root in a user namespace of its own. To be called while
// the process has one thread. Nothing for root.
void BecomeRoot();

}  // namespace vboard
