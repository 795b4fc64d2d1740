#include "tools/fleet/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/base/wait.h"

namespace kvtool::fleet {

void ForEach(size_t count, size_t jobs, const std::function<void(size_t)>& work) {
    std::atomic<size_t> next{0};
    std::mutex mutex;
    std::exception_ptr failure;
    const auto run = [&, interrupt = ThreadInterrupt()] {
        const InterruptedBy interrupted(interrupt);
        for (size_t i = next++; i < count; i = next++) {
            try {
                work(i);
            } catch (...) {
                const std::lock_guard<std::mutex> guard(mutex);
                failure = failure ? failure : std::current_exception();
                next = count;
            }
        }
    };
    std::vector<std::thread> threads;
    for (size_t i = 0; i < std::min(count, jobs); ++i) {
        threads.emplace_back(run);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace kvtool::fleet
