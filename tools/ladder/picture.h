// A time line as an SVG picture.
#pragma once

#include <string>

#include "tools/ladder/timeline.h"

namespace kvtool::ladder {

// A picture without references to anything outside it, for light and dark pages. The same time line
// gives the same bytes. `title` must be safe to print.
std::string Picture(const Timeline& timeline, const std::string& title);

}  // namespace kvtool::ladder
