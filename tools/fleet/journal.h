// The journal of a fleet run. Each step is on the disk before it is taken. docs/fleet.md describes
// the lines.
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

// A device of the fleet, as planned and then kept up to date.
struct Member {
    std::string id;        // its MAC address, or its name as given if the plan's search missed it
    std::string mac;       // empty: not known
    std::string address;   // where it was seen last; empty: never seen
    std::string firmware;  // before the upgrade
    uint16_t commandPort = 0;
    uint16_t alivePort = 0;        // its application opens it; 0: not known
    bool alivePortClosed = false;  // seen closed before the upload
    uint32_t session = 0;          // of the latest attempt
    Progress progress;
    ExitCode code = ExitCode::kDone;  // of the latest end
    std::string text;                 // of the latest end, or why the device will not be upgraded
    // What the latest attempt saw of the device afterwards, and what it concludes.
    std::vector<std::string> observed;
    std::vector<std::string> assumed;
    // The states that it entered, with the times in seconds since 1970.
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
    // Times of the latest run, in seconds since 1970. A run without an end was cut off or goes on.
    double started = 0;
    std::optional<double> ended;
    std::optional<int> exitCode;
    std::vector<Member> members;
    bool torn = false;   // the last line is incomplete; the step that it announces was not taken
    uint64_t whole = 0;  // bytes of the complete lines
};

// The texts of the contents are safe to print. They have no run if the first run ended before it
// had written its first line. Throws ToolError(kRefused) if the file cannot be read, is not a
// journal, or is damaged anywhere but in its last line.
JournalContents ReadJournal(const std::string& path);

// Gets each line once it has been written, on the thread that wrote it and under the journal's
// lock.
class JournalWatcher {
  public:
    virtual ~JournalWatcher() = default;
    virtual void Written(const Json& line) = 0;
};

// Appends lines. Each call returns once the line is on the disk. Otherwise it throws
// ToolError(kInternal) and leaves the file as it was. May be called on any thread.
class Journal {
  public:
    // Creates the file, or opens it and removes an incomplete last line. Throws ToolError: kBusy
    // while another process is writing the journal, kRefused as ReadJournal does, kInternal if the
    // file cannot be opened or locked.
    static Journal Open(const std::string& path);
    // The same for a journal that was read before; without contents, there was none. Throws
    // ToolError(kBusy) too if another process has written lines since then.
    static Journal Continue(const std::string& path, const JournalContents& read);
    Journal(Journal&& other) noexcept
        : path_(std::move(other.path_)), fd_(std::move(other.fd_)), size_(other.size_) {}

    // Null: no watcher.
    void Tell(JournalWatcher* watcher) { watcher_ = watcher; }

    // A run begins and adds these devices to the plan: all of them or, after a crash here, none.
    void WriteRun(int run, const PackageName& package, const std::vector<Member>& members);
    // Adds one device to the plan.
    void WritePlanned(const Member& member);
    // Writes the state that the member has just entered, and adds it to the history.
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

// Converts to "2026-11-25T21:12:19.123Z" and back. ParseTime returns nothing for any other text.
std::string TimeText(double seconds);
std::optional<double> ParseTime(const std::string& text);

}  // namespace kvtool::fleet
