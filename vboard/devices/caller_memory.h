// What a request leaves in the memory of the process that made it.
#pragma once

#include <optional>

#include "vboard/devices/device_file.h"
#include "vboard/devices/service_thread.h"

namespace vboard {

// The int that the caller's argument points to; none when it cannot be had, or when the process of
// that number is not the one that waits for this request (said on stderr). The caller must be
// waiting for the answer. Blocks for milliseconds at the most, 100 when something is wrong.
std::optional<int> ReadCallerInt(const IoctlCall& call, const StopSignal& stop);

}  // namespace vboard
