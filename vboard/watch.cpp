#include "vboard/watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>

#include "vboard/control.h"
#include "vboard/process.h"

namespace vboard {

using Clock = std::chrono::steady_clock;

namespace {

std::optional<ControlClient> Connect(const StateDir& state) {
    try {
        return ControlClient(state);
    } catch (const std::runtime_error&) {
        return std::nullopt;  // not switched on
    }
}

std::string Describe(const WaitOptions& options) {
    std::string text = options.boot > 0 ? "boot " + std::to_string(options.boot) : "the board";
    for (const std::string& wanted : {options.trace, options.console}) {
        text += wanted.empty() ? "" : ", \"" + wanted + "\"";
    }
    return text;
}

// Prints the file from `offset` on. Returns the new offset.
std::streamoff Print(const std::string& file, std::streamoff offset) {
    std::ifstream stream(file, std::ios::binary);
    stream.seekg(offset);
    const std::string fresh{std::istreambuf_iterator<char>(stream), {}};
    std::cout << fresh << std::flush;
    return offset + static_cast<std::streamoff>(fresh.size());
}

// Waits for changes in the state folder and in the folders of boots.
class FolderWatch {
  public:
    explicit FolderWatch(const StateDir& state)
        : state_(state), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        if (!inotify_) {
            throw SysError("cannot watch the state folder");
        }
        Add(state.Path());
    }

    // Returns the number of the newest boot. Call it before you look at files: it starts to watch
    // that boot's folder, so that Wait misses no later change.
    int Refresh() {
        const int last = state_.LastBoot();
        if (last > 0) {
            Add(state_.Boot(last));
        }
        return last;
    }

    // Waits for a change, for `fd` to become readable (-1: none) or for the deadline. False when
    // `fd` is readable.
    bool Wait(int fd, std::optional<Clock::time_point> deadline) {
        int timeout = -1;
        if (deadline) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
            timeout = static_cast<int>(std::max<int64_t>(left.count(), 0));
        }
        pollfd sources[] = {{inotify_.Get(), POLLIN, 0}, {fd, POLLIN, 0}};
        (void)poll(sources, 2, timeout);
        char events[4096];
        while (read(inotify_.Get(), events, sizeof(events)) > 0) {
        }
        return fd < 0 || sources[1].revents == 0;
    }

  private:
    void Add(const std::string& folder) {
        (void)inotify_add_watch(inotify_.Get(), folder.c_str(),
                                IN_CREATE | IN_MODIFY | IN_MOVED_TO);
    }

    const StateDir& state_;
    UniqueFd inotify_;
};

// Searches a growing file for a text and reads each byte once.
class TextSearch {
  public:
    TextSearch(std::string file, std::string text)
        : file_(std::move(file)), text_(std::move(text)), found_(text_.empty()) {}

    bool Found() {
        if (found_) {
            return true;
        }
        std::ifstream stream(file_, std::ios::binary);
        stream.seekg(offset_);
        const std::string fresh{std::istreambuf_iterator<char>(stream), {}};
        offset_ += static_cast<std::streamoff>(fresh.size());
        tail_ += fresh;
        found_ = tail_.find(text_) != std::string::npos;
        if (tail_.size() >= text_.size()) {
            tail_.erase(0, tail_.size() - text_.size() + 1);
        }
        return found_;
    }

  private:
    std::string file_;
    std::string text_;
    std::streamoff offset_ = 0;
    std::string tail_;
    bool found_;
};

struct BootSearch {
    TextSearch trace;
    TextSearch console;
    bool Found() { return trace.Found() && console.Found(); }
};

}  // namespace

void WaitForLog(const StateDir& state, const WaitOptions& options) {
    FolderWatch watch(state);
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(options.timeout));
    // Until the runner listens, the folder may still hold logs of an earlier run.
    std::optional<ControlClient> board;
    while (!(board = Connect(state))) {
        (void)watch.Wait(-1, deadline);
        if (Clock::now() >= deadline) {
            throw std::runtime_error("no board is running with the state folder " +
                                     state.Path().string());
        }
    }
    const bool any = options.trace.empty() && options.console.empty();
    const std::string console = any ? "board: started upgradeMain\n" : options.console;
    std::map<int, BootSearch> searches;
    const int first = options.boot > 0 ? options.boot : std::max(watch.Refresh(), 1);
    for (bool running = true;;) {
        const int last = options.boot > 0 ? (void(watch.Refresh()), options.boot) : watch.Refresh();
        for (int boot = first; boot <= last; ++boot) {
            const auto search = searches.try_emplace(
                boot, BootSearch{{state.Boot(boot) / "trace.log", options.trace},
                                 {state.Boot(boot) / "console.log", console}});
            if (search.first->second.Found()) {
                return;
            }
        }
        if (!running) {
            throw std::runtime_error("the board was stopped while waiting for " +
                                     Describe(options));
        }
        if (Clock::now() >= deadline) {
            throw std::runtime_error("time is up waiting for " + Describe(options));
        }
        running = watch.Wait(board->Fd(), deadline);
    }
}

void ShowLog(const StateDir& state, const LogOptions& options) {
    FolderWatch watch(state);
    int boot = options.boot > 0 ? options.boot : watch.Refresh();
    const char* const name = options.console ? "console.log" : "trace.log";
    if (boot == 0 || !std::filesystem::exists(state.Boot(boot))) {
        throw std::runtime_error("there is no log of that boot in " + state.Path().string());
    }
    std::optional<ControlClient> board = Connect(state);
    std::streamoff offset = 0;
    for (bool running = options.follow && board;;) {
        const int last = watch.Refresh();
        offset = Print(state.Boot(boot) / name, offset);
        if (options.follow && boot < last) {
            ++boot;
            offset = 0;
        } else if (!running) {
            return;
        } else {
            running = watch.Wait(board->Fd(), std::nullopt);
        }
    }
}

}  // namespace vboard
