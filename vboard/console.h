// What one boot writes: two streams, each into its log file and onto the runner's terminal.
#pragma once

#include <string>

#include "common/kv_raii.h"
#include "vboard/loop.h"
#include "vboard/state.h"

namespace vboard {

class Console {
  public:
    // Opens the logs of boot `boot`. With `quiet` nothing goes to the terminal.
    Console(Loop* loop, const StateDir& state, int boot, bool quiet);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Ends for the board's processes, until closed.
    int ConsoleEnd() const { return console_.writeEnd.Get(); }
    int TraceEnd() const { return trace_.writeEnd.Get(); }
    // To be called once the board's init has them.
    void CloseBoardEnds();

    // While held, nobody reads the trace: once the pipe is full, who traces blocks.
    void HoldTrace(bool held);

    // A platform message of the runner.
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
    // Moves what is there; false at the end of the stream.
    static bool Drain(const Stream& stream);
    static void Write(const Stream& stream, const char* data, size_t length);

    Loop* loop_;
    Stream console_;
    Stream trace_;
};

}  // namespace vboard
