#include "tools/ladder/scale.h"

#include <algorithm>

namespace kvtool::ladder {

namespace {

// A time without events that is longer than kLongStretch is drawn as long as kShortened.
constexpr Ms kLongStretch = 240'000;
constexpr Ms kShortened = 60'000;

}  // namespace

Scale::Scale(const Boot& boot) : times_({0, boot.length}) {
    for (const Period& period : boot.periods) {
        times_.push_back(period.from);
        times_.push_back(period.to);
    }
    for (const Event& event : boot.events) {
        times_.push_back(event.at);
    }
    std::sort(times_.begin(), times_.end());
    times_.erase(std::unique(times_.begin(), times_.end()), times_.end());
    drawn_.push_back(0);
    for (size_t i = 1; i < times_.size(); ++i) {
        const Ms stretch = times_[i] - times_[i - 1];
        drawn_.push_back(drawn_.back() + (stretch > kLongStretch ? kShortened : stretch));
    }
}

double Scale::Place(Ms at) const {
    const auto next = std::upper_bound(times_.begin(), times_.end(), at);
    if (next == times_.end()) {
        return static_cast<double>(drawn_.back());
    }
    const auto i = static_cast<size_t>(next - times_.begin());
    if (i == 0) {
        return 0;
    }
    const double share =
        static_cast<double>(at - times_[i - 1]) / static_cast<double>(times_[i] - times_[i - 1]);
    return static_cast<double>(drawn_[i - 1]) +
           share * static_cast<double>(drawn_[i] - drawn_[i - 1]);
}

std::vector<std::pair<Ms, Ms>> Scale::Breaks() const {
    std::vector<std::pair<Ms, Ms>> breaks;
    for (size_t i = 1; i < times_.size(); ++i) {
        if (times_[i] - times_[i - 1] > kLongStretch) {
            breaks.emplace_back(times_[i - 1], times_[i]);
        }
    }
    return breaks;
}

}  // namespace kvtool::ladder
