// A virtual board with the unchanged program on it, for system tests. Every board has a state
// folder, namespaces and addresses of its own, so tests run side by side.
#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kv_test {

constexpr char kBoardAddress[] = "192.168.10.2";

struct CommandResult {
    int status;  // exit status, or 128 + signal
    std::string output;
};

// Runs a program of the host with standard output and error captured; bounded by `timeoutSeconds`.
CommandResult RunCommand(const std::vector<std::string>& command, int timeoutSeconds = 60);

// Where the programs under test are.
std::string BinDir();

class Board {
  public:
    // A board that is not switched on yet; its folder holds empty flash.
    Board();
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    // Switches the board on, with more options of `vboard run`, and waits for the program's first
    // boot. `program` runs in the supervisor's place when named.
    void Start(const std::vector<std::string>& options = {}, const std::string& program = "");
    // Puts the stand-in application into the application's partition. Before Start.
    void InstallApplication();
    // Switches it off. Its folder stays until the object goes.
    void Stop();

    std::string Path(const std::string& name) const { return state_ + "/" + name; }

    // `vboard COMMAND --state …`; fails the test when the command fails.
    std::string Do(const std::vector<std::string>& arguments);
    CommandResult Try(const std::vector<std::string>& arguments, int timeoutSeconds = 60);
    // A shell command on the bench, or on the board.
    CommandResult OnBench(const std::string& command, int timeoutSeconds = 60);
    CommandResult OnBoard(const std::string& command, int timeoutSeconds = 60);

    // Waits until the trace or the console of boot `boot` contains `text`; false after the
    // time-out.
    bool WaitTrace(const std::string& text, int boot = 1, int timeoutSeconds = 30);
    bool WaitConsole(const std::string& text, int boot = 1, int timeoutSeconds = 30);
    // Waits until boot `boot` has begun.
    bool WaitBoot(int boot, int timeoutSeconds = 40);

    std::string Trace(int boot = 1) const;
    // The trace's messages alone: "LEVEL function: message" a line, without colours, times and line
    // numbers.
    std::vector<std::string> Messages(int boot = 1) const;
    std::string Console(int boot = 1) const;
    std::vector<nlohmann::json> Operations() const;
    nlohmann::json Status();
    std::string Reason(int boot);
    // Waits until the board's watchdog has been fed `feeds` more times: as many seconds of its
    // time.
    bool WaitFeeds(uint64_t feeds);
    // Process id of the program, as this process sees it.
    pid_t ProgramPid();
    void Signal(int signal);

    // A socket on the bench, connected to the board (or to `host`). -1 when refused.
    int Connect(const std::string& kind, int port, const std::string& host = kBoardAddress);
    std::string Flash(const std::string& mtd) const;

  private:
    std::string state_;
    pid_t runner_ = -1;
};

// Largest gap in seconds between two feeds of one boot, over all boots.
double LargestFeedGap(const std::vector<nlohmann::json>& operations);

// A file system for mtd5 that holds `bin/cameraMain`, a script that only lives. Returns its path,
// in the board's folder; throws when it cannot be made.
std::string MakeApplicationImage(const Board& board);

// Waits until `holds` returns true; false after the time-out. For what `vboard wait` cannot name.
bool WaitUntil(const std::function<bool()>& holds, double timeoutSeconds = 30);

size_t CountOf(const std::string& text, const std::string& part);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

}  // namespace kv_test
