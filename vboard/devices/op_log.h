// The operation log: one JSON object a line, one write(2) a line.
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

// Members of a line, in order: "t" (seconds of the monotonic clock, taken when the operation is
// over), "boot", "dev", "op", then "off", "len", "result" and what else the operation has to say;
// for a note "text" instead. On an accelerated board "board" stands behind "t": seconds of the
// board's clock since the runner started. "t" never goes backwards from line to line. Any thread.
class OpLog {
  public:
    // Appends to `file`; an empty name is no log. Throws std::runtime_error when it cannot be
    // opened.
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
