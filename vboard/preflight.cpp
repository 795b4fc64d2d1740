#include "vboard/preflight.h"

#include <fcntl.h>
#include <glob.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "common/kv_raii.h"
#include "vboard/process.h"

namespace vboard {

namespace {

void WriteProc(const std::string& name, const std::string& text) {
    const UniqueFd file(open(("/proc/self/" + name).c_str(), O_WRONLY | O_CLOEXEC));
    if (!file || write(file.Get(), text.data(), text.size()) < 0) {
        throw SysError("cannot set up the user namespace (" + name + ")");
    }
}

}  // namespace

std::string ClockLibrary() {
    for (const char* const folder :
         {"/usr/lib/*/faketime", "/usr/lib/faketime", "/usr/lib64/faketime"}) {
        glob_t found{};
        const std::string pattern = std::string(folder) + "/libfaketimeMT.so.1";
        const bool any = glob(pattern.c_str(), 0, nullptr, &found) == 0;
        const std::string path = any ? found.gl_pathv[0] : "";
        globfree(&found);
        if (any) {
            return path;
        }
    }
    throw std::runtime_error(
        "an accelerated clock needs libfaketime, which the host lacks (Debian package "
        "libfaketime)");
}

void CheckHost(bool wifi, int speed) {
    struct Tool {
        const char* name;
        const char* package;
        bool wifiOnly;
    };
    static constexpr Tool kTools[] = {
        {"ip", "iproute2", false},          {"busybox", "busybox", false},
        {"killall", "psmisc", false},       {"unsquashfs", "squashfs-tools", false},
        {"ifconfig", "net-tools", false},   {"udhcpc", "udhcpc", true},
        {"udhcpd", "udhcpd", true},         {"wpa_supplicant", "wpasupplicant", true},
        {"wpa_cli", "wpasupplicant", true},
    };
    for (const Tool& tool : kTools) {
        if ((wifi || !tool.wifiOnly) && FindTool(tool.name).empty()) {
            throw std::runtime_error(std::string("the host lacks ") + tool.name +
                                     " (Debian package " + tool.package + ")");
        }
    }
    if (speed != 1) {
        (void)ClockLibrary();
    }
    const UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fuse) {
        throw SysError(errno == ENOENT || errno == ENODEV
                           ? "the host has no /dev/fuse (load the kernel's fuse module)"
                           : "/dev/fuse cannot be used");
    }
}

void BecomeRoot() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (user == 0) {
        return;
    }
    if (unshare(CLONE_NEWUSER) != 0) {
        throw SysError(
            "the kernel does not allow user namespaces for ordinary users (allow them by sysctl, "
            "or run vboard as root)");
    }
    WriteProc("setgroups", "deny");
    WriteProc("uid_map", "0 " + std::to_string(user) + " 1");
    WriteProc("gid_map", "0 " + std::to_string(group) + " 1");
    // Some hosts allow the namespace but not its capabilities.
    if (unshare(CLONE_NEWNS) != 0) {
        throw SysError(
            "the kernel denies this program the capabilities of its user namespace (a security "
            "module's policy?); run vboard as root");
    }
}

}  // namespace vboard
