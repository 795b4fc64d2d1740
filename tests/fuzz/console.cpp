// Console messages, through the console's own thread procedure and pipe.
#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

#include <csetjmp>

#include "common/kv_mini_console.h"
#include "tests/fuzz/world.h"

using namespace fuzz;

namespace {

void* (*g_console)(void*);
jmp_buf g_end;

std::string Message() {
    Input& in = *g_world.in;
    const uint32_t count = in.Byte() < 240 ? in.Byte() : in.Number(4);
    std::string name = in.Below(4) == 3 ? in.Piece() : "kv-watdog";
    name = in.Below(4) == 3 ? "kv-console-cmd-print" : name;
    name.resize(64);
    constexpr const char* kWords[] = {"Stop", "Start", "Reboot", ""};
    std::string message = std::string(reinterpret_cast<const char*>(&count), 4) + name;
    const std::string words = in.Below(4) == 3 ? in.LongPiece() : kWords[in.Below(4)];
    return (message + words).substr(0, in.Below(8) == 7 ? in.Short() : message.npos);
}

}  // namespace

extern "C" {
WRAP(int, open64, (const char* a, int b, int c), (a, b, c), Refuses(16) ? -1 : kFd)
WRAP(int, dup3, (int a, int b, int c), (a, b, c), b)
WRAP(int, symlink, (const char* a, const char* b), (a, b), -1)
WRAP(int, pthread_join, (pthread_t a, void** b), (a, b), 0)
WRAP(int, prctl, (int a, const char* b), (a, b), 0)
// A reboot request keeps the keeper's lock for ever. The next command must not wait for it here.
WRAP(int, pthread_mutex_lock, (pthread_mutex_t * a), (a), pthread_mutex_trylock(a) & 0)
// Threads are not started: the console runs inside the fuzzer, and the watchdog needs no feeding.
WRAP(int, pthread_create, (pthread_t * a, const pthread_attr_t* b, void* (*c)(void*), void* d),
     (a, b, c, d), (g_console = g_console == nullptr ? c : g_console, 0))
WRAP(ssize_t, read, (int a, void* b, size_t c), (a, b, c),
     static_cast<ssize_t>(Message().copy(static_cast<char*>(b), c)))

ssize_t __real_write(int fd, const void* from, size_t size);
ssize_t __wrap_write(int fd, const void* from, size_t size) {
    if (!IsInside() || fd != kFd) {
        return __real_write(fd, from, size);
    }
    Require(size >= 7 && size < 8200 && memcmp(from, "reply:\n", 7) == 0);
    return Refuses(16) ? -1 : static_cast<ssize_t>(size);
}
// The end of the input ends the console's loop from inside.
int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*) {
    if (g_world.in->Empty()) {
        longjmp(g_end, 1);
    }
    return static_cast<int>(g_world.in->Below(16)) - 1;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_console == nullptr) {
        const Scope nothing(nullptr, 0);
        Require(KV_Console_DeInit() == -1 && KV_Console_Init() == 0 && KV_Console_Init() == 0);
    }
    const Scope scope(data, size);
    if (setjmp(g_end) == 0) {
        (void)g_console(nullptr);
    }
    return 0;
}
