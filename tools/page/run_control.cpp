#include "tools/page/run_control.h"

#include <algorithm>
#include <chrono>
#include <set>

#include "tools/base/errors.h"
#include "tools/fleet/report.h"
#include "tools/fleet/runner.h"

namespace kvtool::page {

using fleet::Member;
using fleet::Next;
using fleet::NextFor;
using fleet::State;

namespace {

// Time to listen for the devices of a plan.
constexpr Millis kPlanSearch{2000};

double SecondsNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

const Member* FindMember(const std::vector<Member>& members, const std::string& id) {
    const auto found = std::find_if(members.begin(), members.end(), [&id](const Member& member) {
        return member.id == id || member.mac == id;
    });
    return found == members.end() ? nullptr : &*found;
}

}  // namespace

RunControl::RunControl(const RunSettings& settings, Archive* archive, Model* model)
    : settings_(settings), archive_(archive), model_(model) {
    fleet::JournalContents contents = archive_->Read();
    runs_ = contents.runs;
    if (runs_ == 0) {
        return;
    }
    journalMd5_ = contents.package.md5;
    view_ = std::make_shared<RunView>(RunFacts{runs_, contents.package, 0, contents.started},
                                      model_, nullptr);
    for (size_t i = 0; i < contents.members.size(); ++i) {
        view_->Changed(i, contents.members[i]);
    }
    view_->End(contents.ended, contents.exitCode);
    members_ = std::move(contents.members);
    if (std::optional<Bytes> bytes = archive_->KeptPackage(journalMd5_)) {
        // It was trusted when its run began. Inspect judges it again, because the trusted key may
        // be another one now. The archive keeps no detached signature, so one must be given again.
        SetPackage(Inspect(contents.package.file, std::move(*bytes), settings_.layout,
                           settings_.trustedKey));
    }
}

RunControl::~RunControl() {
    Abandon();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void RunControl::SetPackage(PackagePtr package) {
    const std::lock_guard<std::mutex> guard(mutex_);
    TakePackage(std::move(package));
}

bool RunControl::ReplacePackage(const PackagePtr& from, PackagePtr to) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const bool same = package_ == from;
    if (same) {
        TakePackage(std::move(to));
    }
    return same;
}

// The caller holds the mutex.
void RunControl::TakePackage(PackagePtr package) {
    package_ = std::move(package);
    plan_.reset();
    model_->SetPlan(nullptr);
    model_->SetPackage(package_ ? package_->json : Json());
}

PackagePtr RunControl::Package() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return package_;
}

Json RunControl::PlanFor(const Json& request) {
    return MakePlan(Which::kNamed, request);
}

Json RunControl::PlanResume(const Json& request) {
    return MakePlan(Which::kOpen, request);
}

Json RunControl::PlanRetry(const Json& request) {
    return MakePlan(Which::kFailed, request);
}

// The caller holds the mutex, here and in the next two.
bool RunControl::FitsJournal(const PlanOptions& options) const {
    return package_->name.md5 == journalMd5_ && !options.again;
}

void RunControl::CheckMayPlan(const PlanOptions& options) const {
    if (flying_) {
        throw HttpError(409, "a run is under way: wait for its end, or stop it");
    }
    if (planning_) {
        throw HttpError(409, "another plan is being made");
    }
    if (!package_) {
        throw HttpError(409, "there is no package yet");
    }
    const std::string objection = Objection(*package_, options.force);
    if (!objection.empty()) {
        throw HttpError(422, objection);
    }
}

std::vector<Member> RunControl::KnownDevices(Which which, const PlanOptions& options,
                                             std::vector<std::string>* hosts) const {
    std::vector<Member> known;
    if (which != Which::kNamed) {
        if (!FitsJournal(options)) {
            throw HttpError(409, "the journal has no run with this package");
        }
        std::copy_if(members_.begin(), members_.end(), std::back_inserter(known),
                     [which](const Member& member) {
                         const bool failed = member.progress.state == State::kFailed;
                         return which == Which::kFailed
                                    ? failed && fleet::MayRetry(member)
                                    : NextFor(member.progress) != Next::kNothing;
                     });
        if (known.empty()) {
            throw HttpError(409, "there is no device to continue with");
        }
        return known;
    }
    for (const std::string& device : options.devices) {
        // "MAC@ADDRESS": another device has this MAC address or one of its IP addresses.
        const std::string id = device.substr(0, device.find('@'));
        const Member* const member = FitsJournal(options) ? FindMember(members_, id) : nullptr;
        if (member != nullptr) {
            known.push_back(*member);
        } else {
            hosts->push_back(id);
        }
    }
    if (known.empty() && hosts->empty()) {
        throw HttpError(400, "choose at least one device");
    }
    return known;
}

fleet::PlanRequest RunControl::RequestFor(const UploadedPackage& package,
                                          std::vector<std::string> hosts) const {
    fleet::PlanRequest request;
    request.hosts = std::move(hosts);
    request.discovery = settings_.discovery;
    request.discovery.timeout = kPlanSearch;
    request.times = settings_.times;
    request.ic = package.report.ic;
    request.sensor = package.report.sensor;
    return request;
}

Json RunControl::MakePlan(Which which, const Json& request) {
    auto ready = std::make_shared<Ready>();
    ready->options = ReadPlanOptions(request);
    std::vector<std::string> hosts;
    std::vector<Member> known;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        CheckMayPlan(ready->options);
        known = KnownDevices(which, ready->options, &hosts);
        ready->package = package_;
        ready->newJournal = !journalMd5_.empty() && !FitsJournal(ready->options);
        planning_ = true;
    }
    // Whatever happens, another plan may be made afterwards.
    const std::unique_ptr<bool, std::function<void(bool*)>> planned(
        &planning_, [this](bool* planning) {
            const std::lock_guard<std::mutex> guard(mutex_);
            *planning = false;
        });
    ready->plan = fleet::MakePlan(RequestFor(*ready->package, hosts), std::move(known));
    const std::lock_guard<std::mutex> guard(mutex_);
    if (package_ != ready->package) {
        throw HttpError(409, "the package has changed meanwhile");
    }
    ready->id = ++plans_;
    Json json = {{"schema", kJsonSchema}, {"id", ready->id}};
    json.update(fleet::PlanJson(ready->plan));
    json["options"] = ready->options.ToJson();
    json["new_journal"] = ready->newJournal;
    plan_ = ready;
    model_->SetPlan(json);
    return json;
}

std::vector<Member> RunControl::Record(const Ready& ready) {
    if (ready.newJournal) {
        archive_->BeginNew();
        members_.clear();
        journalMd5_.clear();
        runs_ = 0;
    }
    if (!archive_->KeptPackage(ready.package->name.md5)) {
        archive_->KeepPackage(ready.package->bytes);
    }
    std::vector<Member> all = members_;
    std::vector<Member> added;
    for (const Member& member : ready.plan.members) {
        if (FindMember(members_, member.id) == nullptr) {
            added.push_back(member);
        }
    }
    archive_->Writer()->WriteRun(runs_ + 1, ready.package->name, added);
    ++runs_;
    journalMd5_ = ready.package->name.md5;
    all.insert(all.end(), added.begin(), added.end());
    members_ = all;
    return all;
}

Json RunControl::Start(int plan) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (flying_ || ending_) {
        throw HttpError(409, flying_ ? "a run is under way" : "kvtool is about to end");
    }
    if (planning_) {
        // It would be a plan for the journal as it is before this run.
        throw HttpError(409, "another plan is being made");
    }
    if (!plan_ || plan_->id != plan) {
        throw HttpError(409, "this plan is no longer valid: make a new one");
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    const std::shared_ptr<Ready> ready = plan_;
    const std::vector<Member> all = Record(*ready);
    view_ = std::make_shared<RunView>(
        RunFacts{runs_, ready->package->name, ready->options.jobs, SecondsNow()}, model_,
        &ready->startNothing);
    for (size_t i = 0; i < all.size(); ++i) {
        view_->Changed(i, all[i]);
    }
    flying_ = ready;
    plan_.reset();
    model_->SetPlan(nullptr);
    model_->SetRun(view_->RunJson());
    Json json = {{"schema", kJsonSchema}};
    json.update(view_->RunJson());
    thread_ = std::thread([this, ready, all] { Fly(ready, all); });
    return json;
}

void RunControl::Fly(const std::shared_ptr<Ready>& ready, const std::vector<Member>& all) {
    const PlanOptions& options = ready->options;
    const fleet::RunRequest request{ready->package->bytes,
                                    ready->package->report.ic,
                                    ready->package->report.sensor,
                                    options.jobs,
                                    options.canary,
                                    options.maxFailures,
                                    options.retry,
                                    Millis(5000),
                                    settings_.times,
                                    settings_.discovery,
                                    {},
                                    options.expectPort,
                                    options.expectVersion,
                                    false,
                                    ready->startNothing,
                                    ready->stopNow};
    std::set<std::string> wanted;
    for (const Member& member : ready->plan.members) {
        wanted.insert(member.id);
    }
    fleet::Runner runner(request, archive_->Writer(), view_.get());
    for (const Member& member : all) {
        if (wanted.count(member.id) != 0) {
            runner.Add(member);
        } else {
            runner.AddIdle(member);
        }
    }
    runner.Run();
    const ExitCode code = runner.Result();
    try {
        archive_->Writer()->WriteEnd(runs_, code);
    } catch (const ToolError& error) {
        model_->Note(error.what());
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    members_ = runner.Members();
    flying_.reset();
    view_->End(SecondsNow(), static_cast<int>(code));
}

void RunControl::Stop() {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!flying_) {
        throw HttpError(409, "no run is under way");
    }
    flying_->startNothing.Raise();
}

void RunControl::StopForEnd() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ending_ = true;
    if (flying_) {
        flying_->startNothing.Raise();
    }
}

Flying RunControl::Now() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return flying_ ? view_->Now() : Flying();
}

bool RunControl::Running() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return flying_ != nullptr;
}

void RunControl::Abandon() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ending_ = true;
    if (flying_) {
        flying_->startNothing.Raise();
        flying_->stopNow.Raise();
    }
}

}  // namespace kvtool::page
