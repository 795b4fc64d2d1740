#include "vboard/process_list.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "common/kv_raii.h"
#include "vboard/state.h"

namespace vboard {

namespace fs = std::filesystem;

namespace {

// The innermost id in a status file's line "NSpid: 4711 12".
pid_t InnerId(const fs::path& process) {
    std::istringstream status(ReadText(process / "status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("NSpid:", 0) == 0) {
            return std::atoi(line.c_str() + line.find_last_of(" \t") + 1);
        }
    }
    return 0;
}

std::string Name(const fs::path& process) {
    std::string name = ReadText(process / "comm");
    name.erase(std::remove(name.begin(), name.end(), '\n'), name.end());
    return name;
}

fs::path PidNamespace(const fs::path& process) {
    std::error_code gone;
    return fs::read_symlink(process / "ns/pid", gone);
}

// Opens the descriptor before it looks at the namespace, so that the signal cannot reach another
// process that got the same id meanwhile.
bool KillIfInside(const fs::path& process, const fs::path& space) {
    const UniqueFd handle(
        static_cast<int>(syscall(SYS_pidfd_open, std::atoi(process.filename().c_str()), 0)));
    return handle && PidNamespace(process) == space &&
           syscall(SYS_pidfd_send_signal, handle.Get(), SIGKILL, nullptr, 0) == 0;
}

BoardProcess Describe(const fs::path& process) {
    BoardProcess found;
    found.hostPid = std::atoi(process.filename().c_str());
    found.pid = InnerId(process);
    found.name = Name(process);
    std::error_code gone;
    for (fs::directory_iterator task(process / "task", gone); task != fs::directory_iterator();
         task.increment(gone)) {
        found.threads.push_back({InnerId(task->path()), Name(task->path())});
    }
    return found;
}

}  // namespace

std::vector<BoardProcess> ListBoard(pid_t init) {
    std::vector<BoardProcess> list;
    const fs::path space = PidNamespace("/proc/" + std::to_string(init));
    if (space.empty()) {
        return list;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        if (std::atoi(entry.path().filename().c_str()) > 0 && PidNamespace(entry.path()) == space) {
            list.push_back(Describe(entry.path()));
        }
    }
    std::sort(list.begin(), list.end(),
              [](const BoardProcess& a, const BoardProcess& b) { return a.pid < b.pid; });
    return list;
}

void KillBoard(pid_t init) {
    const fs::path space = PidNamespace("/proc/" + std::to_string(init));
    (void)kill(init, SIGKILL);
    // A process that forks just before its signal leaves a child for the next round. Killed
    // processes start no others.
    std::set<fs::path> killed;
    for (size_t before = 1; !space.empty() && before != killed.size();) {
        before = killed.size();
        for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
            if (std::atoi(entry.path().filename().c_str()) > 0 && killed.count(entry.path()) == 0 &&
                KillIfInside(entry.path(), space)) {
                (void)killed.insert(entry.path());
            }
        }
    }
}

}  // namespace vboard
