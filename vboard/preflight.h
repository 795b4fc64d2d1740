// Checks what the host must have. Throws std::runtime_error with one sentence for what is missing.
#pragma once

#include <string>

namespace vboard {

// Checks for the programs, for what an accelerated clock needs, and for /dev/fuse.
void CheckHost(bool wifi, int speed);

// Path of the library that accelerates the clock of a program that preloads it.
std::string ClockLibrary();

// Makes an ordinary user root in a new user namespace. Does nothing for root. Call it while the
// process has one thread.
void BecomeRoot();

}  // namespace vboard
