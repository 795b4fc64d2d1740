// Replaces the event loop: a connection that records what was done to it. A program that uses it
// wraps nanosleep and the hio functions that recorded_io.cpp defines.
#pragma once

#include <atomic>

#include "mini/kv_mini_session.h"
#include "tests/support/common.h"

namespace kv_test {

constexpr char kCommandLog[] = "/tmp/commands.log";

struct Connection {
    SessionRecord session{};
    hread_cb onRead = nullptr;
    int reads = 0;
    std::vector<int> timeouts;
    Lines replies;
    std::string commandsAtReply;  // commands run before the reply

    hio_t* Io() { return reinterpret_cast<hio_t*>(this); }
};

// The sum of all requested sleeps; none takes place.
extern std::atomic<long> g_sleptMs;

}  // namespace kv_test
