// Decides which operations fail.
#pragma once

#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "vboard/devices/devices.h"

namespace vboard {

// Any thread.
class Faults {
  public:
    // Throws std::runtime_error when no operation can ever match: a test whose fault never happens
    // would pass without testing anything.
    void Add(const Fault& fault);

    // Call it once for each operation. Every fault counts the operations since it was added. If
    // several are due, the oldest happens and the others wait.
    std::optional<Fault> Take(std::string_view device, std::string_view operation);

  private:
    std::mutex mutex_;
    std::vector<Fault> faults_;
};

}  // namespace vboard
