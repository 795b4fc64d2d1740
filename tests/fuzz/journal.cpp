// A journal of a fleet run: read, continued after an incomplete line, and read again.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "tests/fuzz/world.h"
#include "tools/base/text.h"
#include "tools/fleet/journal.h"

using namespace fuzz;
using namespace kvtool;
using namespace kvtool::fleet;

namespace {

const int g_fd = memfd_create("journal", 0);
const std::string g_path = "/proc/self/fd/" + std::to_string(g_fd);

// Lines: a good one from a few choices, a piece of one, or any bytes.
std::string Text(Input* in) {
    constexpr const char* kStates[] = {"planned",  "connecting", "uploading", "finishing",
                                       "accepted", "looking",    "done",      "failed"};
    const std::string head = R"({"schema":1,"time":"2026-11-25T21:12:19.123Z","event":)";
    std::string text;
    while (!in->Empty()) {
        const std::string device = R"("device":"02:00:00:00:00:0)" + std::to_string(in->Below(3));
        std::string line = in->Below(8) == 7 ? in->LongPiece() : head;
        switch (in->Below(8)) {
            case 0:
                line += R"("run","run":1,"package":{"file":"p","size":9,"md5":"m"},"devices":[{)" +
                        device + R"("}]})";
                break;
            case 1:
                line += R"("planned",)" + device + R"(","command_port":80,"code":3,"text":"t"})";
                break;
            case 2:
                line += R"("end","run":1,"exit_code":0})";
                break;
            case 3:
                line += in->Piece();
                break;
            default:
                line += R"("state",)" + device + R"(","state":")" + kStates[in->Below(8)] + "\"" +
                        in->Piece() + "}";
        }
        text += line + (in->Below(8) == 7 ? "" : "\n");
    }
    return text;
}

// Nobody is upgraded twice, whatever the journal says.
void RequireSound(const JournalContents& contents) {
    Require(contents.runs > 0 || contents.whole == 0);
    for (const Member& member : contents.members) {
        const Progress& progress = member.progress;
        Require(progress.reached <= State::kAccepted && progress.attempts >= 0);
        Require(member.history.empty() || member.history.back().first == progress.state);
        Require(*LeftText(progress.reached) != '\0' && (NextFor(progress) == Next::kNothing) ==
                                                           (progress.state == State::kDone));
        for (const auto& [state, time] : member.history) {
            if (time > 0 && time < 1e11) {
                const auto again = ParseTime(TimeText(time));
                Require(again && std::abs(*again - time) < 0.002);
            }
            Require(*StateName(state) != '\0');
        }
    }
}

// Each word between quotes must come back as it was written.
void Continue(const JournalContents& before, const std::string& word) {
    Journal journal = Journal::Open(g_path);
    Member member;
    member.id = word;
    member.firmware = word;
    member.code = before.runs % 2 == 0 ? ExitCode::kDone : ExitCode::kRefused;
    const bool fresh = before.runs == 0;
    if (fresh) {
        journal.WriteRun(1, {"file", 1, "md5"}, {member});
    } else {
        journal.WritePlanned(member);
    }
    for (const State state : {State::kConnecting, State::kUploading, State::kFinishing,
                              State::kAccepted, State::kLooking, State::kFailed}) {
        member.progress.Enter(state);
        journal.WriteState(&member);
    }
    journal.WriteEnd(1, ExitCode::kSomeFailed);
    const JournalContents after = ReadJournal(g_path);
    Require(!after.torn && after.runs == before.runs + (fresh ? 1 : 0));
    Require(after.members.size() == before.members.size() + 1);
    Require(after.members.back().id == word);
    Require(after.members.back().history.size() == 6);
    RequireSound(after);
}

}  // namespace

extern "C" {
// Nothing needs to survive a loss of power here.
int __wrap_fsync(int) {
    return 0;
}
int __wrap_fdatasync(int) {
    return 0;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const bool raw = input.Below(2) == 1;
    std::string word = input.Piece();
    const std::string text = raw ? input.Rest() : Text(&input);
    Require(ftruncate(g_fd, 0) == 0);
    Require(pwrite(g_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    try {
        const JournalContents contents = ReadJournal(g_path);
        RequireSound(contents);
        // An identifier is a MAC address or a printable text.
        Continue(contents, Printable(word));
    } catch (const ToolError& error) {
        RequireSafe(error.what());
        Require(error.Code() == ExitCode::kRefused);
    }
    (void)ParseTime(text.substr(0, 40));
    return 0;
}
