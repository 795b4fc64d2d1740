#include "vboard/loop.h"

#include <poll.h>

#include <cerrno>
#include <vector>

#include "vboard/process.h"

namespace vboard {

namespace {

constexpr std::chrono::milliseconds kRest(5);

}  // namespace

void Loop::Run() {
    while (!stopped_) {
        std::vector<pollfd> waiting;
        const uint64_t newest = lastId_;
        const auto now = std::chrono::steady_clock::now();
        int timeout = -1;
        for (const auto& source : sources_) {
            if (source.second.rests > now) {
                timeout = static_cast<int>(kRest.count());
            } else {
                waiting.push_back({source.first, POLLIN, 0});
            }
        }
        if (poll(waiting.data(), waiting.size(), timeout) < 0 && errno != EINTR) {
            throw SysError("poll");
        }
        for (const pollfd& entry : waiting) {
            const auto source = sources_.find(entry.fd);
            if (entry.revents == 0 || source == sources_.end() || source->second.id > newest) {
                continue;
            }
            if (source->second.lazy) {
                source->second.rests = std::chrono::steady_clock::now() + kRest;
            }
            const std::function<void()> ready =
                source->second.ready;  // a copy: the callback may remove itself
            ready();
        }
    }
}

}  // namespace vboard
