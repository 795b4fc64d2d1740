#include "vboard/loop.h"

#include <poll.h>

#include <cerrno>
#include <vector>

#include "vboard/process.h"

namespace vboard {

void Loop::Run() {
    while (!stopped_) {
        std::vector<pollfd> waiting;
        for (const auto& source : sources_) {
            waiting.push_back({source.first, POLLIN, 0});
        }
        if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
            throw SysError("poll");
        }
        for (const pollfd& entry : waiting) {
            const auto source = sources_.find(entry.fd);
            if (entry.revents == 0 || source == sources_.end()) {
                continue;
            }
            const std::function<void()> ready = source->second;  // it may remove itself
            ready();
        }
    }
}

}  // namespace vboard
