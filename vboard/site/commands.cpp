#include "vboard/site/commands.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <set>
#include <thread>

#include "vboard/control.h"
#include "vboard/exec.h"
#include "vboard/site/plan.h"

namespace vboard::site {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

// How often to ask starting boards whether they have joined.
constexpr std::chrono::milliseconds kAsk(100);

json SiteStatus(const StateDir& site) {
    json status = ControlClient(site, Runner::kSite).Request({{"command", "status"}});
    if (!status.contains("boards")) {
        throw std::runtime_error(site.Path().string() +
                                 " is the state folder of a board, not of a site");
    }
    return status;
}

// The short status of board `number`. None while its runner does not answer.
std::optional<json> Brief(const StateDir& site, int number) {
    const std::filesystem::path folder = BoardFolder(site.Path(), number);
    if (!std::filesystem::exists(folder / "control")) {
        return std::nullopt;
    }
    try {
        return ControlClient(StateDir(folder)).Request({{"command", "brief"}});
    } catch (const std::runtime_error&) {
        return std::nullopt;  // it has just ended
    }
}

json Describe(const StateDir& site, int number) {
    json board = {{"number", number},
                  {"ethMac", EthMac(number)},
                  {"wlanMac", WlanMac(number)},
                  {"state", "starting"},
                  {"stateDir", BoardFolder(site.Path(), number)}};
    bool hasEth = true;
    if (auto brief = Brief(site, number)) {
        hasEth = brief->at("hasEth");
        brief->erase("hasEth");
        board.update(*brief);
    }
    board["mac"] = board.at(hasEth ? "ethMac" : "wlanMac");  // as the device reports it
    return board;
}

void PrintTable(const json& status) {
    std::cout << "site " << status.at("stateDir").get<std::string>() << " (runner "
              << status.at("runnerPid") << "), air "
              << (status.at("rate") == "" ? "unlimited" : status.at("rate").get<std::string>())
              << (status.at("dhcp").get<bool>() ? ", dhcp" : ", no dhcp")
              << (status.at("wired").get<bool>() ? ", laptop wired" : "") << ", "
              << status.at("boards").size() << " boards\n";
    const auto row = [](const char* number, const char* mac, const char* wlan, const char* eth,
                        const char* state, const std::string& boot) {
        (void)printf("%5s  %-17s  %-15s  %-15s  %-8s  %s\n", number, mac, wlan, eth, state,
                     boot.c_str());
    };
    std::cout << std::flush;
    row("board", "MAC", "wlan0", "eth0", "state", "boot");
    for (const json& board : status.at("boards")) {
        const auto text = [&board](const char* key) { return board.value(key, std::string()); };
        row(std::to_string(board.at("number").get<int>()).c_str(), text("mac").c_str(),
            text("wlanAddress").c_str(), text("ethAddress").c_str(), text("state").c_str(),
            board.contains("boot")
                ? std::to_string(board.at("boot").get<int>()) + " " + text("reason")
                : "");
    }
}

// Whether the board has reached the state that StartBoards waits for.
bool Ready(const StateDir& site, int number, bool noWait) {
    const std::optional<json> brief = Brief(site, number);
    return brief && (noWait ? brief->at("state") == "up" : brief->at("wlanAddress") != "");
}

// Throws for the first board whose runner has ended.
void RequireRunning(const StateDir& site, const std::set<int>& boards) {
    const auto running = SiteStatus(site).at("started").get<std::set<int>>();
    for (const int number : boards) {
        if (running.count(number) == 0) {
            std::string log = ReadText(BoardFolder(site.Path(), number) / "runner.log");
            log.erase(log.find_last_not_of('\n') + 1);
            throw std::runtime_error("board " + std::to_string(number) + " has ended: " + log);
        }
    }
}

}  // namespace

void ShowSite(const StateDir& site, bool asJson) {
    json status = SiteStatus(site);
    json boards = json::array();
    for (const json& number : status.at("boards")) {
        boards.push_back(Describe(site, number));
    }
    status["boards"] = boards;
    status.erase("initPid");
    if (asJson) {
        std::cout << status.dump(2) << '\n';
    } else {
        PrintTable(status);
    }
}

void StartBoards(const StateDir& site, const StartOptions& options) {
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(options.timeout));
    (void)SiteStatus(site);
    auto starting = ControlClient(site, Runner::kSite)
                        .Request({{"command", "start"},
                                  {"count", options.count},
                                  {"directory", std::filesystem::current_path()},
                                  {"arguments", options.run}})
                        .at("numbers")
                        .get<std::set<int>>();
    while (!starting.empty()) {
        RequireRunning(site, starting);
        for (auto board = starting.begin(); board != starting.end();) {
            board = Ready(site, *board, options.noWait) ? starting.erase(board) : std::next(board);
        }
        if (!starting.empty() && Clock::now() >= deadline) {
            std::string numbers;
            for (const int number : starting) {
                numbers += " " + std::to_string(number);
            }
            throw std::runtime_error("time is up; not joined yet: board" + numbers);
        }
        if (!starting.empty()) {
            std::this_thread::sleep_for(kAsk);
        }
    }
}

void SetLease(const StateDir& site, int number, const std::string& address) {
    (void)SiteStatus(site);
    (void)ControlClient(site, Runner::kSite)
        .Request({{"command", "lease"}, {"number", number}, {"address", address}});
}

void SetDhcp(const StateDir& site, const std::string& action) {
    (void)SiteStatus(site);
    (void)ControlClient(site, Runner::kSite).Request({{"command", "ap"}, {"action", action}});
}

int RunOnLaptop(const StateDir& site, const std::vector<std::string>& command) {
    (void)SiteStatus(site);
    return Exec(site, false, command);
}

void StopSite(const StateDir& site) {
    (void)SiteStatus(site);
    (void)ControlClient(site, Runner::kSite).Request({{"command", "stop"}});
    site.AwaitUnlocked();
}

}  // namespace vboard::site
