// What happened to whom, on disk before it happens. docs/fleet.md describes the lines.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/kv_raii.h"
#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/fleet/state.h"

namespace kvtool::fleet {

// A device of the fleet: what the plan told, kept up to date by what happened.
struct Member {
    std::string id;        // its MAC address; how it was named as long as that is not known
    std::string mac;       // empty: not known
    std::string address;   // the last one that it was seen at; empty: never seen
    std::string firmware;  // what it ran before the upgrade, as it told
    uint16_t commandPort = 0;
    uint16_t alivePort = 0;        // that its application opens; 0: not known
    bool alivePortClosed = false;  // seen closed before the upload
    uint32_t session = 0;          // of the latest attempt
    Progress progress;
    ExitCode code = ExitCode::kDone;  // of the latest end
    std::string text;                 // of the latest end, or why it cannot be upgraded
    // When it entered which state, in seconds since 1970.
    std::vector<std::pair<State, double>> history;
};

struct PackageName {
    std::string file;
    uint64_t size = 0;
    std::string md5;
};

struct JournalContents {
    PackageName package;  // of the first run
    int runs = 0;
    std::vector<Member> members;
    bool torn = false;   // the last line is not whole; it announced a step that was not made
    uint64_t whole = 0;  // bytes up to there
};

// Without any run when a new one was ended before its first line. Throws ToolError(kRefused): no
// journal, or damaged otherwise than by a torn last line.
JournalContents ReadJournal(const std::string& path);

// Told of each line that stands in the journal. Called under its lock, on the thread that wrote.
class JournalWatcher {
  public:
    virtual ~JournalWatcher() = default;
    virtual void Written(const Json& line) = 0;
};

// Appends lines. Each call returns once the line is on the disk, or throws ToolError(kInternal) and
// leaves the file as it was. From any thread.
class Journal {
  public:
    // A new file, or an existing one whose torn last line is cut off. Throws ToolError(kBusy) while
    // another process writes it.
    static Journal Open(const std::string& path);
    Journal(Journal&& other) noexcept
        : path_(std::move(other.path_)), fd_(std::move(other.fd_)), size_(other.size_) {}

    // Null: nobody.
    void Tell(JournalWatcher* watcher) { watcher_ = watcher; }

    // A run begins, with these more devices in the plan: all of them or, if it ends here, none.
    void WriteRun(int run, const PackageName& package, const std::vector<Member>& members);
    // One more device.
    void WritePlanned(const Member& member);
    // The state that the member has just entered. Adds the time to its history.
    void WriteState(Member* member);
    void WriteEnd(int run, ExitCode code);

  private:
    Journal(std::string path, UniqueFd fd, uint64_t size)
        : path_(std::move(path)), fd_(std::move(fd)), size_(size) {}
    double Write(const char* event, const Json& details);
    [[noreturn]] void Fail(int error);

    std::string path_;
    UniqueFd fd_;
    uint64_t size_;
    std::mutex mutex_;
    JournalWatcher* watcher_ = nullptr;
};

// "2026-11-25T21:12:19.123Z" and back; nothing when it is no such text.
std::string TimeText(double seconds);
std::optional<double> ParseTime(const std::string& text);

}  // namespace kvtool::fleet
