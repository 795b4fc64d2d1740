// Prints a time line of the supervisor as text.
#pragma once

#include <ostream>

#include "tools/ladder/timeline.h"

namespace kvtool {

// Cuts the bands, the events and the notes to `width` characters, at least 60. Other lines may be
// longer. `margins`: also what --what-if shows.
void PrintTimeline(std::ostream& out, const ladder::Timeline& timeline, bool margins, size_t width);

}  // namespace kvtool
