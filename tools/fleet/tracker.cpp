#include "tools/fleet/tracker.h"

#include <algorithm>

namespace kvtool::fleet {

bool UnderWay(const Member& member) {
    return member.progress.state != State::kPlanned && !member.progress.Over();
}

double SecondsLeft(const TrackedMember& row) {
    const double rate = row.rate.Rate();
    const bool uploads = row.member.progress.state == State::kUploading && rate > 0;
    return uploads ? static_cast<double>(row.upload.total - row.upload.acknowledged) / rate : 0;
}

TrackedMember& Tracker::Row(size_t member) {
    if (rows_.size() <= member) {
        rows_.resize(member + 1);
    }
    return rows_[member];
}

void Tracker::Changed(size_t member, const Member& what) {
    TrackedMember& row = Row(member);
    const Clock::time_point now = Clock::now();
    const State state = what.progress.state;
    if (state == State::kDone && row.member.progress.state == State::kAccepted) {
        followedSum_ += Since(row.since, now);
        ++followedCount_;
    }
    if (state == State::kUploading) {
        row.upload = UploadProgress();
        row.rate = RateMeter();
    }
    row.member = what;
    row.since = now;
}

void Tracker::Progress(size_t member, const UploadProgress& progress) {
    TrackedMember& row = Row(member);
    moved_ += progress.acknowledged - std::min(progress.acknowledged, row.upload.acknowledged);
    row.upload = progress;
    row.rate.Add(progress.seconds, progress.acknowledged);
}

RunTotal Tracker::Total(Clock::time_point now) const {
    RunTotal total;
    total.rate = rate_.Rate();
    total.followed = followedCount_ > 0 ? followedSum_ / static_cast<double>(followedCount_) : 0;
    double left = 0;  // of the devices that kvtool already follows
    for (const TrackedMember& row : rows_) {
        const State state = row.member.progress.state;
        if (state == State::kDone) {
            ++total.done;
        } else if (state == State::kFailed) {
            ++total.failed;
            continue;
        } else {
            ++(state == State::kPlanned ? total.waiting : total.underWay);
        }
        const bool sent = state == State::kDone || row.member.progress.reached >= State::kFinishing;
        total.size += streamSize_;
        total.sent += sent ? streamSize_ : row.upload.acknowledged;
        left = state == State::kAccepted ? std::max(left, total.followed - Since(row.since, now))
                                         : left;
    }
    const auto rest = static_cast<double>(total.size - std::min(total.sent, total.size));
    if (rest > 0) {
        // The first bytes of an upload are slow, so they are no measure of the rest.
        const bool known = total.rate > 0 && total.sent * 100 >= total.size;
        total.secondsLeft = known ? rest / total.rate + total.followed : 0;
    } else {
        total.secondsLeft = left;
    }
    return total;
}

}  // namespace kvtool::fleet
