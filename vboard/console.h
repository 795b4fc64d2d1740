// The output of one boot: two streams, each copied to its log file and the runner's terminal.
#pragma once

#include <string>

#include "common/kv_raii.h"
#include "vboard/loop.h"
#include "vboard/state.h"

namespace vboard {

class Console {
  public:
    // Opens the logs of boot `boot`. With `quiet`, nothing goes to the terminal.
    Console(Loop* loop, const StateDir& state, int boot, bool quiet);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // The write ends for the board's processes, valid until CloseBoardEnds.
    int ConsoleEnd() const { return console_.writeEnd.Get(); }
    int TraceEnd() const { return trace_.writeEnd.Get(); }
    // Call it once the board's init has them.
    void CloseBoardEnds();

    // While held, the trace is not read: once the pipe is full, a thread that traces blocks.
    void HoldTrace(bool held);

    // Writes a platform message from the runner.
    void Say(const std::string& text);

  private:
    struct Stream {
        UniqueFd readEnd;
        UniqueFd writeEnd;
        UniqueFd log;
        int terminal = -1;
    };
    void Open(Stream* stream, const std::string& file, int terminal);
    void Watch(const Stream* stream);
    // Copies what is available. False at the end of the stream.
    static bool Drain(const Stream& stream);
    static void Write(const Stream& stream, const char* data, size_t length);

    Loop* loop_;
    Stream console_;
    Stream trace_;
};

}  // namespace vboard
