// Allows only one upgrade of a device at a time, even by several kvtool processes.
#pragma once

#include <string>

#include "common/kv_raii.h"

namespace kvtool {

// Held until the object is destroyed or the process ends in any way. The lock is advisory and works
// among the processes of one user in one network namespace that use the same folder. The files are
// in $XDG_RUNTIME_DIR/kvtool, or in /tmp/kvtool-UID without that variable.
class DeviceLock {
  public:
    // `mac` as in "AA:BB:CC:DD:EE:FF". Does not wait. Throws ToolError(kBusy), which names the
    // holder, if the lock is taken. Throws ToolError(kInternal) if the folder or the file cannot be
    // used.
    explicit DeviceLock(const std::string& mac);

  private:
    UniqueFd fd_;
};

}  // namespace kvtool
