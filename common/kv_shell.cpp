#include "common/kv_shell.h"

#include <dirent.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/kv_time.h"

#ifdef __GLIBC__
#define KV_HAS_CLOSEFROM __GLIBC_PREREQ(2, 34)
#else
#define KV_HAS_CLOSEFROM 0
#endif

extern char** environ;

namespace {

constexpr int kShellNotFound = 127 << 8;
constexpr int kPollMs = 20;

#if KV_HAS_CLOSEFROM

void AddCloseOthers(posix_spawn_file_actions_t* actions) {
    (void)posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1);
}

#else

// How many descriptors other threads may open between the look at /proc and the start of the child.
constexpr int kDescriptorReserve = 16;

// Returns -1 without /proc.
int HighestDescriptor() {
    DIR* folder = opendir("/proc/self/fd");
    if (folder == nullptr) {
        return -1;
    }
    int highest = -1;
    while (const dirent* entry = readdir(folder)) {
        highest = std::max(highest, atoi(entry->d_name));
    }
    (void)closedir(folder);
    return highest;
}

// Other C libraries can close only single descriptors, and ignore those that are not open. Each
// descriptor that another thread opens meanwhile gets the lowest free number, so a few numbers
// above the highest are enough.
void AddCloseOthers(posix_spawn_file_actions_t* actions) {
    const int highest = HighestDescriptor();
    for (int i = STDERR_FILENO + 1; highest >= 0 && i <= highest + kDescriptorReserve; ++i) {
        (void)posix_spawn_file_actions_addclose(actions, i);
    }
}

#endif

// posix_spawn is as cheap as vfork but without its traps: no handler of ours can run in the child,
// and a failed exec cannot return into our code.
//   closeOthers  closes all descriptors but the standard ones in the child
int SpawnShell(const char* command, bool closeOthers, pid_t* pid) {
    posix_spawnattr_t attributes;
    sigset_t none;
    sigset_t all;
    (void)sigemptyset(&none);
    (void)sigfillset(&all);
    (void)posix_spawnattr_init(&attributes);
    (void)posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    (void)posix_spawnattr_setsigdefault(&attributes, &all);
    (void)posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    if (closeOthers) {
        AddCloseOthers(&actions);
    }
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    const int error = posix_spawn(pid, "/bin/sh", &actions, &attributes,
                                  const_cast<char* const*>(arguments), environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    (void)posix_spawnattr_destroy(&attributes);
    return error;
}

// Whether the error means that no child could be created. Other errors mean that the child could
// not become a shell.
bool IsShortage(int error) {
    return error == EAGAIN || error == ENOMEM;
}

// Returns false with errno if the wait fails or the child has not ended in time.
bool AwaitChild(pid_t pid, int timeoutMs, int* status) {
    const int64_t start = kv::MonotonicMilliseconds();
    for (;;) {
        const pid_t result = waitpid(pid, status, timeoutMs < 0 ? 0 : WNOHANG);
        if (result > 0) {
            return true;
        }
        if (result < 0 && errno != EINTR) {
            return false;
        }
        if (timeoutMs >= 0) {
            if (kv::MonotonicMilliseconds() - start >= timeoutMs) {
                errno = ETIMEDOUT;
                return false;
            }
            kv::SleepMilliseconds(kPollMs);
        }
    }
}

}  // namespace

int KV_ShellRun(const char* command, int* status) {
    return KV_ShellRunFor(command, -1, status);
}

int KV_ShellRunFor(const char* command, int timeoutMs, int* status) {
    pid_t pid = -1;
    // The program opens everything close-on-exec, but a library's raw socket may not be. An older
    // kernel without /proc cannot close descriptors in the child. The command then runs with one
    // descriptor too many, which is better than not at all.
    int error = SpawnShell(command, true, &pid);
    if (error != 0 && !IsShortage(error)) {
        error = SpawnShell(command, false, &pid);
    }
    if (IsShortage(error)) {
        errno = error;
        return 1;
    }
    int waited = kShellNotFound;
    if (error == 0 && !AwaitChild(pid, timeoutMs, &waited)) {
        return -1;
    }
    if (status != nullptr) {
        *status = waited;
    }
    return 0;
}

void KV_ShellEcho(const char* command) {
    (void)printf("# %s\r\n", command);
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
