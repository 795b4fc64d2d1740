#include "tools/base/wait.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

// A byte in this pipe means that a signal has arrived. It is never read, so the state remains.
int g_interruptPipe[2] = {-1, -1};

extern "C" void OnInterrupt(int) {
    const int saved = errno;
    const ssize_t ignored = write(g_interruptPipe[1], "x", 1);
    (void)ignored;
    errno = saved;
}

}  // namespace

void CatchInterrupts() {
    if (pipe2(g_interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot create a pipe");
    }
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    (void)sigaction(SIGINT, &action, nullptr);
    (void)sigaction(SIGTERM, &action, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    (void)sigaction(SIGPIPE, &ignore, nullptr);
}

void ThrowIfInterrupted() {
    pollfd entry{g_interruptPipe[0], POLLIN, 0};
    if (poll(&entry, 1, 0) > 0) {
        throw ToolError(ExitCode::kInterrupted, "interrupted");
    }
}

short WaitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        // Rounded up, so that the deadline has passed when poll reports a time-out.
        const auto left = std::chrono::ceil<Millis>(deadline - Clock::now()).count();
        const int timeout = static_cast<int>(std::clamp<long>(left, 0, 3600000));
        pollfd entries[2] = {{fd, events, 0}, {g_interruptPipe[0], POLLIN, 0}};
        const int ready = poll(entries, 2, timeout);
        if (ready > 0 && entries[1].revents != 0) {
            throw ToolError(ExitCode::kInterrupted, "interrupted");
        }
        if (ready > 0) {
            return entries[0].revents;
        }
        if (ready == 0 && Clock::now() >= deadline) {
            return 0;
        }
        if (ready < 0 && errno != EINTR) {
            throw ToolError(ExitCode::kInternal, "cannot wait for a descriptor");
        }
    }
}

void WaitUntil(Clock::time_point deadline) {
    (void)WaitFor(-1, 0, deadline);
}

}  // namespace kvtool
