// One upgrade a device at a time, also when several kvtool processes run.
#pragma once

#include <string>

#include "common/kv_raii.h"

namespace kvtool {

// Held until it goes, or until the process ends in whatever way. Advisory, among the processes of
// one user in one network namespace: the files lie in $XDG_RUNTIME_DIR/kvtool, or /tmp/kvtool-UID
// without that variable.
class DeviceLock {
  public:
    // `mac` as in "AA:BB:CC:DD:EE:FF". Does not wait. Throws ToolError: kBusy, naming the holder,
    // when somebody holds it; kInternal when the folder or the file cannot be used.
    explicit DeviceLock(const std::string& mac);

  private:
    UniqueFd fd_;
};

}  // namespace kvtool
