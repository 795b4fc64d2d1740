// Prints a time line of the supervisor as text.
#pragma once

#include <ostream>

#include "tools/ladder/timeline.h"

namespace kvtool {

// Lines of at most `width` characters, at least 60. `margins`: also what --what-if shows.
void PrintTimeline(std::ostream& out, const ladder::Timeline& timeline, bool margins, size_t width);

}  // namespace kvtool
