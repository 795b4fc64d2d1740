#include "vboard/console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "vboard/process.h"

namespace vboard {

Console::Console(Loop* loop, const StateDir& state, int boot, bool quiet) : loop_(loop) {
    Open(&console_, state.Boot(boot) / "console.log", quiet ? -1 : STDOUT_FILENO);
    Open(&trace_, state.Boot(boot) / "trace.log", quiet ? -1 : STDERR_FILENO);
}

Console::~Console() {
    for (const Stream* stream : {&console_, &trace_}) {
        loop_->Remove(stream->readEnd.Get());
        (void)Drain(*stream);
    }
}

void Console::Open(Stream* stream, const std::string& file, int terminal) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw SysError("cannot create a pipe");
    }
    stream->readEnd.Reset(ends[0]);
    stream->writeEnd.Reset(ends[1]);
    (void)fcntl(ends[0], F_SETFL, O_NONBLOCK);
    // Room for output that comes while the loop ignores the pipe. If this fails, the board waits a
    // little at times.
    (void)fcntl(ends[0], F_SETPIPE_SZ, 1 << 20);
    stream->log.Reset(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!stream->log) {
        throw SysError("cannot create " + file);
    }
    stream->terminal = terminal;
    Watch(stream);
}

void Console::Watch(const Stream* stream) {
    loop_->AddLazily(stream->readEnd.Get(), [this, stream] {
        if (!Drain(*stream)) {
            loop_->Remove(stream->readEnd.Get());
        }
    });
}

void Console::HoldTrace(bool held) {
    loop_->Remove(trace_.readEnd.Get());
    if (held) {
        (void)Drain(trace_);
        (void)fcntl(trace_.readEnd.Get(), F_SETPIPE_SZ, 4096);
    } else {
        Watch(&trace_);
    }
}

void Console::CloseBoardEnds() {
    console_.writeEnd.Reset();
    trace_.writeEnd.Reset();
}

bool Console::Drain(const Stream& stream) {
    char buffer[4096];
    ssize_t length = 0;
    // Bounded, so that a board that never stops writing does not keep the runner here.
    for (int i = 0; i < 512; ++i) {
        length = read(stream.readEnd.Get(), buffer, sizeof(buffer));
        if (length <= 0) {
            return length < 0 && errno == EAGAIN;
        }
        Write(stream, buffer, static_cast<size_t>(length));
    }
    return true;
}

void Console::Write(const Stream& stream, const char* data, size_t length) {
    (void)!write(stream.log.Get(), data, length);
    // Skip a terminal that cannot take it now: a stopped reader must not stop the board.
    pollfd terminal{stream.terminal, POLLOUT, 0};
    if (stream.terminal >= 0 && poll(&terminal, 1, 0) == 1 && (terminal.revents & POLLOUT) != 0) {
        (void)!write(stream.terminal, data, length);
    }
}

void Console::Say(const std::string& text) {
    (void)Drain(console_);
    const std::string line = "board: " + text + "\n";
    Write(console_, line.data(), line.size());
}

}  // namespace vboard
