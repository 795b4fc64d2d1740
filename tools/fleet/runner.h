// Upgrades many devices, a few at a time. Does not use the terminal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/device/match.h"
#include "tools/device/upgrade_session.h"
#include "tools/fleet/journal.h"

namespace kvtool::fleet {

struct RunRequest {
    const Bytes& package;  // sent to all devices
    std::string ic;        // its chip type
    std::string sensor;
    size_t jobs = 1;
    size_t canaries = 0;  // number of devices to see alive before the others start
    // Number of failures after which no more start; 0: no limit. Devices that were refused before
    // the run do not count while they stay refused.
    size_t maxFailures = 0;
    int retries = 0;  // further attempts of this run at a device that accepted nothing
    Millis retryPause{5000};
    UpgradeTimes times;
    DiscoveryRequest discovery;         // how to search for a device
    std::optional<uint16_t> port;       // command port; empty: as discovered
    std::optional<uint16_t> alivePort;  // port of the running application; empty: as discovered
    std::string expectVersion;          // empty: any
    bool keepOpen = false;              // wait for more devices until `startNothing` is raised
    const Interrupt& startNothing;      // once raised, no upgrade starts; those under way continue
    const Interrupt& stopNow;           // once raised, upgrades under way are abandoned
    // For a device that the plan has not seen, or that was refused, once it is there.
    Matcher matcher{};
};

// Called from several threads, one at a time. `member` counts from 0 in the order of Add and
// AddIdle.
class RunListener {
  public:
    virtual ~RunListener() = default;
    // The member is new or has entered a state.
    virtual void Changed(size_t member, const Member& what) = 0;
    virtual void Progress(size_t member, const UploadProgress& progress) = 0;
    // What happens to the member, in words.
    virtual void Line(size_t member, const std::string& text) = 0;
    // A message about the run as a whole.
    virtual void Note(const std::string& text) = 0;
    // From now on no more upgrades start. Called at most once.
    virtual void Stopping(const std::string& why) = 0;
    // About ten times a second.
    virtual void Tick() = 0;
};

class Runner {
  public:
    // `journal` has the beginning of a run. `journal` and `listener` outlive the runner.
    Runner(const RunRequest& request, Journal* journal, RunListener* listener)
        : request_(request), journal_(journal), listener_(listener) {}

    // Adds a device to upgrade. A device of an earlier run continues where that run left it, also
    // if that run refused it. A device that the plan of this run refuses fails at once. Each device
    // is added once. May be called on any thread, before Run or during it. Blocks until the journal
    // has the failure.
    void Add(Member added);
    // Makes another attempt at a device that has failed without accepting anything, at this
    // address. Does nothing in other states. May be called on any thread.
    void TryAgain(const std::string& id, const std::string& address);
    // Passes a message about the run as a whole to the listener. May be called on any thread.
    void Note(const std::string& text) {
        Tell([&text](RunListener* listener) { listener->Note(text); });
    }
    // Lists a device that this run leaves as it is. Call it before Run.
    void AddIdle(Member member);
    // Blocks until there is nothing left to do and nothing under way. May be called once.
    void Run();

    // After Run: all members, and why no more were started (empty: all were).
    const std::vector<Member>& Members() const { return members_; }
    const std::string& Stopped() const { return stopped_; }
    // After Run: why the journal could not be written; empty: it is complete.
    const std::string& JournalTrouble() const { return journalTrouble_; }
    // After Run: the exit code of the run.
    ExitCode Result() const;
    // A copy of the member, or nothing if there is none. May be called on any thread.
    std::optional<Member> Find(const std::string& id);

  private:
    friend class Attempt;
    struct Waiting {
        size_t member;
        Clock::time_point notBefore;
    };

    void Work();
    std::optional<size_t> NextMember();
    std::optional<size_t> TakeWaiting(Clock::time_point* wake);
    void Perform(size_t index);
    void Conclude(size_t index);
    void ConcludeFailure(const Member& member, size_t index);
    void ChooseCanaries();
    bool Held(size_t index) const;
    std::vector<Member>::iterator Known(const std::string& id);
    void Queue(size_t index, Millis pause);
    Millis PauseBefore(const Member& member) const;
    void Stop(const std::string& why);

    // An attempt enters a state. Writes the journal first, then tells the listener.
    void Enter(size_t index, Member* member, State state);
    // The MAC address of this member is now known. Returns false if another member has it.
    bool Claim(size_t index, const std::string& mac);
    // The device has certainly not accepted. The journal does not record that, so a later run looks
    // again.
    void Settle(size_t index, const Member& member);
    void Tell(const std::function<void(RunListener*)>& call);

    RunRequest request_;
    Journal* journal_;
    RunListener* listener_;
    std::mutex mutex_;  // for everything below; held while the listener is called
    std::condition_variable changed_;
    std::vector<Member> members_;
    std::deque<Waiting> waiting_;
    std::map<size_t, bool> canaries_;  // whether each was seen alive; empty: nobody has to wait
    std::set<size_t> underWay_;
    std::map<size_t, int> retried_;  // further attempts in this run
    std::set<size_t> refused_;       // when they were added
    size_t failures_ = 0;            // without those that are still refused
    std::string stopped_;
    std::string journalTrouble_;
};

// Whether a failed device has not accepted anything and another attempt may succeed.
bool MayRetry(const Member& member);

}  // namespace kvtool::fleet
