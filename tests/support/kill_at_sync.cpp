// Loaded into a program ahead of its libraries: kills it right after its KILL_AT_SYNC-th fdatasync
// of a file. The data is then on the disk, and the program has done nothing of what comes next.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace {

std::atomic<int> g_syncs{0};

}  // namespace

extern "C" int fdatasync(int fd) {
    const char* const at = getenv("KILL_AT_SYNC");
    const long result = syscall(SYS_fdatasync, fd);
    if (at != nullptr && ++g_syncs == atoi(at)) {
        (void)kill(getpid(), SIGKILL);
    }
    return static_cast<int>(result);
}
