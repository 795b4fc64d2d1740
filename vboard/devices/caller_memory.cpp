#include "vboard/devices/caller_memory.h"

#include <sys/syscall.h>
#include <sys/uio.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>

namespace vboard {
namespace {

enum class Waiting { kForUs, kForOther, kNotYet };

// The kernel gives callers' ids in the PID namespace of the process that mounted the file system.
// If that is not ours, the id is some other process here, whose memory we would read without any
// error.
Waiting WaitsFor(const IoctlCall& call) {
    std::ifstream file("/proc/" + std::to_string(call.pid) + "/syscall");
    std::string line;
    if (!std::getline(file, line)) {
        return Waiting::kForOther;
    }
    if (line == "running") {
        return Waiting::kNotYet;  // it has queued the request but does not sleep yet
    }
    long number = 0;
    uint64_t request = 0;
    uint64_t argument = 0;
    const int fields =
        sscanf(line.c_str(), "%ld %*s %" SCNx64 " %" SCNx64, &number, &request, &argument);
    const bool same = fields == 3 && number == SYS_ioctl &&
                      static_cast<uint32_t>(request) == call.request &&
                      argument == reinterpret_cast<uintptr_t>(call.argument);
    return same ? Waiting::kForUs : Waiting::kForOther;
}

}  // namespace

std::optional<int> ReadCallerInt(const IoctlCall& call, const StopSignal& stop) {
    using namespace std::chrono_literals;
    const auto limit = std::chrono::steady_clock::now() + 100ms;
    Waiting waiting = WaitsFor(call);
    while (waiting == Waiting::kNotYet && std::chrono::steady_clock::now() < limit &&
           !stop.RaisedBefore(std::chrono::steady_clock::now() + 1ms)) {
        waiting = WaitsFor(call);
    }
    if (waiting != Waiting::kForUs) {
        (void)fprintf(stderr,
                      "vboard: cannot read the argument of request 0x%08x: process %d is not its "
                      "caller. Was /dev mounted from another PID namespace?\n",
                      call.request, static_cast<int>(call.pid));
        return std::nullopt;
    }
    int value = 0;
    const iovec here{&value, sizeof value};
    const iovec there{const_cast<void*>(call.argument), sizeof value};
    if (process_vm_readv(call.pid, &here, 1, &there, 1, 0) != static_cast<ssize_t>(sizeof value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace vboard
