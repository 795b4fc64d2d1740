// Which of the coming operations are to fail.
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
    // Throws std::runtime_error when no operation can ever match: a fault that silently never
    // happens makes a test that cannot fail.
    void Add(const Fault& fault);

    // To be asked once for every operation. Each fault counts the operations since it was added by
    // itself; of several that are due, the oldest happens and the others wait.
    std::optional<Fault> Take(std::string_view device, std::string_view operation);

  private:
    std::mutex mutex_;
    std::vector<Fault> faults_;
};

}  // namespace vboard
