// Reads an argument from the memory of the process that made a request.
#pragma once

#include <optional>

#include "vboard/devices/device_file.h"
#include "vboard/devices/service_thread.h"

namespace vboard {

// The int that the caller's argument points to. The caller must be waiting for the reply. None if
// the int cannot be read, or if process `call.pid` is not waiting for this request; the latter
// prints a message on stderr. Blocks for a few milliseconds, or up to 100 when something is wrong.
std::optional<int> ReadCallerInt(const IoctlCall& call, const StopSignal& stop);

}  // namespace vboard
