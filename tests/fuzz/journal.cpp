// A journal of a fleet run: read, continued after an incomplete line, and read again.
#include <cmath>
#include <stdexcept>

#include "tests/fuzz/tool.h"
#include "tools/base/text.h"
#include "tools/fleet/journal.h"

using namespace fuzz;
using namespace kvtool;
using namespace kvtool::fleet;

namespace {

bool g_fullDisk;

// Lines: good ones from a few choices, and what the input adds.
std::string Lines(Input* in) {
    std::string text;
    while (!in->Empty()) {
        const std::string device = R"("device":"d)" + std::to_string(in->Below(3)) + "\"";
        const auto state = static_cast<State>(in->Below(8));
        const std::string events[] = {
            R"("state",)" + device + R"(,"state":")" + StateName(state) +
                R"(","observed":["o\\x1B"])" + in->Piece(),
            R"("run","package":{"file":"p","size":9,"md5":"m"},"devices":[{)" + device + "}]",
            R"("planned",)" + device + R"(,"command_port":80,"code":3,"text":"t")",
            R"("end","run":1,"exit_code":0)" + in->Piece()};
        text += R"({"schema":1,"time":"2026-11-25T21:12:19.123Z","event":)" +
                events[in->Byte() / 64] + "}" + (in->Below(8) == 7 ? in->Piece() : "\n");
    }
    return text;
}

void RequireSound(const JournalContents& contents) {
    Require(contents.runs > 0 || contents.whole == 0);
    for (const Member& member : contents.members) {
        const Progress& progress = member.progress;
        Require(member.history.empty() || member.history.back().first == progress.state);
        // A device that may have accepted is not upgraded again.
        Require(progress.reached < State::kFinishing || NextFor(progress) != Next::kUpgrade);
        RequireSafe(LeftText(progress.reached));
        for (const auto& [state, time] : member.history) {
            Require(time < 0 || std::abs(ParseTime(TimeText(time)).value_or(0) - time) < 0.002);
        }
    }
}

// What was written can be read back.
void Continue(const std::string& path, const std::string& id, Input* in) {
    const JournalContents before = ReadJournal(path);
    RequireSound(before);
    // A journal that has grown since it was read is not continued.
    Require(Try([&path] { (void)Journal::Continue(path, {}); }) == (before.whole == 0));
    Journal journal = Journal::Continue(path, before);
    Member member;
    member.id = member.firmware = id;
    member.code = in->Below(2) == 0 ? ExitCode::kDone : ExitCode::kRefused;
    before.runs == 0 ? journal.WriteRun(1, {"file", 1, "md5"}, {member})
                     : journal.WritePlanned(member);
    for (size_t steps = in->Below(16); steps > 0; --steps) {
        try {
            member.progress.Enter(static_cast<State>(in->Below(8)));
            journal.WriteState(&member);
        } catch (const std::logic_error&) {
        }
    }
    journal.WriteEnd(1, ExitCode::kSomeFailed);
    const JournalContents after = ReadJournal(path);
    Require(!after.torn && after.members.size() == before.members.size() + 1);
    Require(after.members.back().id == id);
    Require(after.members.back().history.size() == member.history.size());
    RequireSound(after);
}

}  // namespace

extern "C" int __wrap_fdatasync(int) {
    g_world.refusals += g_fullDisk ? 1 : 0;
    return g_fullDisk ? -1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    g_world.refusals = 0;
    g_fullDisk = in.Below(16) == 15;
    const std::string chosen = in.Piece();
    Input choices(reinterpret_cast<const uint8_t*>(chosen.data()), chosen.size());
    const std::string text = in.Below(2) == 0 ? Lines(&in) : in.Rest();
    const std::string path = Put("/journal", text);
    const std::string id = Printable(choices.Text(choices.Byte() % 8U));
    (void)Try([&] { Continue(path, id, &choices); });
    (void)ParseTime(text.substr(0, 40));
    return 0;
}
