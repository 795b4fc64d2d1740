// Replays the supervisor's monitor with the device's own decisions (main/kv_monitor_decision.h).
#pragma once

#include "tools/ladder/application.h"
#include "tools/ladder/timeline.h"

namespace kvtool::ladder {

struct ReplayOptions {
    // The longest time to replay, all boots together.
    Ms limit = Ms{24} * 60 * 60 * 1000;
    // Also find out how late heartbeats could have come.
    bool margins = false;
};

// The checks come at whole multiples of the check period, and heartbeats that arrive together with
// a check come before it. A device's clock has another phase, so its steps may come up to one check
// period earlier or later. Commands take no time, except a restart's wait before startapp.sh.
// Throws ToolError(kInterrupted).
Timeline Replay(Application* application, const ReplayOptions& options);

}  // namespace kvtool::ladder
