// The surroundings of the code under test. While an input runs, its sockets, waits, files, shell
// commands and log lines end here. The input decides what the system answers, and when it refuses.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace fuzz {

// Takes an input apart from its start. Past its end every number is 0 and every text is empty.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}
    bool Empty() const { return at_ == rest_.size(); }
    uint32_t Number(size_t size) {
        uint32_t value = 0;
        for (size_t i = 0; i < size && !Empty(); ++i) {
            value |= uint32_t{static_cast<uint8_t>(rest_[at_++])} << (8 * i);
        }
        return value;
    }
    uint8_t Byte() { return static_cast<uint8_t>(Number(1)); }
    uint16_t Short() { return static_cast<uint16_t>(Number(2)); }
    size_t Below(size_t limit) { return Byte() % limit; }
    std::string Text(size_t size) {
        std::string text = rest_.substr(at_, size);
        at_ += text.size();
        return text;
    }
    // A text after its length.
    std::string Piece() { return Text(Byte()); }
    std::string LongPiece() { return Text(Short()); }
    std::string Rest() { return Text(rest_.size()); }

  private:
    std::string rest_;
    size_t at_ = 0;
};

// Ends the run with a report if the code under test broke a promise.
inline void Require(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

// A text for people must not be able to control a terminal.
inline void RequireSafe(const std::string& text) {
    for (const char c : text) {
        Require(static_cast<uint8_t>(c) >= 0x20 && c != 0x7F);
    }
}

constexpr int kFd = 1000;  // every descriptor that the system gives

struct World {
    Input* in = nullptr;
    int refusals = 0;                     // how often the system has refused something
    int fd = -1;                          // of the call that receives or sends
    std::set<int> ended;                  // descriptors whose peer is gone
    bool poison = false;                  // the rest of a receive buffer must not be touched
    std::vector<std::string> commands;    // shell commands run
    std::function<void()> pause = [] {};  // runs inside each sleep and shell command
    // What the system does, unless the default below will do.
    std::function<int()> open;                          // a descriptor for a new socket
    std::function<std::string(size_t room)> receive;    // the next bytes; empty: none so far
    std::function<void(const std::string& sent)> send;  // gets what the code sends
    std::function<int(int events)> ready;               // which of the events poll finds
    std::function<int(unsigned long request, void* argument)> control;
};
extern World g_world;
extern int64_t g_nowMs;  // the monotonic clock; only waits move it

// A world of its own for each input. Ends with the scope.
class Scope {
  public:
    Scope(const uint8_t* data, size_t size);
    ~Scope() { g_world = World(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    Input in;
};

// Whether the caller is the code under test. Otherwise it is the fuzzer.
bool IsInside();
// True once in `odds` times.
bool Refuses(size_t odds);
// Makes a file that the code under test finds at this path. Only the last component of the path
// counts. Returns where the file really is. All files are gone with the next scope.
std::string Put(const std::string& path, const std::string& text);
std::string Get(const std::string& path);

}  // namespace fuzz

// Replaces a function of the system. The fuzzer itself calls some of them too.
#define WRAP(result, name, parameters, arguments, inside)       \
    result __real_##name parameters;                            \
    result __wrap_##name parameters {                           \
        return IsInside() ? (inside) : __real_##name arguments; \
    }
