// Upgrades many devices, a few at a time. Knows no terminal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/device/discovery_client.h"
#include "tools/device/upgrade_session.h"
#include "tools/fleet/journal.h"

namespace kvtool::fleet {

struct RunRequest {
    const Bytes& package;  // all devices are sent these very bytes
    std::string ic;        // what it is for
    std::string sensor;
    size_t jobs = 1;
    size_t canaries = 0;     // so many must have been seen alive before the rest starts
    size_t maxFailures = 0;  // so many failed devices end the starts; 0: none do
    int retries = 0;         // further attempts at a device that has taken nothing
    Millis retryPause{5000};
    UpgradeTimes times;
    DiscoveryRequest discovery;         // how a device is looked for
    std::optional<uint16_t> port;       // command port, when it is not as discovered
    std::optional<uint16_t> alivePort;  // what the running application opens
    std::string expectVersion;          // empty: any
    bool keepOpen = false;          // go on waiting for more devices until `startNothing` is raised
    const Interrupt& startNothing;  // once raised, nothing is started; those under way go on
    const Interrupt& stopNow;       // once raised, those under way are left as they are
};

// Called from several threads, one at a time. `member` counts from 0 in the order of Add.
class RunListener {
  public:
    virtual ~RunListener() = default;
    // It is new, has entered a state, or is to be tried again.
    virtual void Changed(size_t member, const Member& what) = 0;
    virtual void Progress(size_t member, const UploadProgress& progress) = 0;
    // What happens in words.
    virtual void Line(size_t member, const std::string& text) = 0;
    // About the run as a whole.
    virtual void Note(const std::string& text) = 0;
    // About ten times a second.
    virtual void Tick() = 0;
};

class Runner {
  public:
    // `journal` holds a run that has begun; `listener` and it outlive the runner.
    Runner(const RunRequest& request, Journal* journal, RunListener* listener)
        : request_(request), journal_(journal), listener_(listener) {}

    // A device to upgrade, or one of an earlier run: then what is left to do is done. From any
    // thread, before Run or meanwhile.
    void Add(Member member);
    // Blocks until there is nothing left to do or under way. Once.
    void Run();

    // After Run: all members as they are now, and why nothing more was started (empty: all were).
    const std::vector<Member>& Members() const { return members_; }
    const std::string& Stopped() const { return stopped_; }
    // Why the journal could not be written; empty: it is whole.
    const std::string& JournalTrouble() const { return journalTrouble_; }
    // A copy, from any thread; nothing: no such device.
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
    Clock::time_point EarliestStart(const Member& member) const;
    void Stop(const std::string& why);

    // What an attempt tells: the journal has it before anybody else, and before this returns.
    void Enter(size_t index, Member* member, State state);
    // It has certainly not accepted. Not in the journal: a later run had better look again.
    void Settle(size_t index, const Member& member);
    void Tell(const std::function<void(RunListener*)>& call);

    RunRequest request_;
    Journal* journal_;
    RunListener* listener_;
    std::mutex mutex_;  // of all below, and held while the listener is called
    std::condition_variable changed_;
    std::vector<Member> members_;
    std::deque<Waiting> waiting_;
    std::map<size_t, bool> canaries_;  // whether it is over; empty: nobody has to wait for any
    size_t underWay_ = 0;
    size_t failures_ = 0;
    std::string stopped_;
    std::string journalTrouble_;
};

// Whether a device that failed so has taken nothing and may be tried again.
bool MayRetry(const Member& member);

}  // namespace kvtool::fleet
