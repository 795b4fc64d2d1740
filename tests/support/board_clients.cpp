#include "tests/support/board_clients.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <mtd/mtd-user.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

#define CLIENT_CHECK(condition) \
    do {                        \
        if (!(condition)) {     \
            return __LINE__;    \
        }                       \
    } while (false)

constexpr int64_t kBlock = 65536;

// The calls of a flash writer, good and bad, on an erased partition of eight blocks.
int Writer(const std::string& directory, const std::string&) {
    struct stat status {};
    CLIENT_CHECK(stat((directory + "/mtd3").c_str(), &status) == 0 && status.st_size == 8 * kBlock);
    CLIENT_CHECK(open((directory + "/mtd9").c_str(), O_RDWR) < 0 && errno == ENOENT);
    // O_TRUNC, because a shell's redirection onto a flash device brings it.
    const int fd = open((directory + "/mtd3").c_str(), O_RDWR | O_TRUNC);
    CLIENT_CHECK(fd >= 0 && ftruncate(fd, 0) < 0);
    CLIENT_CHECK(fstat(fd, &status) == 0 && status.st_size == 8 * kBlock);
    mtd_info_user info{};
    CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) == 0);
    CLIENT_CHECK(info.type == MTD_NORFLASH && info.size == 8 * kBlock && info.erasesize == kBlock &&
                 info.writesize == 1);
    int regions = -1;
    CLIENT_CHECK(ioctl(fd, MEMGETREGIONCOUNT, &regions) == 0 && regions == 0);
    CLIENT_CHECK(ioctl(fd, MEMUNLOCK, &info) < 0 && errno == ENOTTY);

    std::vector<char> chunk(2 * kBlock, 0x55);
    CLIENT_CHECK(lseek(fd, kBlock, SEEK_SET) == kBlock);
    CLIENT_CHECK(write(fd, chunk.data(), chunk.size()) == 2 * kBlock);
    CLIENT_CHECK(lseek(fd, kBlock + 16, SEEK_SET) == kBlock + 16);
    CLIENT_CHECK(write(fd, "\xFF\xF0", 2) == 2);
    char back[4] = {};
    CLIENT_CHECK(pread(fd, back, 4, kBlock + 15) == 4);
    CLIENT_CHECK(memcmp(back, "\x55\x55\x50\x55", 4) == 0);
    erase_info_user erase{2 * kBlock, kBlock};
    CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) == 0);
    erase.start = 1;
    CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) < 0 && errno == EINVAL);

    CLIENT_CHECK(pwrite(fd, chunk.data(), 100, 8 * kBlock - 10) == 10);
    CLIENT_CHECK(pwrite(fd, chunk.data(), 100, 8 * kBlock) < 0 && errno == ENOSPC);
    CLIENT_CHECK(pread(fd, back, 4, 8 * kBlock) == 0);
    const int readOnly = open((directory + "/mtd3").c_str(), O_RDONLY);
    erase.start = 0;
    CLIENT_CHECK(ioctl(readOnly, MEMERASE, &erase) < 0 && errno == EPERM);
    return 0;
}

// A keeper that stops the watchdog before it ends.
int OrderlyKeeper(const std::string& directory, const std::string&) {
    const int fd = open((directory + "/watchdog").c_str(), O_WRONLY);
    CLIENT_CHECK(fd >= 0);
    CLIENT_CHECK(open((directory + "/watchdog").c_str(), O_WRONLY) < 0 && errno == EBUSY);
    int value = 0;
    CLIENT_CHECK(ioctl(fd, WDIOC_GETTIMEOUT, &value) == 0 && value == 60);
    value = 0;
    CLIENT_CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &value) < 0 && errno == EINVAL);
    value = 1;
    CLIENT_CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &value) == 0 && value == 1);
    CLIENT_CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
    value = 30;
    CLIENT_CHECK(ioctl(fd, WDIOC_KEEPALIVE, &value) == 0 && value == 30);
    CLIENT_CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &value) == 0 && value <= 1);
    watchdog_info info{};
    CLIENT_CHECK(ioctl(fd, WDIOC_GETSUPPORT, &info) == 0);
    CLIENT_CHECK((info.options & WDIOF_MAGICCLOSE) != 0);
    CLIENT_CHECK(lseek(fd, 0, SEEK_SET) < 0 && errno == ESPIPE);
    CLIENT_CHECK(ioctl(fd, WDIOC_SETOPTIONS, 0) < 0 && errno == EFAULT);
    value = WDIOS_DISABLECARD;
    CLIENT_CHECK(ioctl(fd, WDIOC_SETOPTIONS, &value) == 0 && value == WDIOS_DISABLECARD);
    return 0;
}

// A keeper that ends and leaves the watchdog armed with a time-out of one second.
int DyingKeeper(const std::string& directory, const std::string&) {
    // At once after a close, as a restarted keeper does.
    for (int i = 0; i < 20; ++i) {
        const int fd = open((directory + "/watchdog").c_str(), O_WRONLY);
        CLIENT_CHECK(fd >= 0 && write(fd, "V", 1) == 1 && close(fd) == 0);
    }
    const int fd = open((directory + "/watchdog").c_str(), O_WRONLY);
    int value = 1;
    CLIENT_CHECK(fd >= 0 && ioctl(fd, WDIOC_SETTIMEOUT, &value) == 0);
    return 0;
}

int Feed(const std::string& directory, const std::string&) {
    const int fd = open((directory + "/watchdog").c_str(), O_WRONLY);
    CLIENT_CHECK(fd >= 0);
    for (int i = 0; i < 20; ++i) {
        CLIENT_CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
    }
    CLIENT_CHECK(write(fd, "V", 1) == 1);
    return 0;
}

// Meets the faults that the test has prepared.
int Faulty(const std::string& directory, const std::string&) {
    CLIENT_CHECK(open((directory + "/mtd3").c_str(), O_RDWR) < 0 && errno == EACCES);
    const int fd = open((directory + "/mtd3").c_str(), O_RDWR);
    mtd_info_user info{};
    erase_info_user erase{0, kBlock};
    CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) == 0);
    CLIENT_CHECK(ioctl(fd, MEMERASE, &erase) < 0 && errno == EIO);
    CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) < 0 && errno == EIO);
    CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) == 0);
    const std::vector<char> chunk(kBlock, 0);
    CLIENT_CHECK(write(fd, chunk.data(), kBlock) == 4096);
    CLIENT_CHECK(lseek(fd, 0, SEEK_CUR) == 4096);
    char byte = 1;
    CLIENT_CHECK(pread(fd, &byte, 1, 0) < 0 && errno == EIO);
    CLIENT_CHECK(pread(fd, &byte, 1, 4095) == 1 && byte == 0);
    CLIENT_CHECK(pread(fd, &byte, 1, 4096) == 1 && byte == '\xFF');
    CLIENT_CHECK(open((directory + "/watchdog").c_str(), O_WRONLY) < 0 && errno == EBUSY);
    const int dog = open((directory + "/watchdog").c_str(), O_WRONLY);
    int value = 30;
    CLIENT_CHECK(ioctl(dog, WDIOC_SETTIMEOUT, &value) < 0 && errno == ENODEV);
    CLIENT_CHECK(ioctl(dog, WDIOC_KEEPALIVE, 0) < 0 && errno == ENODEV);
    CLIENT_CHECK(ioctl(dog, WDIOC_KEEPALIVE, 0) == 0);
    return 0;
}

int Open(const std::string& directory, const std::string& device) {
    CLIENT_CHECK(open((directory + "/" + device).c_str(), O_RDWR) >= 0);
    return 0;
}

int ProgramZero(const std::string& directory, const std::string& device) {
    const int fd = open((directory + "/" + device).c_str(), O_RDWR);
    CLIENT_CHECK(write(fd, "", 1) == 1);
    return 0;
}

// Erases the device in one request.
int Erase(const std::string& directory, const std::string& device) {
    const int fd = open((directory + "/" + device).c_str(), O_RDWR);
    mtd_info_user info{};
    CLIENT_CHECK(ioctl(fd, MEMGETINFO, &info) == 0);
    erase_info_user all{0, info.size};
    CLIENT_CHECK(ioctl(fd, MEMERASE, &all) == 0);
    return 0;
}

// In a PID namespace of its own, mounted "inside" or "outside" of it.
int DisableNamespaced(const std::string& directory, bool inside) {
    CLIENT_CHECK(getpid() == 1 && (!inside || MountFuse(kClientFuseFd, directory)));
    (void)close(kClientFuseFd);
    CLIENT_CHECK(write(kClientReadyFd, "", 1) == 1);
    const int fd = open((directory + "/watchdog").c_str(), O_WRONLY);
    int* value = IntAtFixedAddress();
    CLIENT_CHECK(value != nullptr);
    *value = WDIOS_DISABLECARD;
    const int result = ioctl(fd, WDIOC_SETOPTIONS, value);
    CLIENT_CHECK(inside ? result < 0 && errno == EFAULT : result == 0);
    return 0;
}

int Namespaced(const std::string& directory, const std::string& where) {
    const bool inside = where == "inside";
    CLIENT_CHECK(unshare(CLONE_NEWPID) == 0);
    CLIENT_CHECK(inside || MountFuse(kClientFuseFd, directory));
    const pid_t init = fork();
    if (init == 0) {
        _exit(DisableNamespaced(directory, inside));
    }
    (void)close(kClientFuseFd);
    (void)close(kClientReadyFd);
    int status = 0;
    CLIENT_CHECK(waitpid(init, &status, 0) == init && WIFEXITED(status));
    return WEXITSTATUS(status);
}

constexpr struct {
    const char* name;
    int (*run)(const std::string& directory, const std::string& more);
} kClients[] = {
    {"writer", Writer},
    {"orderly keeper", OrderlyKeeper},
    {"feed", Feed},
    {"dying keeper", DyingKeeper},
    {"faulty", Faulty},
    {"open", Open},
    {"erase", Erase},
    {"program zero", ProgramZero},
    {"namespaced", Namespaced},
};

}  // namespace

int* IntAtFixedAddress() {
    // Below what the sanitizers keep for themselves.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address is what is asked for.
    auto* const address = reinterpret_cast<void*>(uintptr_t{0x60000000});
    void* page = mmap(address, sizeof(int), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    return page == address ? static_cast<int*>(page) : nullptr;
}

bool MountFuse(int fuseFd, const std::string& directory) {
    const std::string options =
        "fd=" + std::to_string(fuseFd) + ",rootmode=40000,user_id=0,group_id=0";
    return mount("fuse", directory.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
}

int RunBoardClient(const std::string& name, const std::string& directory, const std::string& more) {
    for (const auto& client : kClients) {
        if (name == client.name) {
            return client.run(directory, more);
        }
    }
    return __LINE__;
}
