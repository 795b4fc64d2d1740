// What this process holds. It must be the same before and after code that should leave nothing.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <set>

#include "tests/support/common.h"

namespace kv_test {

inline long CountEntries(const char* directory, const std::string& prefix = "") {
    long count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        count += entry.path().filename().string().compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    }
    return count;
}

inline std::set<int> OpenDescriptors() {
    std::set<int> open;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            open.insert(fd);
        }
    }
    return open;
}

inline long Descriptors() {
    return static_cast<long>(OpenDescriptors().size());
}

// Number of sockets on which this option has this value.
inline long CountOption(int level, int name, int value) {
    const std::set<int> open = OpenDescriptors();
    return std::count_if(open.begin(), open.end(), [=](int fd) {
        int found = -1;
        socklen_t length = sizeof(found);
        return getsockopt(fd, level, name, &found, &length) == 0 && found == value;
    });
}

inline long Threads() {
    return CountEntries("/proc/self/task");
}

// Private resident memory in KiB. Always 0 under a sanitizer, whose own memory hides the program's.
inline long PrivateKib() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 8, "RssAnon:") == 0) {
            return std::stol(line.substr(8));
        }
    }
#endif
    return 0;
}

// What the process holds at one moment.
struct Footprint {
    long descriptors = Descriptors();
    long threads = Threads();
    long kib = PrivateKib();
};

}  // namespace kv_test
