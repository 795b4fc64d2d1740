#include "vboard/devices/faults.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace vboard {

void Faults::Add(const Fault& fault) {
    constexpr std::array<std::string_view, 5> kOperations = {"open", "ioctl", "erase", "write",
                                                             "read"};
    const bool known =
        std::find(kOperations.begin(), kOperations.end(), fault.operation) != kOperations.end();
    const bool never =
        fault.count == 0 || (fault.device == kWatchdog && fault.operation == "erase");
    if (!known || never || fault.error < 0 || (fault.error == 0 && fault.operation != "write")) {
        throw std::runtime_error("fault of " + fault.device + ": '" + fault.operation +
                                 "' cannot fail " + std::to_string(fault.count) +
                                 " times with error " + std::to_string(fault.error));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    faults_.push_back(fault);
}

std::optional<Fault> Faults::Take(std::string_view device, std::string_view operation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::optional<Fault> taken;
    for (Fault& fault : faults_) {
        const bool any = fault.device == kAnyPartition && device != kWatchdog;
        if ((!any && fault.device != device) || fault.operation != operation) {
            continue;
        }
        if (fault.skip > 0) {
            --fault.skip;
        } else if (!taken && fault.count > 0) {
            --fault.count;
            taken = fault;
        }
    }
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                                 [](const Fault& fault) { return fault.count == 0; }),
                  faults_.end());
    return taken;
}

void PowerFault::Set(const PowerCut& cut) {
    const std::lock_guard<std::mutex> lock(mutex_);
    cut_ = cut;
}

bool PowerFault::Armed() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return cut_.step > 0;
}

StepEnd PowerFault::Next() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (cut_.step == 0 || --cut_.step > 0) {
        return StepEnd::kWhole;
    }
    switch (cut_.place) {
        case PowerCut::Place::kFirstHalf:
            return StepEnd::kFirstHalf;
        case PowerCut::Place::kSecondHalf:
            return StepEnd::kSecondHalf;
        case PowerCut::Place::kAfter:
            break;
    }
    return StepEnd::kLast;
}

}  // namespace vboard
