// What a view shows of a run: the latest about each device, and the totals.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/device/rate_meter.h"
#include "tools/fleet/runner.h"

namespace kvtool::fleet {

struct TrackedMember {
    Member member;
    UploadProgress upload;
    RateMeter rate;
    std::string last;         // the latest message about it
    Clock::time_point since;  // when it entered its state
};

struct RunTotal {
    size_t done = 0;
    size_t failed = 0;
    size_t underWay = 0;
    size_t waiting = 0;
    uint64_t sent = 0;    // bytes acknowledged by all devices that have not failed
    uint64_t size = 0;    // bytes to send to these devices
    double rate = 0;      // bytes a second over all uploads; 0: not known
    double followed = 0;  // average seconds from acceptance to being seen alive; 0: none seen yet
    double secondsLeft = 0;  // 0: not known
};

bool UnderWay(const Member& member);
// Seconds that the upload still needs at its present rate; 0: not known.
double SecondsLeft(const TrackedMember& row);

// Takes what a RunListener is told, under the same rules. Does no output.
class Tracker {
  public:
    // `streamSize`: bytes of one upload.
    explicit Tracker(uint64_t streamSize) : streamSize_(streamSize) {}

    void Changed(size_t member, const Member& what);
    void Progress(size_t member, const UploadProgress& progress);
    void Line(size_t member, const std::string& text) { Row(member).last = text; }
    // Measures the rate of all uploads together. Call it a few times a second.
    void Measure(Clock::time_point now) { rate_.Add(Since(start_, now), moved_); }

    const std::vector<TrackedMember>& Rows() const { return rows_; }
    RunTotal Total(Clock::time_point now) const;

  private:
    static double Since(Clock::time_point from, Clock::time_point to) {
        return std::chrono::duration<double>(to - from).count();
    }
    TrackedMember& Row(size_t member);

    uint64_t streamSize_;
    std::vector<TrackedMember> rows_;
    Clock::time_point start_ = Clock::now();
    uint64_t moved_ = 0;  // bytes acknowledged in this run, failed uploads included
    RateMeter rate_;
    double followedSum_ = 0;
    size_t followedCount_ = 0;
};

}  // namespace kvtool::fleet
