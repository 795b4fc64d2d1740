// The rate of an upload.
#pragma once

#include <cstdint>
#include <deque>

namespace kvtool {

// The rate over the last seconds, so that it follows the speed of the link.
class RateMeter {
  public:
    void Add(double seconds, uint64_t bytes);
    // Bytes per second; 0 while there is too little data.
    double Rate() const;

  private:
    struct Sample {
        double seconds;
        uint64_t bytes;
    };
    std::deque<Sample> samples_;
};

}  // namespace kvtool
