// The operation log: each line is a JSON object, written with one write(2).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/kv_raii.h"
#include "vboard/devices/board_clock.h"

namespace vboard {

struct LogEntry {
    std::string_view device;
    std::string_view operation;
    uint64_t offset = 0;
    uint64_t length = 0;
    int64_t result = 0;  // bytes, or -errno
    std::vector<std::pair<const char*, int64_t>> more = {};
};

// Members of a line, in order: "t" (seconds of the monotonic clock at the end of the operation),
// "boot", "dev", "op", then "off", "len", "result" and the operation's own members, or "text" for a
// note. On an accelerated board, "board" follows "t": seconds of the board's clock since the runner
// started. "t" never decreases. May be used on any thread.
class OpLog {
  public:
    // Appends to `file`; an empty name means no log. Throws std::runtime_error if the file cannot
    // be opened.
    OpLog(const std::string& file, const BoardClock& clock);

    void SetBoot(int boot) { boot_ = boot; }
    void Write(const LogEntry& entry);
    void Note(const std::string& operation, const std::string& text);

  private:
    void Append(const std::string& members);

    UniqueFd file_;
    const BoardClock& clock_;
    std::atomic<int> boot_{0};
    std::mutex mutex_;
    bool complained_ = false;
};

}  // namespace vboard
