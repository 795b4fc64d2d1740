#include "vboard/loop.h"

#include <poll.h>

#include <cerrno>
#include <vector>

#include "vboard/process.h"

namespace vboard {

void Loop::Run() {
    while (!stopped_) {
        std::vector<pollfd> waiting;
        const uint64_t newest = lastId_;
        for (const auto& source : sources_) {
            waiting.push_back({source.first, POLLIN, 0});
        }
        if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
            throw SysError("poll");
        }
        for (const pollfd& entry : waiting) {
            const auto source = sources_.find(entry.fd);
            if (entry.revents == 0 || source == sources_.end() || source->second.id > newest) {
                continue;
            }
            const std::function<void()> ready = source->second.ready;  // it may remove itself
            ready();
        }
    }
}

}  // namespace vboard
