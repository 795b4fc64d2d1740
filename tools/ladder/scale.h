// Places the times of a boot on a picture.
#pragma once

#include <utility>
#include <vector>

#include "tools/ladder/timeline.h"

namespace kvtool::ladder {

// Where the times of one boot are drawn. Long stretches without events are shortened.
class Scale {
  public:
    explicit Scale(const Boot& boot);

    // Milliseconds that the whole boot takes on the picture.
    Ms Drawn() const { return drawn_.back(); }
    double Place(Ms at) const;
    // The shortened stretches.
    std::vector<std::pair<Ms, Ms>> Breaks() const;

  private:
    std::vector<Ms> times_;
    std::vector<Ms> drawn_;
};

}  // namespace kvtool::ladder
