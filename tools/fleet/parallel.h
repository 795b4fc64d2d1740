// The same work for many, a few at a time.
#pragma once

#include <cstddef>
#include <functional>

namespace kvtool::fleet {

// Does work(0) … work(count - 1) on at most `jobs` threads and returns when all are done. Signals
// end the waits in them. Throws the first thing that one of them threw; the rest is
// then left out.
void ForEach(size_t count, size_t jobs, const std::function<void(size_t)>& work);

}  // namespace kvtool::fleet
