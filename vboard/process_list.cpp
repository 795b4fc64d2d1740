#include "vboard/process_list.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

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
    std::error_code gone;
    const fs::path space = fs::read_symlink("/proc/" + std::to_string(init) + "/ns/pid", gone);
    if (gone) {
        return list;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        if (std::atoi(entry.path().filename().c_str()) > 0 &&
            fs::read_symlink(entry.path() / "ns/pid", gone) == space) {
            list.push_back(Describe(entry.path()));
        }
    }
    std::sort(list.begin(), list.end(),
              [](const BoardProcess& a, const BoardProcess& b) { return a.pid < b.pid; });
    return list;
}

}  // namespace vboard
