#include "vboard/rootfs.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/kv_platform.h"
#include "vboard/platform_files.h"
#include "vboard/process.h"
#include "vboard/state.h"

namespace vboard {

namespace fs = std::filesystem;

namespace {

constexpr char kDeviceMount[] = "run/devices";

void Mount(const char* source, const fs::path& target, const char* type, unsigned long flags,
           const char* data = nullptr) {
    if (mount(source, target.c_str(), type, flags, data) != 0) {
        throw SysError("cannot mount " + std::string(source) + " at " + target.string());
    }
}

// Creates `target` as a file or folder like `source`, and binds `source` there.
void Bind(const fs::path& source, const fs::path& target, bool readOnly) {
    if (fs::is_directory(source)) {
        fs::create_directories(target);
    } else {
        fs::create_directories(target.parent_path());
        if (!fs::exists(target)) {
            WriteText(target, "");
        }
    }
    Mount(source.c_str(), target, nullptr, MS_BIND | MS_REC);
    if (!readOnly) {
        return;
    }
    // Unlike a remount, this adds one attribute and keeps those that an ordinary user may not
    // change.
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, target.c_str(), AT_RECURSIVE, &attributes, sizeof(attributes)) !=
        0) {
        throw SysError("cannot make " + target.string() + " read-only");
    }
}

// Binds /usr and the host's /bin and /lib*, or copies them if they are links.
void BindPrograms(const fs::path& root) {
    Bind("/usr", root / "usr", true);
    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const std::string name = entry.path().filename();
        if (name != "bin" && name.rfind("lib", 0) != 0) {
            continue;
        }
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), root / name);
        } else if (entry.is_directory()) {
            Bind(entry.path(), root / name, true);
        }
    }
}

// Makes /sbin a folder of links to the host's programs. So this program can be in it too, as the
// command link's client.
void FillSbin(const fs::path& root, const std::string& self) {
    Bind("/sbin", root / "run/sbin", true);
    fs::create_directory(root / "sbin");
    for (const fs::directory_entry& entry : fs::directory_iterator("/sbin")) {
        const fs::path name = entry.path().filename();
        fs::create_symlink("/run/sbin" / name, root / "sbin" / name);
    }
    Bind(self, root / std::string(kv::kConsoleClient).substr(1), true);
}

void FillEtc(const fs::path& etc) {
    fs::create_directories(etc / "configs");
    for (const char* name :
         {"ld.so.cache", "localtime", "nsswitch.conf", "protocols", "services"}) {
        std::error_code absent;
        fs::copy_file(fs::path("/etc") / name, etc / name, absent);
    }
    if (fs::exists("/etc/alternatives")) {
        Bind("/etc/alternatives", etc / "alternatives", true);
    }
    WriteText(etc / "passwd", "root:x:0:0:root:/root:/bin/sh\n");
    WriteText(etc / "group", "root:x:0:\n");
    WriteText(etc / "hosts", "127.0.0.1 localhost\n");
    WriteText(etc / "resolv.conf", "");
}

void PlacePlatform(const fs::path& root) {
    for (const PlatformFile& file : PlatformFiles()) {
        fs::path place = root / "opt/board/bin" / file.name;
        if (file.name == "wifi_connect.sh") {
            place = root / "root" / file.name;
        } else if (file.name == "udhcpc.script") {
            place = root / "etc/udhcpc/default.script";
        }
        fs::create_directories(place.parent_path());
        WriteText(place, file.text);
        fs::permissions(place, fs::perms(0755));
    }
}

void FillDev(const fs::path& dev) {
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        Bind(fs::path("/dev") / name, dev / name, false);
    }
    fs::create_directories(dev / "shm");
    fs::create_symlink("/proc/self/fd", dev / "fd");
    fs::create_symlink("/proc/self/fd/0", dev / "stdin");
    fs::create_symlink("/proc/self/fd/1", dev / "stdout");
    fs::create_symlink("/proc/self/fd/2", dev / "stderr");
}

// Mounts /proc. The kernel's switches are read-only because they are the host's, except the one
// that a device's programs write: it is a private file.
void MountProc(const fs::path& root) {
    Mount("proc", root / "proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    WriteText(root / "run/drop_caches", "");
    Bind(root / "proc/sys", root / "proc/sys", true);
    Bind(root / "run/drop_caches", root / "proc/sys/vm/drop_caches", false);
    if (fs::exists(root / "proc/sysrq-trigger")) {
        Bind(root / "proc/sysrq-trigger", root / "proc/sysrq-trigger", true);
    }
}

}  // namespace

void BuildRoot(const BootConfig& config) {
    const fs::path root = config.root;
    const fs::path state = config.state;
    // Keep all mounts from here on inside this namespace.
    Mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
    Mount("board", root, "tmpfs", MS_NOSUID, "mode=755");
    for (const char* folder : {"dev", "etc", "mnt", "opt/app", "param", "proc", "root", "run",
                               "sys/class/gpio", "tmp", "var/log", "var/run", kDeviceMount}) {
        fs::create_directories(root / folder);
    }
    fs::permissions(root / "tmp", fs::perms(01777));
    Mount("tmp", root / "tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    BindPrograms(root);
    FillSbin(root, config.self);
    FillEtc(root / "etc");
    PlacePlatform(root);
    FillDev(root / "dev");
    MountProc(root);
    Bind(state / "param", root / "param", false);
    Bind(state / "gpio", root / "sys/class/gpio", false);
    Bind(state / "platform", root / "run/board", false);
    Bind(config.program, root / "opt/upgrade/upgradeMain", true);
    if (!config.appFlash.empty()) {
        Bind(config.appFlash, root / "run/board/app-flash", true);
    }
}

DevicesMount MountDevices() {
    DevicesMount mount;
    mount.fuse.Reset(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!mount.fuse) {
        throw SysError("cannot open /dev/fuse");
    }
    const UniqueFd context(fsopen("fuse", FSOPEN_CLOEXEC));
    const std::string fuse = std::to_string(mount.fuse.Get());
    const char* const options[][2] = {
        {"source", "devices"}, {"fd", fuse.c_str()}, {"rootmode", "40000"},
        {"user_id", "0"},      {"group_id", "0"},
    };
    for (const auto& option : options) {
        if (fsconfig(context.Get(), FSCONFIG_SET_STRING, option[0], option[1], 0) != 0) {
            throw SysError("cannot prepare the devices' file system");
        }
    }
    if (fsconfig(context.Get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) == 0) {
        mount.tree.Reset(
            fsmount(context.Get(), FSMOUNT_CLOEXEC, MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV));
    }
    if (!mount.tree) {
        throw SysError("cannot mount the devices' file system");
    }
    return mount;
}

void PlaceDevices(const BootConfig& config, int tree) {
    const fs::path root = config.root;
    if (move_mount(tree, "", AT_FDCWD, (root / kDeviceMount).c_str(), MOVE_MOUNT_F_EMPTY_PATH) !=
        0) {
        throw SysError("cannot place the devices' file system");
    }
    for (const std::string& name : config.devices) {
        Bind(root / kDeviceMount / name, root / "dev" / name, false);
    }
}

void EnterRoot(const BootConfig& config) {
    if (chdir(config.root.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 ||
        umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) {
        throw SysError("cannot enter the board's file system");
    }
}

}  // namespace vboard
