// Changes the environment of a test. Only for programs that run in a sandbox.
#pragma once

#include <sys/mount.h>
#include <sys/resource.h>

#include <climits>

#include "tests/support/common.h"

namespace kv_test {

// Call it at the start of a fixture. It ends the program outside a sandbox, where even the clean-up
// of a failed test would change the machine.
inline void RequireSandbox() {
    if (access("/tmp/stubs/reboot", X_OK) != 0) {
        (void)fputs("run it with tests/support/in_sandbox.sh\n", stderr);
        exit(1);
    }
}

// Runs ip(8) with these arguments.
inline void Ip(const std::string& arguments) {
    (void)Shell("ip " + arguments);
}

// While it exists, no socket or file can be opened.
class NoDescriptors {
  public:
    NoDescriptors() {
        (void)getrlimit(RLIMIT_NOFILE, &saved_);
        const struct rlimit none = {0, saved_.rlim_max};
        (void)setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { (void)setrlimit(RLIMIT_NOFILE, &saved_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    struct rlimit saved_ {};
};

// While it exists, `path` shows the file or directory `source`.
class Replaced {
  public:
    Replaced(const char* source, const char* path) {
        EXPECT_NE(realpath(path, path_), nullptr);
        EXPECT_EQ(mount(source, path_, nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    }
    ~Replaced() { EXPECT_EQ(umount2(path_, MNT_DETACH), 0) << strerror(errno); }
    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

  private:
    char path_[PATH_MAX] = {};
};

}  // namespace kv_test
