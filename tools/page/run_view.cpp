#include "tools/page/run_view.h"

#include "mini/kv_mini_frame.h"
#include "tools/fleet/report.h"

namespace kvtool::page {

using fleet::Member;
using fleet::State;
using fleet::TrackedMember;

namespace {

constexpr Millis kEvery{250};

Json TimeOrNull(std::optional<double> seconds) {
    return seconds ? Json(fleet::TimeText(*seconds)) : Json();
}

Json SecondsOrNull(double seconds) {
    return seconds > 0 ? Json(seconds) : Json();
}

Json ViewJson(const TrackedMember& row) {
    const Member& member = row.member;
    const bool failed = member.progress.state == State::kFailed;
    Json json = fleet::MemberJson(member);
    json["phase_started"] =
        member.history.empty() ? Json() : TimeOrNull(member.history.back().second);
    json["last"] = row.last;
    json["may_retry"] = failed && fleet::MayRetry(member);
    json["not_begun"] = member.progress.state == State::kPlanned;
    return json;
}

}  // namespace

RunView::RunView(RunFacts facts, Model* model, const Interrupt* stopping)
    : facts_(std::move(facts)),
      model_(model),
      stopping_(stopping),
      tracker_(facts_.package.size + kv::kMd5TrailerSize) {
    model_->ClearMembers();
}

void RunView::ShowMember(size_t member) {
    model_->SetMember(member, ViewJson(tracker_.Rows()[member]));
    ShowProgress(member);
}

void RunView::ShowProgress(size_t member) {
    const TrackedMember& row = tracker_.Rows()[member];
    const uint64_t total = facts_.package.size + kv::kMd5TrailerSize;
    const bool sent = row.member.progress.reached >= State::kFinishing;
    const bool uploads = row.member.progress.state == State::kUploading;
    model_->SetProgress(member, {{"bytes_acknowledged", sent ? total : row.upload.acknowledged},
                                 {"bytes_total", total},
                                 {"rate", uploads ? static_cast<uint64_t>(row.rate.Rate()) : 0},
                                 {"seconds_left", SecondsOrNull(fleet::SecondsLeft(row))}});
}

void RunView::Changed(size_t member, const Member& what) {
    const std::lock_guard<std::mutex> guard(mutex_);
    tracker_.Changed(member, what);
    ShowMember(member);
}

void RunView::Progress(size_t member, const UploadProgress& progress) {
    const std::lock_guard<std::mutex> guard(mutex_);
    tracker_.Progress(member, progress);
    shown_.resize(tracker_.Rows().size());
    const Clock::time_point now = Clock::now();
    if (now - shown_[member] >= kEvery || progress.acknowledged == progress.total) {
        shown_[member] = now;
        ShowProgress(member);
    }
}

void RunView::Line(size_t member, const std::string& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    tracker_.Line(member, text);
    ShowMember(member);
}

void RunView::Note(const std::string& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    model_->Note(text);
}

// The page shows the reason as part of the run.
void RunView::Stopping(const std::string& why) {
    const std::lock_guard<std::mutex> guard(mutex_);
    stopped_ = why;
    model_->SetRun(RunJsonLocked());
}

void RunView::Tick() {
    const std::lock_guard<std::mutex> guard(mutex_);
    const Clock::time_point now = Clock::now();
    if (now - runShown_ >= kEvery) {
        runShown_ = now;
        tracker_.Measure(now);
        model_->SetRun(RunJsonLocked());
    }
}

void RunView::End(std::optional<double> ended, std::optional<int> code) {
    const std::lock_guard<std::mutex> guard(mutex_);
    over_ = true;
    ended_ = ended;
    code_ = code;
    model_->SetRun(RunJsonLocked());
}

Flying RunView::Now() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return {tracker_.Rows(), tracker_.Total(Clock::now())};
}

Json RunView::RunJson() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return RunJsonLocked();
}

Json RunView::RunJsonLocked() const {
    const fleet::RunTotal total = tracker_.Total(Clock::now());
    const bool stopping = stopping_ != nullptr && stopping_->Raised();
    return {{"id", facts_.id},
            {"state", over_                           ? "ended"
                      : stopping || !stopped_.empty() ? "stopping"
                                                      : "running"},
            {"started", fleet::TimeText(facts_.started)},
            {"ended", TimeOrNull(ended_)},
            {"package", fleet::PackageNameJson(facts_.package)},
            {"jobs", facts_.jobs},
            {"exit_code", code_ ? Json(*code_) : Json()},
            {"done", total.done},
            {"failed", total.failed},
            {"open", total.waiting + total.underWay},
            {"under_way", over_ ? 0 : total.underWay},
            {"bytes_acknowledged", total.sent},
            {"bytes_total", total.size},
            {"rate", static_cast<uint64_t>(over_ ? 0 : total.rate)},
            {"seconds_left", over_ ? Json() : SecondsOrNull(total.secondsLeft)},
            {"stopped", stopped_}};
}

}  // namespace kvtool::page
