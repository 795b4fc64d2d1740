#include "vboard/client.h"

#include <poll.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "vboard/control.h"
#include "vboard/watch.h"

namespace vboard {

using nlohmann::json;

namespace {

void PrintProcess(const json& process) {
    std::cout << "  " << std::setw(6) << process.at("pid").get<int>() << "  "
              << process.at("name").get<std::string>();
    const json& threads = process.at("threads");
    if (threads.size() > 1) {
        std::cout << ":";
        for (const json& thread : threads) {
            std::cout << ' ' << thread.at("name").get<std::string>();
        }
    }
    std::cout << '\n';
}

void PrintOperation(const json& entry) {
    std::cout << std::fixed << std::setprecision(6) << entry.value("t", 0.0) << " boot "
              << entry.value("boot", 0);
    for (const auto& member : entry.items()) {
        const std::string& key = member.key();
        if (key == "t" || key == "boot") {
            continue;
        }
        const json& value = member.value();
        std::cout << ' ' << (key == "dev" || key == "op" ? "" : key)
                  << (key == "dev" || key == "op" ? "" : "=")
                  << (value.is_string() ? value.get<std::string>() : value.dump());
    }
    std::cout << '\n';
}

int ErrorNumber(const std::string& name) {
    constexpr int kLastErrno = 133;
    for (int number = 1; number <= kLastErrno; ++number) {
        const char* const candidate = strerrorname_np(number);
        if (candidate != nullptr && name == candidate) {
            return number;
        }
    }
    throw std::runtime_error("not an error name: " + name + " (use EIO, ENOSPC, …)");
}

// The request to the runner for a power cut.
json PowerFaultRequest(const FaultOptions& options) {
    const bool off = options.operation == "off";
    if ((options.after > 0) + (options.inside > 0) + (off ? 1 : 0) != 1 ||
        (!off && !options.operation.empty())) {
        throw std::runtime_error("specify when the power fails: --after N or --inside N, or off");
    }
    const std::string place = off ? "off" : (options.after > 0 ? "after" : options.half);
    return {{"command", "fault"},
            {"device", options.device},
            {"operation", place},
            {"step", options.after + options.inside}};
}

json BoardStatus(ControlClient* board, const StateDir& state) {
    json status = board->Request({{"command", "status"}});
    if (status.contains("boards")) {
        throw std::runtime_error(state.Path().string() +
                                 " is the state folder of a site, not of a board");
    }
    return status;
}

std::filesystem::path RequireFlash(const StateDir& state, const std::string& mtd) {
    std::filesystem::path file = state.Flash(mtd);
    if (!std::filesystem::exists(file)) {
        throw std::runtime_error("there is no flash partition " + mtd + " in " +
                                 state.Path().string());
    }
    return file;
}

}  // namespace

void ShowStatus(const StateDir& state, bool asJson) {
    ControlClient board(state);
    const json status = BoardStatus(&board, state);
    if (asJson) {
        std::cout << status.dump(2) << '\n';
        return;
    }
    std::cout << "board " << status.at("state").get<std::string>() << ", boot "
              << status.at("boot");
    if (status.at("speed") != 1) {
        std::cout << ", clock " << status.at("speed") << " times as fast";
    }
    std::cout << " (runner " << status.at("runnerPid") << ", "
              << status.at("stateDir").get<std::string>() << ")\nboots:";
    const char* separator = " ";
    for (const json& boot : status.at("boots")) {
        std::cout << separator << boot.at("boot") << ' ' << boot.at("reason").get<std::string>();
        separator = "; ";
    }
    const json& program = status.at("program");
    std::cout << "\nprogram: "
              << (program.at("running").get<bool>() ? "runs"
                  : program.contains("exitCode")
                      ? "ended, exit code " + std::to_string(program["exitCode"].get<int>())
                      : "does not run");
    const json& watchdog = status.at("watchdog");
    std::cout << "\nwatchdog: " << (watchdog.at("open").get<bool>() ? "open" : "closed");
    if (watchdog.at("armed").get<bool>()) {
        std::cout << ", armed, " << watchdog.at("timeout") << " s, last fed " << std::fixed
                  << std::setprecision(1) << watchdog.at("sinceFeed").get<double>() << " s ago";
    }
    std::cout << ", fed " << watchdog.at("feeds") << " times, largest gap " << std::fixed
              << std::setprecision(2) << watchdog.at("largestGap").get<double>()
              << " s\nbutton: " << status.at("button").get<std::string>()
              << "\nnetwork: " << status.at("network").get<std::string>() << "\nprocesses:\n";
    for (const json& process : status.at("processes")) {
        PrintProcess(process);
    }
}

void ShowOperations(const StateDir& state, bool asJson) {
    std::istringstream log(ReadText(state.OpLog()));
    for (std::string line; std::getline(log, line);) {
        if (asJson) {
            std::cout << line << '\n';
        } else {
            PrintOperation(json::parse(line));
        }
    }
}

void AddFault(const StateDir& state, const FaultOptions& options) {
    if (options.device == "power") {
        (void)ControlClient(state).Request(PowerFaultRequest(options));
        return;
    }
    if (options.operation.empty() || options.after + options.inside > 0) {
        throw std::runtime_error(
            "specify the operation that fails (--after and --inside are for power)");
    }
    json request = {{"command", "fault"},
                    {"device", options.device},
                    {"operation", options.operation},
                    {"short", options.shortBytes},
                    {"skip", options.at > 0 ? options.at - 1 : options.skip},
                    {"count", options.count}};
    if (!options.errorName.empty()) {
        request["errno"] = ErrorNumber(options.errorName);
    } else if (options.shortBytes == 0 && options.device != "reboot" && options.device != "trace") {
        throw std::runtime_error("specify how it fails: --errno NAME or --short BYTES");
    }
    (void)ControlClient(state).Request(request);
}

void SetApplication(const StateDir& state, const std::string& mode, unsigned seconds) {
    std::filesystem::create_directories(state.ApplicationMode().parent_path());
    WriteText(state.ApplicationMode(), mode + " " + std::to_string(seconds) + "\n");
}

void ReadFlash(const StateDir& state, const std::string& mtd, const std::string& file) {
    WriteText(file, ReadWholeFile(RequireFlash(state, mtd)));
}

void WriteFlash(const StateDir& state, const std::string& mtd, const std::string& file,
                const std::string& layout, uint32_t eraseBlock) {
    const std::vector<PartitionConfig> partitions = ParseLayout(layout, eraseBlock, state);
    const auto partition = std::find_if(partitions.begin(), partitions.end(),
                                        [&](const PartitionConfig& p) { return p.name == mtd; });
    if (partition == partitions.end()) {
        throw std::runtime_error("there is no flash partition " + mtd);
    }
    std::string image = ReadWholeFile(file);
    const std::filesystem::path flash = state.Flash(mtd);
    uint64_t size = partition->size;
    if (std::filesystem::exists(flash)) {
        size = std::filesystem::file_size(flash);
    } else {
        std::filesystem::create_directories(flash.parent_path());
    }
    if (image.size() > size) {
        throw std::runtime_error(file + " has " + std::to_string(image.size()) + " bytes, " + mtd +
                                 " takes " + std::to_string(size));
    }
    image.resize(size, '\xFF');
    // Overwrite in place: a running board has the file open.
    std::fstream stream(flash, std::ios::binary | std::ios::in | std::ios::out);
    if (!stream) {
        WriteText(flash, image);
        return;
    }
    stream.write(image.data(), static_cast<std::streamsize>(image.size()));
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + flash.string());
    }
}

void Press(const StateDir& state, const std::vector<double>& seconds) {
    // The runner releases the button when this connection closes.
    ControlClient board(state);
    bool pressed = true;
    for (const double duration : seconds) {
        (void)board.Request({{"command", "button"}, {"pressed", pressed}});
        pollfd ended{board.Fd(), POLLIN, 0};
        if (poll(&ended, 1, static_cast<int>(std::lround(duration * 1000))) != 0) {
            throw std::runtime_error("the board has been stopped");
        }
        pressed = !pressed;
    }
    (void)board.Request({{"command", "button"}, {"pressed", false}});
}

void Reset(const StateDir& state) {
    ControlClient board(state);
    WaitOptions next;
    next.boot = BoardStatus(&board, state).at("boot").get<int>() + 1;
    (void)board.Request({{"command", "reset"}});
    WaitForLog(state, next);
}

void SetPower(const StateDir& state, const std::string& action) {
    ControlClient board(state);
    WaitOptions change;
    change.boot = BoardStatus(&board, state).at("boot").get<int>();
    if (action == "on") {
        ++change.boot;
    } else {
        change.console = "board: down: ";
    }
    (void)board.Request({{"command", "power"}, {"action", action}});
    WaitForLog(state, change);
}

void Stop(const StateDir& state) {
    (void)ControlClient(state).Request({{"command", "stop"}});
    state.AwaitUnlocked();
}

void Send(const StateDir& state, const std::string& command, const std::string& action) {
    (void)ControlClient(state).Request({{"command", command}, {"action", action}});
}

}  // namespace vboard
