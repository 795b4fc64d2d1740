// Does the same work for many items, a few at a time.
#pragma once

#include <cstddef>
#include <functional>

namespace kvtool::fleet {

// Calls work(0) … work(count - 1) on at most `jobs` threads and returns when all calls have ended.
// What ends the waits of this thread ends the waits of those threads too. If a call throws, no more
// calls begin and ForEach throws the first exception.
void ForEach(size_t count, size_t jobs, const std::function<void(size_t)>& work);

}  // namespace kvtool::fleet
