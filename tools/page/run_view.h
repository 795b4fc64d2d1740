// Puts a run into the model while it goes on.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/fleet/tracker.h"
#include "tools/page/model.h"

namespace kvtool::page {

struct RunFacts {
    int id = 0;
    fleet::PackageName package;
    size_t jobs = 0;  // 0: not known
    double started = 0;
};

// A run at one moment.
struct Flying {
    std::vector<fleet::TrackedMember> rows;
    fleet::RunTotal total;
};

class RunView : public fleet::RunListener {
  public:
    // `stopping`: once raised, the run counts as stopping.
    RunView(RunFacts facts, Model* model, const Interrupt* stopping);

    void Changed(size_t member, const fleet::Member& what) override;
    void Progress(size_t member, const UploadProgress& progress) override;
    void Line(size_t member, const std::string& text) override;
    void Note(const std::string& text) override;
    void Stopping(const std::string& why) override;
    void Tick() override;

    // The run is over. `code`: empty if it was cut off.
    void End(std::optional<double> ended, std::optional<int> code);
    Flying Now();
    // The run without its members.
    Json RunJson();

  private:
    void ShowMember(size_t member);
    void ShowProgress(size_t member);
    Json RunJsonLocked() const;

    const RunFacts facts_;
    Model* model_;
    const Interrupt* stopping_;
    std::mutex mutex_;  // for everything below
    fleet::Tracker tracker_;
    std::vector<Clock::time_point> shown_;  // when the progress of each member was last shown
    Clock::time_point runShown_;
    std::string stopped_;
    bool over_ = false;
    std::optional<double> ended_;
    std::optional<int> code_;
};

}  // namespace kvtool::page
