// A time line as JSON; docs/kvtool-json.md describes it.
#pragma once

#include "tools/base/json.h"
#include "tools/ladder/timeline.h"

namespace kvtool::ladder {

// `margins`: with the keys of --what-if.
Json TimelineJson(const Timeline& timeline, bool margins);

}  // namespace kvtool::ladder
