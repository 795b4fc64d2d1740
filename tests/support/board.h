// A virtual board with the unchanged program on it, for system tests. Every board has its own state
// folder and namespaces, so tests can run side by side.
#pragma once

#include <sys/types.h>

#include <map>
#include <nlohmann/json.hpp>

#include "tests/support/tcp_client.h"

namespace kv_test {

constexpr char kBoardAddress[] = "192.168.10.2";

// How long a test waits for a board by default. Passing early ends each wait.
constexpr int kBoardPatience = 60;

// Forks a child that is asked to end when the calling thread ends, however it ends.
pid_t ForkDependent();

// Runs a program of the host and captures its standard output and error, for at most
// `timeoutSeconds`.
CommandResult RunCommand(const Lines& command, int timeoutSeconds = 60);

// The loops of an installed libhv wake ten times a second, and run almost without a pause while
// they cannot accept. The bundled loops rest.
#ifdef KV_HV_SYSTEM
constexpr bool kLoopsRest = false;
#else
constexpr bool kLoopsRest = true;
#endif

// Folder of the programs under test.
std::string BinDir();

// A heartbeat with the ready flag set, for SendBeats.
const std::string kBeat = "b'cameraMain'.ljust(32, b'\\0') + b'\\1'";

class Board {
  public:
    // A board that is off. Its folder is empty; the first start fills it, with erased flash.
    Board() = default;
    ~Board() { Stop(); }
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    // Switches the board on with more options of `vboard run` and waits for the program's first
    // boot. `program`, if given, runs instead of the supervisor.
    void Start(const Lines& options = {}, const Lines& program = {});
    // The same, and waits until the program is in recovery.
    void StartRecovery(const Lines& options = {"--no-wifi"});
    bool WaitRecovery(int boot = 1) { return WaitTrace("app file not exist!", boot); }
    // Puts the stand-in application into the application's partition. Call it before Start.
    void InstallApplication();
    // Starts the board on an accelerated clock with an application that is silent from the start.
    void StartSilent(const std::string& speed);
    // Sends datagrams (Python expressions) to the heartbeat port, from the board itself.
    void SendBeats(const Lines& datagrams);
    // Switches the board off. Its folder stays as long as the object.
    void Stop();
    // Waits until the board's runner has ended. Returns its exit status, -1 if a signal ended it.
    int Await();
    pid_t Runner() const { return runner_; }
    const std::string& Folder() const { return folder_.Path(); }

    std::string Path(const std::string& name) const { return folder_.Path(name); }

    // Runs `vboard --state … ARGUMENTS`. Do fails the test if the command fails.
    std::string Do(const Lines& arguments);
    CommandResult Try(const Lines& arguments, int timeoutSeconds = 60);
    // Run a shell command on the bench, or on the board.
    CommandResult OnBench(const std::string& command);
    CommandResult OnBoard(const std::string& command);
    void Fault(Lines words);
    // Makes a command of the board run this shell script until the next boot.
    void ReplaceCommand(const std::string& name, const std::string& script);

    // Wait until the trace or the console of boot `boot` contains `text`. Return false after the
    // time-out.
    bool WaitTrace(const std::string& text, int boot = 1, int timeoutSeconds = kBoardPatience);
    bool WaitConsole(const std::string& text, int boot = 1, int timeoutSeconds = kBoardPatience);
    // Waits until boot `boot` has begun.
    bool WaitBoot(int boot, int timeoutSeconds = kBoardPatience);

    std::string Trace(int boot = 1) const;
    // The trace's messages, one "LEVEL function: message" a line, without colours, times and line
    // numbers.
    Lines Messages(int boot = 1) const;
    // The trace's lines with their times on the board's clock, "LEVEL source:function:line
    // message".
    struct TimedLine {
        long at;  // seconds
        std::string text;
    };
    std::vector<TimedLine> Timed(int boot = 1) const;
    std::string Console(int boot = 1) const;
    // The commands that the program has echoed, in order.
    Lines Echoes(int boot = 1) const;
    // The operation log, without a line that is being written.
    std::vector<nlohmann::json> Operations() const;
    nlohmann::json Status();
    std::string Reason(int boot);
    // Waits until the board's watchdog has been fed `feeds` more times, which takes as many seconds
    // of its clock.
    bool WaitFeeds(uint64_t feeds);
    uint64_t Feeds() { return Status().at("watchdog").at("feeds"); }
    // Checks the times between feeds over all boots. Most are a second. A busy host may make a few
    // longer. A test of a feeder that waits for another thread must make it wait longer than that.
    void ExpectFed();
    bool Armed() { return Status().at("watchdog").at("armed"); }
    // Watches the program's threads while `meanwhile` runs. Fails the test for each thread that
    // went to sleep more often than its row allows: `rate` times a second plus `slack` times. A
    // thread without a row must not wake up at all. Measures up to three times, until no thread
    // fails, because a thread also sleeps when it reads a page from the disk.
    struct SleepRow {
        double rate;
        double slack;
    };
    void ExpectRest(const std::map<std::string, SleepRow>& rows,
                    const std::function<void()>& meanwhile);
    // Process ID of the program, as seen from this process.
    pid_t ProgramPid();
    void Signal(int signal);

    // Opens a socket on the bench, connected to the board (or to `host`). None if refused.
    UniqueFd Connect(const std::string& kind, int port, const std::string& host = kBoardAddress);
    TcpClient Client() { return TcpClient(Connect("tcp", 80)); }
    std::string Flash(const std::string& mtd) const;

  private:
    std::map<std::string, long> Sleeps();
    // One measurement of ExpectRest. Returns its faults, one a line.
    std::string Restless(const std::map<std::string, SleepRow>& rows,
                         const std::function<void()>& meanwhile);
    bool Wait(Lines words, int boot, int timeoutSeconds);

    kv_test::Folder folder_;
    pid_t runner_ = -1;
};

// The process IDs of a process's children, as texts.
Lines ChildrenOf(pid_t process);
// Waits until these processes have ended, and fails the test if they do not.
void ExpectGone(const Lines& processes);

// Makes a file system for mtd5 with the stand-in application in it. Returns its path, in the
// board's folder. Throws if it cannot be made.
std::string MakeApplicationImage(const Board& board);

}  // namespace kv_test
