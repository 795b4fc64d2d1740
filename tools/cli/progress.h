// The line that tells how far an upload is.
#pragma once

#include <deque>
#include <string>

#include "tools/device/upgrade_session.h"

namespace kvtool {

// The rate over the last seconds, so that it follows a link that becomes slower.
class RateMeter {
  public:
    void Add(double seconds, uint64_t bytes);
    // Bytes a second; 0 while there is too little to tell.
    double Rate() const;

  private:
    struct Sample {
        double seconds;
        uint64_t bytes;
    };
    std::deque<Sample> samples_;
};

// At most `columns` wide: what fits, the least important part left out first.
std::string ProgressText(const UploadProgress& progress, double rate, size_t columns);

}  // namespace kvtool
