#include "tools/device/rate_meter.h"

namespace kvtool {

namespace {

constexpr double kWindow = 5.0;    // seconds over which the rate is measured
constexpr double kShortest = 0.5;  // seconds below which there is no rate yet

}  // namespace

void RateMeter::Add(double seconds, uint64_t bytes) {
    samples_.push_back({seconds, bytes});
    while (samples_.size() > 2 && samples_[1].seconds <= seconds - kWindow) {
        samples_.pop_front();
    }
}

double RateMeter::Rate() const {
    if (samples_.empty()) {
        return 0;
    }
    const Sample& first = samples_.front();
    const Sample& last = samples_.back();
    const double span = last.seconds - first.seconds;
    return span < kShortest ? 0 : static_cast<double>(last.bytes - first.bytes) / span;
}

}  // namespace kvtool
