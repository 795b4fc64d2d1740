#include "tests/fuzz/world.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sanitizer/asan_interface.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/kv_mini_trace.h"
#include "common/kv_shell.h"

namespace fuzz {

World g_world;
int64_t g_nowMs = 1000000;

namespace {

// In memory, and gone with the process.
struct Folder {
    std::string path = "/dev/shm/fuzz-" + std::to_string(getpid());
    bool used = std::filesystem::create_directory(path);
    ~Folder() { std::filesystem::remove_all(path); }
};
Folder g_folder;
FILE* g_file;                // that the code under test has opened last
thread_local bool g_inside;  // this thread runs the code under test

std::string Place(const std::string& path) {
    return g_folder.path + path.substr(path.rfind('/'));
}

void Pause(int64_t ms) {
    g_nowMs += ms;
    g_world.pause();
}

int Outcome(size_t odds, int error) {
    errno = error;
    return Refuses(odds) ? -1 : 0;
}

ssize_t Receive(int fd, void* to, size_t size) {
    g_world.fd = fd;
    const std::string bytes = g_world.receive ? g_world.receive(size)
                              : Refuses(16)   ? ""
                                              : g_world.in->LongPiece();
    if (bytes.empty()) {
        errno = Refuses(8) ? ECONNRESET : EAGAIN;
        const int result = Refuses(4) ? 0 : -1;
        if (result == 0 || errno == ECONNRESET) {
            g_world.ended.insert(fd);
        }
        return result;
    }
    ASAN_UNPOISON_MEMORY_REGION(to, size);
    const size_t got = bytes.copy(static_cast<char*>(to), size);
    if (g_world.poison && got + 1 < size) {
        ASAN_POISON_MEMORY_REGION(static_cast<char*>(to) + got + 1, size - got - 1);
    }
    return static_cast<ssize_t>(got);
}

ssize_t Send(int fd, const void* bytes, size_t size, bool whole) {
    g_world.fd = fd;
    if (Refuses(64)) {
        errno = g_world.in->Byte() < 128 ? EPIPE : EAGAIN;
        if (errno == EPIPE) {
            g_world.ended.insert(fd);
        }
        return -1;
    }
    const size_t taken = !whole && Refuses(16) ? size / 2 : size;
    if (g_world.send) {
        g_world.send(std::string(static_cast<const char*>(bytes), taken));
    }
    return static_cast<ssize_t>(taken);
}

}  // namespace

Scope::Scope(const uint8_t* data, size_t size) : in(data, size) {
    if (g_folder.used) {
        std::filesystem::remove_all(g_folder.path);
        g_folder.used = !std::filesystem::create_directory(g_folder.path);
    }
    g_world = World();
    g_world.in = &in;
    g_inside = true;
}

bool IsInside() {
    return g_world.in != nullptr && g_inside;
}

bool Refuses(size_t odds) {
    const bool refuses = g_world.in->Below(odds) == odds - 1;
    g_world.refusals += refuses ? 1 : 0;
    return refuses;
}

std::string Put(const std::string& path, const std::string& text) {
    g_folder.used = true;
    const std::string place = Place(path);
    // System calls, because fuzzers replace the C library's functions for this.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    const auto fd = syscall(SYS_openat, AT_FDCWD, place.c_str(), kFlags, 0600);
    Require(syscall(SYS_write, fd, text.data(), text.size()) == static_cast<long>(text.size()));
    (void)syscall(SYS_close, fd);
    return place;
}

std::string Get(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(Place(path), std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace fuzz

using namespace fuzz;

// Keeps freed memory for the length of an input, not for thousands. That is up to a third faster.
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=8";
}

// Formats as the log does, and lets no text from outside forge a line. A message may end with a
// line feed of its own.
int KV_Trace(uint32_t, const char*, const char*, const char*, int, const char*, const char* format,
             ...) {
    char text[512];
    va_list values;
    va_start(values, format);
    (void)vsnprintf(text, sizeof(text), format, values);
    va_end(values);
    const size_t length = strlen(text);
    RequireSafe(std::string(text, length > 0 && text[length - 1] == '\n' ? length - 1 : length));
    return 0;
}
void KV_AssertFail(const char*, int, const char*, const char*, ...) {
    abort();
}
int KV_ShellRun(const char* command, int* status) {
    g_world.commands.emplace_back(command);
    Pause(1);
    if (status != nullptr) {
        *status = Refuses(64) ? 256 : 0;
    }
    return 0;
}
int KV_ShellRunFor(const char* command, int, int* status) {
    return KV_ShellRun(command, status);
}
void KV_ShellEcho(const char* command) {
    (void)KV_ShellRun(command, nullptr);
}
void KV_ShellEchoFormat(const char* format, ...) {
    char command[256];
    va_list values;
    va_start(values, format);
    (void)vsnprintf(command, sizeof(command), format, values);
    va_end(values);
    KV_ShellEcho(command);
}

extern "C" {
WRAP(int, socket, (int a, int b, int c), (a, b, c),
     Refuses(64)    ? -1
     : g_world.open ? g_world.open()
                    : kFd)
WRAP(int, bind, (int a, const sockaddr* b, socklen_t c), (a, b, c), Outcome(64, EADDRINUSE))
WRAP(int, listen, (int a, int b), (a, b), 0)
WRAP(int, connect, (int a, const sockaddr* b, socklen_t c), (a, b, c),
     Outcome(32, g_world.in->Byte()))
WRAP(int, fcntl64, (int a, int b, int c), (a, b, c), Outcome(64, EBADF))
WRAP(int, setsockopt, (int a, int b, int c, const void* d, socklen_t e), (a, b, c, d, e), 0)
WRAP(int, ioctl, (int a, unsigned long b, void* c), (a, b, c),
     Refuses(32)       ? -1
     : g_world.control ? g_world.control(b, c)
                       : 0)
WRAP(ssize_t, send, (int a, const void* b, size_t c, int d), (a, b, c, d), Send(a, b, c, false))
WRAP(ssize_t, sendto, (int a, const void* b, size_t c, int d, const sockaddr* e, socklen_t f),
     (a, b, c, d, e, f), Send(a, b, c, true))
WRAP(ssize_t, recv, (int a, void* b, size_t c, int d), (a, b, c, d), Receive(a, b, c))
WRAP(int, usleep, (useconds_t a), (a), (g_nowMs += a / 1000, 0))
WRAP(unsigned, sleep, (unsigned a), (a), (Pause(int64_t{a} * 1000), 0U))
WRAP(int, nanosleep, (const timespec* a, timespec* b), (a, b),
     (Pause(a->tv_sec * 1000 + a->tv_nsec / 1000000), 0))
WRAP(int, unlink, (const char* a), (a), __real_unlink(Place(a).c_str()))
WRAP(int, access, (const char* a, int b), (a, b), __real_access(Place(a).c_str(), b))
WRAP(FILE*, fopen64, (const char* a, const char* b), (a, b),
     g_file = (g_folder.used = true, Refuses(64)) ? nullptr : __real_fopen64(Place(a).c_str(), b))
WRAP(size_t, fwrite, (const void* a, size_t b, size_t c, FILE* d), (a, b, c, d),
     d == g_file && Refuses(64) ? 0 : __real_fwrite(a, b, c, d))

ssize_t __wrap_recvfrom(int fd, void* to, size_t size, int, sockaddr* from, socklen_t*) {
    auto* const sender = reinterpret_cast<sockaddr_in*>(from);
    sender->sin_family = AF_INET;
    sender->sin_addr.s_addr = htonl(0xC0000200 + g_world.in->Byte() % 4U);
    return Receive(fd, to, size);
}
int __wrap_poll(pollfd* entries, nfds_t count, int timeoutMs) {
    const int events = entries[0].events;
    const int ready = entries[0].fd < 0 || g_world.in->Empty() || Refuses(8) ? 0
                      : g_world.ready                                        ? g_world.ready(events)
                                                                             : events;
    entries[count - 1].revents = 0;
    entries[0].revents = static_cast<short>(ready);
    // What comes may come late.
    const int part = ready != 0 ? g_world.in->Byte() / 64 : 4;
    g_nowMs += std::min(timeoutMs, timeoutMs / 4 * part + 1);
    return ready != 0 ? 1 : 0;
}
// The fuzzer itself measures on the other clocks.
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (clock != CLOCK_MONOTONIC || !IsInside()) {
        return __real_clock_gettime(clock, now);
    }
    *now = {g_nowMs / 1000, g_nowMs % 1000 * 1000000};
    return 0;
}
// steady_clock's now: nanoseconds.
int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return g_nowMs * 1000000;
}
// The serial number is then "AAAAAAAA", in every run.
int __wrap_rand() {
    return 'A' - 1;
}
}
