// A virtual board with the unchanged program on it, for system tests. Every board has a state
// folder, namespaces and addresses of its own, so tests run side by side.
#pragma once

#include <sys/types.h>

#include <map>
#include <nlohmann/json.hpp>

#include "tests/support/tcp_client.h"

namespace kv_test {

constexpr char kBoardAddress[] = "192.168.10.2";

// Runs a program of the host with standard output and error captured; bounded by `timeoutSeconds`.
CommandResult RunCommand(const Lines& command, int timeoutSeconds = 60);

// An installed libhv's loops wake ten times a second, and hardly rest when they cannot accept. The
// bundled ones do not.
#ifdef KV_HV_SYSTEM
constexpr bool kLoopsRest = false;
#else
constexpr bool kLoopsRest = true;
#endif

// Where the programs under test are.
std::string BinDir();

// A heartbeat whose ready flag is set, for SendBeats.
const std::string kBeat = "b'cameraMain'.ljust(32, b'\\0') + b'\\1'";

class Board {
  public:
    // A board that is not switched on yet; its folder holds empty flash.
    Board() = default;
    ~Board() { Stop(); }
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    // Switches the board on, with more options of `vboard run`, and waits for the program's first
    // boot. `program` runs in the supervisor's place when named.
    void Start(const Lines& options = {}, const Lines& program = {});
    // The same, and waits until the program is in recovery.
    void StartRecovery(const Lines& options = {"--no-wifi"});
    bool WaitRecovery(int boot = 1) { return WaitTrace("app file not exist!", boot); }
    // Puts the stand-in application into the application's partition. Before Start.
    void InstallApplication();
    // Starts it on an accelerated clock with an application that is silent from its start on.
    void StartSilent(const std::string& speed);
    // Sends datagrams, each a Python expression, to the heartbeat port from the board itself.
    void SendBeats(const Lines& datagrams);
    // Switches it off. Its folder stays until the object goes.
    void Stop();
    // Waits until it has switched itself off; its exit status.
    int Await();
    pid_t Runner() const { return runner_; }
    const std::string& Folder() const { return folder_.Path(); }

    std::string Path(const std::string& name) const { return folder_.Path(name); }

    // `vboard COMMAND --state …`; fails the test when the command fails.
    std::string Do(const Lines& arguments);
    CommandResult Try(const Lines& arguments, int timeoutSeconds = 60);
    // A shell command on the bench, or on the board.
    CommandResult OnBench(const std::string& command);
    CommandResult OnBoard(const std::string& command);
    void Fault(Lines words);

    // Waits until the trace or the console of boot `boot` contains `text`; false after the
    // time-out.
    bool WaitTrace(const std::string& text, int boot = 1, int timeoutSeconds = 30);
    bool WaitConsole(const std::string& text, int boot = 1, int timeoutSeconds = 30);
    // Waits until boot `boot` has begun.
    bool WaitBoot(int boot, int timeoutSeconds = 40);

    std::string Trace(int boot = 1) const;
    // The trace's messages alone: "LEVEL function: message" a line, without colours, times and line
    // numbers.
    Lines Messages(int boot = 1) const;
    std::string Console(int boot = 1) const;
    // The commands that the program has echoed, in order.
    Lines Echoes(int boot = 1) const;
    std::vector<nlohmann::json> Operations() const;
    nlohmann::json Status();
    std::string Reason(int boot);
    // Waits until the board's watchdog has been fed `feeds` more times: as many seconds of its
    // time.
    bool WaitFeeds(uint64_t feeds);
    uint64_t Feeds() { return Status().at("watchdog").at("feeds"); }
    // Longest time in seconds of the board's clock between two feeds, over all boots.
    double LargestFeedGap() { return Status().at("watchdog").at("largestGap"); }
    bool Armed() { return Status().at("watchdog").at("armed"); }
    // Watches the program's threads while `meanwhile` runs, and fails the test for each one that
    // went to sleep more often than its row tells: `rate` times a second and `slack` times more;
    // for one without a row, more than never. The quietest of three times counts: a thread also
    // sleeps where it first touches a page that has to be read from the disk.
    struct SleepRow {
        double rate;
        double slack;
    };
    void ExpectRest(const std::map<std::string, SleepRow>& rows,
                    const std::function<void()>& meanwhile);
    // Process id of the program, as this process sees it.
    pid_t ProgramPid();
    void Signal(int signal);

    // A socket on the bench, connected to the board (or to `host`). None when refused.
    UniqueFd Connect(const std::string& kind, int port, const std::string& host = kBoardAddress);
    TcpClient Client() { return TcpClient(Connect("tcp", 80)); }
    std::string Flash(const std::string& mtd) const;

  private:
    std::map<std::string, long> Sleeps();
    // One such time: what was wrong with it, a line each.
    std::string Restless(const std::map<std::string, SleepRow>& rows,
                         const std::function<void()>& meanwhile);
    bool Wait(Lines words, int boot, int timeoutSeconds);

    kv_test::Folder folder_;
    pid_t runner_ = -1;
};

// A file system for mtd5 with the stand-in application in it. Returns its path, in the board's
// folder; throws when it cannot be made.
std::string MakeApplicationImage(const Board& board);

}  // namespace kv_test
