#include "tools/ladder/script.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "tools/base/errors.h"
#include "tools/base/text.h"

namespace kvtool::ladder {

namespace {

constexpr size_t kDeepest = 20;
constexpr int64_t kMostTimes = 1'000'000;
constexpr Ms kLongest = Ms{366} * 24 * 60 * 60 * 1000;

const std::vector<std::string> kWords = {"beat",  "not-ready", "silent",  "power-cut", "repeat",
                                         "every", "once",      "restart", "boot",      "continue"};
struct Unit {
    const char* name;
    Ms length;
};
constexpr Unit kUnits[] = {{"s", 1000}, {"min", 60'000}, {"h", 3'600'000}};

struct Token {
    std::string text;  // empty: the end
    size_t at;         // of its first character, from 1
};

[[noreturn]] void Fail(const Token& token, const std::string& what) {
    const std::string where =
        token.text.empty() ? "at the end" : "at '" + Printable(token.text) + "'";
    throw ToolError(ExitCode::kUsage,
                    where + ": " + what + ", character " + std::to_string(token.at));
}

bool IsPunctuation(char c) {
    return c == ',' || c == ';' || c == ':' || c == '(' || c == ')';
}

// A number is a word of its own, and so is the unit after it.
std::vector<Token> Tokens(const std::string& text) {
    const auto isNumber = [](char c) {
        return isdigit(static_cast<unsigned char>(c)) != 0 || c == '.';
    };
    std::vector<Token> tokens;
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        size_t end = i + 1;
        if (isspace(static_cast<unsigned char>(c)) != 0) {
            ++i;
            continue;
        }
        if (!IsPunctuation(c)) {
            const bool number = isNumber(c);
            while (end < text.size() && isspace(static_cast<unsigned char>(text[end])) == 0 &&
                   !IsPunctuation(text[end]) && isNumber(text[end]) == number) {
                ++end;
            }
        }
        tokens.push_back({text.substr(i, end - i), i + 1});
        i = end;
    }
    tokens.push_back({"", text.size() + 1});
    return tokens;
}

bool Endless(const ScriptStep& step) {
    return step.kind == StepKind::kRepeat ? !step.times
                                          : step.kind != StepKind::kPowerCut && !step.length;
}

class Parser {
  public:
    explicit Parser(const std::string& text) : tokens_(Tokens(text)) {}

    std::vector<ScriptBoot> Script();
    Ms WholeDuration();

  private:
    const Token& Here() const { return tokens_[at_]; }
    const Token& After() const { return tokens_[std::min(at_ + 1, tokens_.size() - 1)]; }
    bool At(const char* text) const { return Here().text == text; }
    bool Take(const char* text);
    bool AtNumber() const {
        return !Here().text.empty() &&
               (isdigit(static_cast<unsigned char>(Here().text[0])) != 0 || Here().text[0] == '.');
    }
    double Number();
    Ms Duration();
    Life Steps(size_t depth);
    ScriptStep Step(size_t depth);
    void Beats(ScriptStep* step);
    void Repeat(ScriptStep* step, size_t depth);
    void Section(std::vector<ScriptBoot>* boots);

    std::vector<Token> tokens_;
    size_t at_ = 0;
};

bool Parser::Take(const char* text) {
    if (!At(text)) {
        return false;
    }
    ++at_;
    return true;
}

double Parser::Number() {
    const Token& token = Here();
    size_t used = 0;
    double value = 0;
    try {
        value = std::stod(token.text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != token.text.size()) {
        Fail(token, "not a number");
    }
    ++at_;
    return value;
}

// One or more numbers, each with its unit.
Ms Parser::Duration() {
    const Token start = Here();
    double all = 0;
    while (AtNumber()) {
        const double value = Number();
        const auto* const unit =
            std::find_if(std::begin(kUnits), std::end(kUnits),
                         [this](const Unit& known) { return Here().text == known.name; });
        if (unit == std::end(kUnits)) {
            Fail(Here(), "a time needs a unit: s, min or h");
        }
        ++at_;
        all += value * static_cast<double>(unit->length);
    }
    if (all < 1 || all > static_cast<double>(kLongest)) {
        Fail(start, "a time must be longer than 0 and at most a year");
    }
    return std::llround(all);
}

Ms Parser::WholeDuration() {
    if (!AtNumber()) {
        Fail(Here(), "not a time");
    }
    const Ms length = Duration();
    if (!Here().text.empty()) {
        Fail(Here(), "nothing may follow the time");
    }
    return length;
}

void Parser::Beats(ScriptStep* step) {
    if (Take("once")) {
        step->length = 0;
        return;
    }
    if (AtNumber()) {
        step->length = Duration();
    }
    if (Take("every")) {
        if (!AtNumber()) {
            Fail(Here(), "'every' needs a time");
        }
        step->interval = Duration();
    }
}

void Parser::Repeat(ScriptStep* step, size_t depth) {
    const Token start = Here();
    if (AtNumber()) {
        const double times = Number();
        if (times < 1 || times > static_cast<double>(kMostTimes) || times != std::floor(times)) {
            Fail(start, "repeat 1 to " + std::to_string(kMostTimes) + " times");
        }
        step->times = static_cast<int64_t>(times);
    }
    if (!Take("(")) {
        Fail(Here(), "expected '(' and the steps to repeat");
    }
    step->steps = Steps(depth + 1);
    if (!Take(")")) {
        Fail(Here(), "expected ',' and a step, or ')'");
    }
    Ms length = 0;
    for (const ScriptStep& inner : step->steps) {
        if (Endless(inner) || inner.kind == StepKind::kPowerCut) {
            Fail(start, "a repetition needs steps that end and leave the power on");
        }
        // A lower limit: an inner repetition counts once.
        length += inner.kind == StepKind::kRepeat ? 1 : *inner.length;
    }
    if (length == 0) {
        Fail(start, "a repetition must take some time");
    }
}

ScriptStep Parser::Step(size_t depth) {
    const Token& word = Here();
    ScriptStep step;
    if (depth > kDeepest) {
        Fail(word, "too many repetitions inside each other");
    }
    if (Take("beat")) {
        step.kind = StepKind::kBeat;
        Beats(&step);
    } else if (Take("not-ready")) {
        step.kind = StepKind::kNotReady;
        Beats(&step);
    } else if (Take("silent")) {
        if (AtNumber()) {
            step.length = Duration();
        }
    } else if (Take("power-cut")) {
        step.kind = StepKind::kPowerCut;
    } else if (Take("repeat")) {
        step.kind = StepKind::kRepeat;
        Repeat(&step, depth);
    } else if (word.text.empty() || IsPunctuation(word.text[0])) {
        Fail(word, "expected a step: beat, not-ready, silent, power-cut or repeat");
    } else if (std::find(kWords.begin(), kWords.end(), word.text) != kWords.end()) {
        Fail(word, "this word does not begin a step");
    } else {
        Fail(word, "unknown word" + DidYouMean(word.text, kWords));
    }
    return step;
}

Life Parser::Steps(size_t depth) {
    Life steps;
    do {
        if (!steps.empty() && (Endless(steps.back()) || steps.back().kind == StepKind::kPowerCut)) {
            Fail(Here(), steps.back().kind == StepKind::kPowerCut
                             ? "nothing follows a power cut; the next boot begins with '; boot:'"
                             : "the step before it has no time, so this one never begins");
        }
        steps.push_back(Step(depth));
    } while (Take(","));
    return steps;
}

// "STEPS", "boot: STEPS", "restart: STEPS" or "restart: continue".
void Parser::Section(std::vector<ScriptBoot>* boots) {
    const Token label = Here();
    const bool labelled = After().text == ":";
    if (labelled && !At("boot") && !At("restart")) {
        Fail(label, "unknown label" + DidYouMean(label.text, {"boot", "restart"}));
    }
    if (!labelled && !boots->empty()) {
        Fail(label, "expected 'boot:' or 'restart:' after ';'");
    }
    at_ += labelled ? 2 : 0;
    if (!labelled || label.text == "boot") {
        boots->push_back({Steps(0), std::nullopt, false});
        return;
    }
    if (boots->empty()) {
        Fail(label, "the script must say first what the application does before a restart");
    }
    ScriptBoot& boot = boots->back();
    if (boot.afterRestart || boot.ignoresRestart) {
        Fail(label, "there is only one restart in a boot");
    }
    if (Take("continue")) {
        boot.ignoresRestart = true;
    } else {
        boot.afterRestart = Steps(0);
    }
}

std::vector<ScriptBoot> Parser::Script() {
    std::vector<ScriptBoot> boots;
    do {
        Section(&boots);
    } while (Take(";"));
    if (!Here().text.empty()) {
        const bool word = !IsPunctuation(Here().text[0]) && !AtNumber();
        const bool unknown =
            word && std::find(kWords.begin(), kWords.end(), Here().text) == kWords.end();
        Fail(Here(), unknown ? "unknown word" + DidYouMean(Here().text, kWords)
                             : "expected ',' and a step, or ';' and a label");
    }
    return boots;
}

}  // namespace

std::vector<ScriptBoot> ParseScript(const std::string& text) {
    return Parser(text).Script();
}

Ms ParseDuration(const std::string& text) {
    return Parser(text).WholeDuration();
}

LifeSignals::LifeSignals(const Life& life, Ms start) : at_(start) {
    levels_.push_back({&life, 0, 0});
    over_ = !BeginStep();
}

// Goes to the next step. False: the life ends here.
bool LifeSignals::BeginStep() {
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.next == level.steps->size()) {
            if (level.left && *level.left == 0) {
                levels_.pop_back();
                continue;
            }
            level.left = level.left ? std::optional<int64_t>(*level.left - 1) : std::nullopt;
            level.next = 0;
        }
        step_ = &(*level.steps)[level.next++];
        if (step_->kind != StepKind::kRepeat) {
            beat_ = at_;
            return true;
        }
        levels_.push_back(
            {&step_->steps, 0,
             step_->times ? std::optional<int64_t>(*step_->times - 1) : std::nullopt});
    }
    step_ = nullptr;
    return false;
}

std::optional<Signal> LifeSignals::Next() {
    while (!over_) {
        if (step_->kind == StepKind::kPowerCut) {
            over_ = true;
            return Signal{at_, SignalKind::kPowerCut};
        }
        const bool beats = step_->kind != StepKind::kSilent;
        if (!step_->length) {
            if (!beats) {
                over_ = true;
                return std::nullopt;
            }
            settled_ = step_->interval;
        }
        const Ms end = step_->length ? at_ + *step_->length : std::max(beat_, at_);
        if (beats && beat_ <= end) {
            const Ms at = beat_;
            // The last heartbeat of a step comes at its end, so the silence after it begins there.
            beat_ =
                at < end || !step_->length
                    ? (step_->length ? std::min(at + step_->interval, end) : at + step_->interval)
                    : end + 1;
            // Two steps that meet have one heartbeat there.
            if (at == lastBeat_) {
                continue;
            }
            lastBeat_ = at;
            return Signal{at, SignalKind::kBeat, step_->kind == StepKind::kBeat};
        }
        at_ = end;
        if (!BeginStep()) {
            over_ = true;
            return Signal{at_, SignalKind::kEnd};
        }
        if (!beats) {
            return Signal{at_, SignalKind::kNothing};
        }
    }
    return std::nullopt;
}

bool ScriptApplication::NextBoot(const Boot* before, BootFacts* facts) {
    *facts = {};
    if (before != nullptr) {
        if (before->end != End::kReboot && before->end != End::kPowerCut) {
            return false;
        }
        boot_ = std::min(boot_ + 1, boots_.size() - 1);
    }
    life_ = &boots_[boot_].life;
    old_.clear();
    signals_.emplace(*life_, 0);
    return true;
}

std::optional<Signal> ScriptApplication::Next() {
    if (!old_.empty()) {
        const Signal signal = old_.front();
        old_.pop_front();
        return signal;
    }
    return signals_->Next();
}

bool ScriptApplication::Finite() const {
    return !Endless(life_->back());
}

bool ScriptApplication::Restarted(Ms at) {
    const ScriptBoot& boot = boots_[boot_];
    if (boot.ignoresRestart) {
        return false;
    }
    // Until then the old application goes on.
    while (const std::optional<Signal> signal = signals_->Next()) {
        if (signal->at > at || signal->kind == SignalKind::kEnd) {
            break;
        }
        old_.push_back(*signal);
    }
    life_ = boot.afterRestart ? &*boot.afterRestart : &boot.life;
    signals_.emplace(*life_, at);
    return true;
}

}  // namespace kvtool::ladder
