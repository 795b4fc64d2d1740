// Waits on the monotonic clock. Ctrl-C ends each wait at once.
#pragma once

#include <chrono>

namespace kvtool {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

inline double Seconds(Millis time) {
    return std::chrono::duration<double>(time).count();
}
inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Makes SIGINT and SIGTERM end every wait below with ToolError(kInterrupted), and ignores SIGPIPE.
// A second signal of the same kind ends the process in the usual way, in case something other than
// these waits (a name look-up) blocks it. Call once, before any wait, from the main thread.
void CatchInterrupts();

// Once raised, ends the waits of the threads that look at it. It stays raised.
class Interrupt {
  public:
    // Throws ToolError(kInternal) when there are no descriptors left.
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    // From any thread and from a signal handler.
    void Raise() const;
    bool Raised() const;
    int Fd() const { return pipe_[0]; }  // readable once it is raised

  private:
    int pipe_[2] = {-1, -1};
};

// While it lives, `interrupt` ends the waits of this thread, and signals do not.
class InterruptedBy {
  public:
    explicit InterruptedBy(const Interrupt& interrupt) : InterruptedBy(interrupt.Fd()) {}
    // `threadInterrupt`: from ThreadInterrupt, called on another thread. What ends the waits of
    // that thread then ends those of this one too.
    explicit InterruptedBy(int threadInterrupt);
    ~InterruptedBy();
    InterruptedBy(const InterruptedBy&) = delete;
    InterruptedBy& operator=(const InterruptedBy&) = delete;

  private:
    int before_;
};

// What ends this thread's waits. Give it to the InterruptedBy of a thread that works for this one.
int ThreadInterrupt();

// While it lives, the first SIGINT raises `first`; the second one, or a SIGTERM, raises both. One
// more of the same kind ends the process in the usual way. The destructor restores what
// CatchInterrupts set up. Only one may exist at a time, on the main thread.
class InterruptsInSteps {
  public:
    InterruptsInSteps(const Interrupt& first, const Interrupt& second);
    ~InterruptsInSteps();
    InterruptsInSteps(const InterruptsInSteps&) = delete;
    InterruptsInSteps& operator=(const InterruptsInSteps&) = delete;
};

// Throws ToolError(kInterrupted) if a signal has arrived or, on a thread with InterruptedBy, if its
// interrupt has been raised.
void ThrowIfInterrupted();

// Waits for one of the poll events on the descriptor, at most until the deadline.
// Returns the events that poll reports, 0 at the deadline. With descriptor -1 it only waits.
short WaitFor(int fd, short events, Clock::time_point deadline);

// Waits until the deadline.
void WaitUntil(Clock::time_point deadline);

}  // namespace kvtool
