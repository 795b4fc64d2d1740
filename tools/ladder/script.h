// The script language: what an application does, in words. docs/kvtool.md describes it.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "tools/ladder/application.h"

namespace kvtool::ladder {

enum class StepKind { kBeat, kNotReady, kSilent, kPowerCut, kRepeat };

struct ScriptStep {
    StepKind kind = StepKind::kSilent;
    std::optional<Ms> length;  // none: for ever
    Ms interval = 1000;        // of heartbeats
    // For a repetition.
    std::vector<ScriptStep> steps;
    std::optional<int64_t> times;  // none: for ever
};

// What the application does from one start on.
using Life = std::vector<ScriptStep>;

struct ScriptBoot {
    Life life;
    // After the supervisor's restart. None: the same life begins again.
    std::optional<Life> afterRestart;
    // A restart changes nothing: the old application goes on.
    bool ignoresRestart = false;
};

// The boots of a script; the last one is repeated. Throws ToolError(kUsage) that names the word.
std::vector<ScriptBoot> ParseScript(const std::string& text);

// A duration with its unit: "95s", "1.5min", "2 h", "1h30min". Throws ToolError(kUsage).
Ms ParseDuration(const std::string& text);

// The signals of one life, step by step.
class LifeSignals {
  public:
    // Begins at `start`. The life must outlive the object.
    LifeSignals(const Life& life, Ms start);
    std::optional<Signal> Next();
    std::optional<Ms> Settled() const { return settled_; }

  private:
    // A list of steps that is under way: the life itself, or a repetition.
    struct Level {
        const std::vector<ScriptStep>* steps;
        size_t next;
        std::optional<int64_t> left;  // more rounds; none: for ever
    };
    bool BeginStep();

    std::vector<Level> levels_;
    const ScriptStep* step_ = nullptr;
    Ms at_;        // start of the step
    Ms beat_ = 0;  // the next heartbeat of the step
    Ms lastBeat_ = -1;
    std::optional<Ms> settled_;
    bool over_ = false;
};

class ScriptApplication : public Application {
  public:
    explicit ScriptApplication(std::vector<ScriptBoot> boots) : boots_(std::move(boots)) {}

    bool NextBoot(const Boot* before, BootFacts* facts) override;
    std::string Key() const override { return std::to_string(boot_); }
    std::optional<Signal> Next() override;
    std::optional<Ms> Settled() const override { return signals_->Settled(); }
    bool Finite() const override;
    bool Restarted(Ms at) override;

  private:
    std::vector<ScriptBoot> boots_;
    size_t boot_ = 0;
    const Life* life_ = nullptr;
    std::deque<Signal> old_;  // of the life before the restart
    std::optional<LifeSignals> signals_;
};

}  // namespace kvtool::ladder
