#include "vboard/state.h"

#include <fcntl.h>
#include <kv_standard_layout.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

#include "vboard/process.h"

namespace vboard {

namespace fs = std::filesystem;

namespace {

void ApplyLayoutItem(const std::string& item, uint32_t eraseBlock,
                     std::vector<PartitionConfig>* layout) {
    const size_t equals = item.find('=');
    const std::string name = item.substr(0, equals);
    const auto row = std::find_if(layout->begin(), layout->end(),
                                  [&](const PartitionConfig& p) { return p.name == name; });
    if (equals == std::string::npos || row == layout->end()) {
        throw std::runtime_error("not a partition: \"" + item +
                                 "\" (use mtd0=256K,…; mtd0 to mtd7)");
    }
    row->size = ParseSize(item.substr(equals + 1));
    if (eraseBlock == 0 || row->size % eraseBlock != 0) {
        throw std::runtime_error("the size of " + name + " is not a multiple of the erase block");
    }
}

}  // namespace

std::string StateDir::Default() {
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string base = runtime != nullptr && *runtime != '\0' ? runtime : "/tmp";
    return base + "/vboard-" + std::to_string(getuid());
}

StateDir::StateDir(const std::string& path) : path_(fs::absolute(path).lexically_normal()) {
    std::error_code error;
    fs::create_directories(path_, error);
    directory_.Reset(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) {
        throw SysError("cannot use the state folder " + path_.string());
    }
}

int StateDir::LastBoot() const {
    int last = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(path_)) {
        const std::string name = entry.path().filename();
        if (name.rfind("boot-", 0) == 0) {
            last = std::max(last, std::atoi(name.c_str() + 5));
        }
    }
    return last;
}

UniqueFd StateDir::Lock() const {
    UniqueFd lock(open((path_ / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!lock) {
        throw SysError("cannot open the lock of the state folder " + path_.string());
    }
    if (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error("another board or site is running with the state folder " +
                                 path_.string());
    }
    return lock;
}

void StateDir::AwaitUnlocked() const {
    const UniqueFd lock(open((path_ / "lock").c_str(), O_RDONLY | O_CLOEXEC));
    if (lock && flock(lock.Get(), LOCK_SH) != 0) {
        throw SysError("cannot wait for the runner to end");
    }
}

void StateDir::Prepare() const {
    std::vector<fs::path> stale = {OpLog(), path_ / "control"};
    for (const fs::directory_entry& entry : fs::directory_iterator(path_)) {
        if (entry.path().filename().string().rfind("boot-", 0) == 0) {
            stale.push_back(entry.path());
        }
    }
    for (const fs::path& path : stale) {
        fs::remove_all(path);
    }
    for (const char* folder : {"flash", "param/var", "gpio/GPIO26", "platform", "root"}) {
        fs::create_directories(path_ / folder);
    }
    WriteText(ButtonValue(), "1\n");
    WriteText(OpLog(), "");
}

std::string StateDir::ControlAddress() const {
    return "/proc/self/fd/" + std::to_string(directory_.Get()) + "/control";
}

uint64_t ParseSize(const std::string& text) {
    size_t used = 0;
    uint64_t value = 0;
    try {
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        throw std::runtime_error("not a size: \"" + text + "\"");
    }
    const std::string unit = text.substr(used);
    if (unit == "K" || unit == "k") {
        return value << 10U;
    }
    if (unit == "M" || unit == "m") {
        return value << 20U;
    }
    if (!unit.empty()) {
        throw std::runtime_error("not a size: \"" + text + "\" (use 65536, 64K, 4M)");
    }
    return value;
}

std::vector<PartitionConfig> ParseLayout(const std::string& text, uint32_t eraseBlock,
                                         const StateDir& state) {
    std::vector<PartitionConfig> layout;
    for (const uint64_t kib : kv::kStandardPartitionKib) {
        const std::string name = "mtd" + std::to_string(layout.size());
        layout.push_back({name, state.Flash(name), kib * 1024});
    }
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        ApplyLayoutItem(item, eraseBlock, &layout);
    }
    layout.erase(std::remove_if(layout.begin(), layout.end(),
                                [](const PartitionConfig& p) { return p.size == 0; }),
                 layout.end());
    return layout;
}

void WriteText(const fs::path& file, const std::string& text) {
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << text;
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

std::string ReadText(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    // The buffer's iterators would throw when reading fails, as for a process that has ended.
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::string ReadWholeFile(const fs::path& file) {
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes;
    std::array<char, 65536> part{};
    for (;;) {
        const ssize_t length = fd ? read(fd.Get(), part.data(), part.size()) : -1;
        if (length < 0) {
            throw SysError("cannot read " + file.string());
        }
        if (length == 0) {
            return bytes;
        }
        bytes.append(part.data(), static_cast<size_t>(length));
    }
}

}  // namespace vboard
