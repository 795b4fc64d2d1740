#include "tools/base/wait.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <utility>

#include "tools/base/errors.h"

namespace kvtool {

namespace {

// Never freed: a signal may arrive while the process exits.
const Interrupt* g_signalled = nullptr;
std::atomic<const Interrupt*> g_first{nullptr};
std::atomic<const Interrupt*> g_second{nullptr};

// Descriptor of the interrupt that ends this thread's waits; -1: the signals end them.
thread_local int g_interruptFd = -1;

int InterruptFd() {
    if (g_interruptFd >= 0) {
        return g_interruptFd;
    }
    return g_signalled != nullptr ? g_signalled->Fd() : -1;
}

bool Readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return fd >= 0 && poll(&entry, 1, 0) > 0;
}

extern "C" void OnInterrupt(int) {
    g_signalled->Raise();
}

extern "C" void OnStep(int signal) {
    const Interrupt* const first = g_first.load();
    const Interrupt* const second = g_second.load();
    if (first == nullptr || second == nullptr) {
        return;
    }
    if (signal == SIGTERM || first->Raised()) {
        second->Raise();
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        (void)sigaction(signal, &action, nullptr);
    }
    first->Raise();
}

void Handle(void (*handler)(int), unsigned flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(flags | SA_RESTART);
    (void)sigaction(SIGINT, &action, nullptr);
    (void)sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

Interrupt::Interrupt() {
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot create a pipe");
    }
}

Interrupt::~Interrupt() {
    (void)close(pipe_[0]);
    (void)close(pipe_[1]);
}

// A byte in the pipe means interrupted. Nobody reads it, so the state stays.
void Interrupt::Raise() const {
    const int saved = errno;
    const ssize_t ignored = write(pipe_[1], "x", 1);
    (void)ignored;
    errno = saved;
}

bool Interrupt::Raised() const {
    return Readable(pipe_[0]);
}

InterruptedBy::InterruptedBy(int threadInterrupt)
    : before_(std::exchange(g_interruptFd, threadInterrupt)) {}

InterruptedBy::~InterruptedBy() {
    g_interruptFd = before_;
}

InterruptsInSteps::InterruptsInSteps(const Interrupt& first, const Interrupt& second) {
    g_first = &first;
    g_second = &second;
    Handle(OnStep, 0);
}

InterruptsInSteps::~InterruptsInSteps() {
    Handle(OnInterrupt, SA_RESETHAND);
    g_first = nullptr;
    g_second = nullptr;
}

int ThreadInterrupt() {
    return g_interruptFd;
}

void CatchInterrupts() {
    g_signalled = new Interrupt;
    Handle(OnInterrupt, SA_RESETHAND);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    (void)sigaction(SIGPIPE, &ignore, nullptr);
}

void ThrowIfInterrupted() {
    if (Readable(InterruptFd())) {
        throw ToolError(ExitCode::kInterrupted, "interrupted");
    }
}

short WaitFor(int fd, short events, Clock::time_point deadline) {
    const int interrupt = InterruptFd();
    for (;;) {
        // Rounded up, so that the deadline has passed when poll reports a time-out.
        const auto left = std::chrono::ceil<Millis>(deadline - Clock::now()).count();
        const int timeout = static_cast<int>(std::clamp<long>(left, 0, 3600000));
        pollfd entries[2] = {{fd, events, 0}, {interrupt, POLLIN, 0}};
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
