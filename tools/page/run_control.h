// Plans and runs upgrades for the page, on the engine of `kvtool fleet`.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"
#include "tools/fleet/plan.h"
#include "tools/page/archive.h"
#include "tools/page/model.h"
#include "tools/page/plan_options.h"
#include "tools/page/run_view.h"
#include "tools/page/uploaded.h"

namespace kvtool::page {

struct RunSettings {
    DiscoveryRequest discovery;
    UpgradeTimes times;
    Layout layout = Layout::Default();
    std::string trustedKey;
};

// May be used on any thread. PlanFor, PlanResume, PlanRetry, Start and Stop throw HttpError(409) if
// they do not fit what is going on.
class RunControl {
  public:
    // Shows the run in the journal, if there is one, and the package kept beside it.
    RunControl(const RunSettings& settings, Archive* archive, Model* model);
    // Abandons what is under way and waits for its end.
    ~RunControl();
    RunControl(const RunControl&) = delete;
    RunControl& operator=(const RunControl&) = delete;

    // The package of the next plan; null: none. Withdraws the present plan.
    void SetPackage(PackagePtr package);
    PackagePtr Package();
    // The same if the package is still `from`. Returns whether it was.
    bool ReplacePackage(const PackagePtr& from, PackagePtr to);

    // Each makes a plan and returns it as JSON, after some seconds of searching: for the devices
    // that the request names; for those of the journal that are not done; for those that failed and
    // may be tried again. Throws HttpError: 400 for a request that makes no sense, 422 for a
    // package that must not be sent. Throws ToolError(kUnreachable) if this PC cannot search.
    Json PlanFor(const Json& request);
    Json PlanResume(const Json& request);
    Json PlanRetry(const Json& request);

    // Begins the plan with this number. Returns the run. Throws ToolError(kInternal) if the journal
    // or the package cannot be written.
    Json Start(int plan);
    // Starts no more upgrades; those under way go on.
    void Stop();
    // The same. Afterwards no other run begins.
    void StopForEnd();

    // The run that is under way; empty if there is none.
    Flying Now();
    // Ends the run without waiting for the upgrades under way.
    void Abandon();
    bool Running();

  private:
    // A plan and, once it has begun, its run.
    struct Ready {
        int id = 0;
        PlanOptions options;
        PackagePtr package;
        fleet::Plan plan;
        bool newJournal = false;
        Interrupt startNothing;
        Interrupt stopNow;
    };
    enum class Which { kNamed, kOpen, kFailed };

    void TakePackage(PackagePtr package);
    Json MakePlan(Which which, const Json& request);
    std::vector<fleet::Member> KnownDevices(Which which, const PlanOptions& options,
                                            std::vector<std::string>* hosts) const;
    fleet::PlanRequest RequestFor(const UploadedPackage& package,
                                  std::vector<std::string> hosts) const;
    void CheckMayPlan(const PlanOptions& options) const;
    bool FitsJournal(const PlanOptions& options) const;
    // Writes what must be on the disk before a run begins. Returns all members.
    std::vector<fleet::Member> Record(const Ready& ready);
    void Fly(const std::shared_ptr<Ready>& ready, const std::vector<fleet::Member>& all);

    const RunSettings settings_;
    Archive* archive_;
    Model* model_;

    std::mutex mutex_;  // for everything below
    PackagePtr package_;
    bool planning_ = false;
    bool ending_ = false;
    int plans_ = 0;
    std::shared_ptr<Ready> plan_;
    std::string journalMd5_;  // of the package of the journal; empty: no run yet
    int runs_ = 0;
    std::vector<fleet::Member> members_;  // of the journal, unless a run goes on
    std::shared_ptr<Ready> flying_;
    std::shared_ptr<RunView> view_;  // of the run in the journal
    std::thread thread_;
};

}  // namespace kvtool::page
