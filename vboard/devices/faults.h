// Decides which operations fail, and at which step of the flash chip the power fails.
#pragma once

#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "vboard/devices/devices.h"
#include "vboard/devices/nor_flash.h"

namespace vboard {

// May be used on any thread.
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

// May be used on any thread.
class PowerFault {
  public:
    // Replaces an earlier one that has not happened yet.
    void Set(const PowerCut& cut);
    bool Armed() const;
    // Call it once for each step. Never returns kCut. After the cut, the caller stops the chip:
    // this object does not fail the later steps.
    StepEnd Next();

  private:
    mutable std::mutex mutex_;
    PowerCut cut_;  // `step` is counted down; 0: none
};

}  // namespace vboard
