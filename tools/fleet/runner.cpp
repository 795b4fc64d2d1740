#include "tools/fleet/runner.h"

#include <algorithm>
#include <thread>

#include "tools/fleet/attempt.h"

namespace kvtool::fleet {

namespace {

constexpr Millis kTick{100};

}  // namespace

bool MayRetry(const Member& member) {
    if (member.progress.reached >= State::kFinishing) {
        return false;
    }
    switch (member.code) {
        case ExitCode::kUnreachable:
        case ExitCode::kBadReply:
        case ExitCode::kLost:
        case ExitCode::kBusy:
        case ExitCode::kNoReply:
            return true;
        default:
            return false;
    }
}

void Runner::Tell(const std::function<void(RunListener*)>& call) {
    const std::lock_guard<std::mutex> guard(mutex_);
    call(listener_);
}

void Runner::Stop(const std::string& why) {
    if (stopped_.empty()) {
        stopped_ = why;
        listener_->Stopping(why);
    }
    changed_.notify_all();
}

// If the journal cannot announce a step, the step is not taken. What the device did by itself is
// kept in memory only. The journal then has an older state, and a later run looks at the device.
void Runner::Enter(size_t index, Member* member, State state) {
    member->progress.Enter(state);
    const bool ownStep =
        state != State::kAccepted && state != State::kDone && state != State::kFailed;
    std::unique_lock<std::mutex> lock(mutex_);
    if (journalTrouble_.empty()) {
        lock.unlock();
        std::string trouble;
        try {
            journal_->WriteState(member);
        } catch (const ToolError& error) {
            trouble = error.what();
        }
        lock.lock();
        if (!trouble.empty()) {
            journalTrouble_ = trouble;
            Stop("no more upgrades start: " + trouble);
        }
    }
    if (ownStep && !journalTrouble_.empty()) {
        member->progress = members_.at(index).progress;
        throw JournalLost(journalTrouble_);
    }
    members_.at(index) = *member;
    listener_->Changed(index, *member);
}

void Runner::Settle(size_t index, const Member& member) {
    const std::lock_guard<std::mutex> guard(mutex_);
    members_.at(index) = member;
}

bool Runner::Claim(size_t index, const std::string& mac) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto known = Known(mac);
    const bool free =
        known == members_.end() || known == members_.begin() + static_cast<ptrdiff_t>(index);
    if (free) {
        members_.at(index).mac = mac;
    }
    return free;
}

// A device whose upload was cut off still reads the bytes that had arrived. It would take them for
// the first bytes of the next upload.
Millis Runner::PauseBefore(const Member& member) const {
    return member.progress.reached == State::kUploading ? request_.retryPause : Millis(0);
}

// A device is in the queue at most once.
void Runner::Queue(size_t index, Millis pause) {
    if (std::none_of(waiting_.begin(), waiting_.end(),
                     [index](const Waiting& waiting) { return waiting.member == index; })) {
        waiting_.push_back({index, Clock::now() + pause});
        changed_.notify_all();
    }
}

std::vector<Member>::iterator Runner::Known(const std::string& id) {
    return std::find_if(members_.begin(), members_.end(), [&id](const Member& member) {
        return member.id == id || member.mac == id;
    });
}

void Runner::Add(Member added) {
    const bool refused = added.code == ExitCode::kRefused;
    const bool byThisRun = refused && added.progress.state == State::kPlanned;
    size_t index = 0;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        index = members_.size();
        members_.push_back(added);
        listener_->Changed(index, added);
        if (refused) {
            refused_.insert(index);
        }
        if (!byThisRun && NextFor(added.progress) != Next::kNothing) {
            Queue(index, PauseBefore(added));
        }
    }
    if (byThisRun) {
        Enter(index, &added, State::kFailed);
    }
}

void Runner::TryAgain(const std::string& id, const std::string& address) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto known = Known(id);
    if (known != members_.end() && known->progress.state == State::kFailed &&
        NextFor(known->progress) == Next::kUpgrade) {
        known->address = address;
        Queue(static_cast<size_t>(known - members_.begin()), PauseBefore(*known));
    }
}

void Runner::AddIdle(Member member) {
    const std::lock_guard<std::mutex> guard(mutex_);
    members_.push_back(std::move(member));
    listener_->Changed(members_.size() - 1, members_.back());
}

ExitCode Runner::Result() const {
    if (!journalTrouble_.empty()) {
        return ExitCode::kInternal;
    }
    const bool all = std::all_of(members_.begin(), members_.end(), [](const Member& member) {
        return member.progress.state == State::kDone;
    });
    const bool cutShort = request_.startNothing.Raised() && !all && !request_.keepOpen;
    if (request_.stopNow.Raised() || cutShort) {
        return ExitCode::kInterrupted;
    }
    return all ? ExitCode::kDone : ExitCode::kSomeFailed;
}

std::optional<Member> Runner::Find(const std::string& id) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto known = Known(id);
    return known == members_.end() ? std::nullopt : std::optional<Member>(*known);
}

// Devices that an earlier run saw alive count as canaries.
void Runner::ChooseCanaries() {
    auto done = static_cast<size_t>(
        std::count_if(members_.begin(), members_.end(),
                      [](const Member& member) { return member.progress.state == State::kDone; }));
    for (const Waiting& waiting : waiting_) {
        const bool fit = refused_.count(waiting.member) == 0;
        if (done + canaries_.size() < request_.canaries && fit) {
            canaries_[waiting.member] = false;
        }
    }
    if (canaries_.size() == waiting_.size()) {
        canaries_.clear();  // nobody would wait for them
    }
}

// Whether the member has to wait for the canaries. A look changes nothing, so it need not wait.
bool Runner::Held(size_t index) const {
    return !canaries_.empty() && canaries_.count(index) == 0 &&
           NextFor(members_[index].progress) == Next::kUpgrade;
}

std::optional<size_t> Runner::TakeWaiting(Clock::time_point* wake) {
    const Clock::time_point now = Clock::now();
    // TryAgain may have queued a device whose attempt was just beginning. That attempt may have
    // ended well since.
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(),
                                  [this](const Waiting& item) {
                                      return NextFor(members_[item.member].progress) ==
                                             Next::kNothing;
                                  }),
                   waiting_.end());
    for (auto item = waiting_.begin(); item != waiting_.end(); ++item) {
        if (Held(item->member) || underWay_.count(item->member) != 0) {
            continue;
        }
        if (item->notBefore <= now) {
            const size_t member = item->member;
            waiting_.erase(item);
            return member;
        }
        *wake = std::min(*wake, item->notBefore);
    }
    return std::nullopt;
}

// Waits for a member to work on. Returns nothing if there is nothing left to do.
std::optional<size_t> Runner::NextMember() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (!stopped_.empty()) {
            return std::nullopt;
        }
        Clock::time_point wake = Clock::now() + std::chrono::hours(1);
        if (const auto member = TakeWaiting(&wake)) {
            underWay_.insert(*member);
            return member;
        }
        if (waiting_.empty() && underWay_.empty() && !request_.keepOpen) {
            changed_.notify_all();
            return std::nullopt;
        }
        (void)changed_.wait_until(lock, wake);
    }
}

void Runner::Perform(size_t index) {
    Member member;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        member = members_[index];
    }
    Attempt attempt(this, index, member);
    if (NextFor(member.progress) == Next::kLook) {
        attempt.Look();
    } else {
        attempt.Upgrade();
    }
}

void Runner::ConcludeFailure(const Member& member, size_t index) {
    if (MayRetry(member) && retried_[index] < request_.retries) {
        ++retried_[index];
        Queue(index, request_.retryPause);
        listener_->Line(
            index, "next attempt in " + std::to_string(request_.retryPause.count() / 1000) + " s");
        return;
    }
    if (member.code == ExitCode::kRefused && refused_.count(index) != 0) {
        return;  // the plan said so
    }
    ++failures_;
    if (canaries_.count(index) != 0) {
        Stop("no more upgrades start: canary " + member.id + " was not seen alive");
    } else if (request_.maxFailures > 0 && failures_ >= request_.maxFailures) {
        Stop("no more upgrades start: " + std::to_string(failures_) + " failed");
    }
}

void Runner::Conclude(size_t index) {
    const std::lock_guard<std::mutex> guard(mutex_);
    underWay_.erase(index);
    const Member& member = members_[index];
    if (member.progress.state == State::kFailed) {
        ConcludeFailure(member, index);
    } else if (member.progress.state == State::kLooking) {
        Queue(index, Millis(0));
    } else if (canaries_.count(index) != 0) {
        canaries_[index] = true;
        if (std::all_of(canaries_.begin(), canaries_.end(),
                        [](const auto& canary) { return canary.second; })) {
            listener_->Note(std::to_string(canaries_.size()) + " seen alive; the others start");
            canaries_.clear();
        }
    }
    changed_.notify_all();
}

void Runner::Work() {
    const InterruptedBy interrupted(request_.stopNow);
    while (const auto index = NextMember()) {
        try {
            Perform(*index);
        } catch (const ToolError& error) {
            if (error.Code() != ExitCode::kInterrupted) {
                Tell([&](RunListener* listener) { listener->Line(*index, error.what()); });
            } else {
                const std::lock_guard<std::mutex> guard(mutex_);
                underWay_.erase(*index);
                changed_.notify_all();
                return;
            }
        }
        Conclude(*index);
    }
}

void Runner::Run() {
    size_t threads = request_.jobs;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        ChooseCanaries();
        threads = request_.keepOpen ? threads : std::min(threads, waiting_.size());
    }
    std::vector<std::thread> workers;
    size_t running = threads;
    for (size_t i = 0; i < threads; ++i) {
        workers.emplace_back([this, &running] {
            Work();
            const std::lock_guard<std::mutex> guard(mutex_);
            --running;
            changed_.notify_all();
        });
    }
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (running > 0) {
            (void)changed_.wait_for(lock, kTick);
            if (request_.startNothing.Raised()) {
                Stop("no more upgrades start: stop requested");
            }
            listener_->Tick();
        }
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
}

}  // namespace kvtool::fleet
