#include "tools/device/device_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/base/errors.h"
#include "tools/base/text.h"

namespace kvtool {

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& path) {
    throw ToolError(ExitCode::kInternal,
                    "cannot " + what + " " + Printable(path) + ": " + strerror(errno) +
                        "; it is needed to prevent two upgrades of one device at a time");
}

// In a folder that others can write to, the name may belong to another user.
std::string LockFolder() {
    const char* const runtime = getenv("XDG_RUNTIME_DIR");
    const std::string folder = runtime != nullptr && *runtime == '/'
                                   ? std::string(runtime) + "/kvtool"
                                   : "/tmp/kvtool-" + std::to_string(getuid());
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        Fail("make the folder", folder);
    }
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0) {
        Fail("use the folder", folder);
    }
    if (!S_ISDIR(info.st_mode) || info.st_uid != getuid()) {
        errno = EPERM;
        Fail("use the folder", folder);
    }
    return folder;
}

// A MAC address names one device within one network. Network namespaces may hold different
// networks, as those of virtual boards do.
std::string NetworkName() {
    struct stat info {};
    return stat("/proc/self/ns/net", &info) == 0 ? "@" + std::to_string(info.st_ino) : "";
}

std::string Holder(int fd) {
    std::array<char, 64> text{};
    const ssize_t size = pread(fd, text.data(), text.size() - 1, 0);
    return size > 0 ? Printable(Trimmed(std::string(text.data(), static_cast<size_t>(size) - 1)))
                    : "another process";
}

}  // namespace

DeviceLock::DeviceLock(const std::string& mac) {
    std::string name = mac;
    std::replace(name.begin(), name.end(), ':', '-');
    const std::string path = LockFolder() + "/" + name + NetworkName() + ".lock";
    // The file is never removed. Otherwise a process could remove the file that another one has
    // just locked.
    fd_.Reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd_) {
        Fail("open", path);
    }
    if (flock(fd_.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            Fail("lock", path);
        }
        throw ToolError(ExitCode::kBusy, mac + " is being upgraded by " + Holder(fd_.Get()) +
                                             " on this PC; nothing was sent");
    }
    const std::string holder = "kvtool, process " + std::to_string(getpid()) + "\n";
    if (ftruncate(fd_.Get(), 0) != 0 ||
        pwrite(fd_.Get(), holder.data(), holder.size(), 0) != static_cast<ssize_t>(holder.size())) {
        Fail("write", path);
    }
}

}  // namespace kvtool
