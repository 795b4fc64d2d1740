#include "main/kv_monitor.h"

#include <sys/mman.h>

#include "main/hardware_reset.h"
#include "tests/support/capture.h"
#include "tests/support/surroundings.h"

namespace {

MonitoredProcess FreshRecord(uint32_t start) {
    return {"cameraMain", start, 5, 120, 1, 1, 0, start};
}

// One boot of a board: a record, the marker that survives the boot, and the ticks of the check
// timer.
class Boot {
  public:
    Boot(uint32_t start, bool* marker) : process_(FreshRecord(start)), marker_(marker) {}

    MonitorDecision Tick(uint32_t now) {
        if (now - process_.last_seen <= process_.heartbeat_timeout) {
            return {};
        }
        return Decide({now, false, false, quiet, *marker_});
    }
    MonitorDecision Beat(uint32_t now, bool ready = true) {
        return Decide({now, true, ready, quiet, *marker_});
    }
    const MonitoredProcess& Record() const { return process_; }
    void Hold() { process_.restart_hold = 1; }

    bool quiet = false;

  private:
    MonitorDecision Decide(const MonitorInput& input) {
        const MonitorDecision decision = KV_MONITOR_Decide(&process_, input);
        if (decision.removeMarker || decision.step == MonitorStep::kRecover) {
            *marker_ = false;
        }
        if (decision.step == MonitorStep::kReboot) {
            *marker_ = true;
        }
        if (decision.step == MonitorStep::kRecover) {
            quiet = true;
        }
        return decision;
    }

    MonitoredProcess process_;
    bool* marker_;
};

// Seconds of silence and the step taken then.
using Steps = std::vector<std::pair<uint32_t, MonitorStep>>;

Steps StepsOfSilence(Boot* boot, uint32_t start, uint32_t seconds) {
    Steps steps;
    for (uint32_t t = 3; t <= seconds; t += 3) {
        const MonitorDecision decision = boot->Tick(start + t);
        if (decision.step != MonitorStep::kNone) {
            steps.emplace_back(t, decision.step);
        }
        if (decision.step == MonitorStep::kReboot) {
            break;
        }
    }
    return steps;
}

}  // namespace

TEST(Monitor, PermanentSilenceRestartsRebootsThenRecovers) {
    // Crosses the 32-bit wrap: all differences are unsigned.
    const uint32_t start = 0xFFFFFFFFU - 150U;
    bool marker = false;
    Boot first(start, &marker);
    EXPECT_EQ(StepsOfSilence(&first, start, 600),
              (Steps{{123, MonitorStep::kRestart}, {186, MonitorStep::kReboot}}));
    EXPECT_TRUE(marker);

    Boot second(start, &marker);
    EXPECT_EQ(StepsOfSilence(&second, start, 600),
              (Steps{{123, MonitorStep::kRestart}, {186, MonitorStep::kRecover}}));
    EXPECT_FALSE(marker);
}

// A beat on the ladder's second rung takes the marker away, so the next rung is a reboot again. The
// silence counts from the beat. The restart is not given back.
TEST(Monitor, ABeatStopsTheLadder) {
    bool marker = true;
    Boot boot(100, &marker);
    ASSERT_EQ(StepsOfSilence(&boot, 100, 150).size(), 1U);
    EXPECT_TRUE(boot.Beat(251).removeMarker);
    EXPECT_FALSE(boot.Tick(256).logOffline);
    EXPECT_TRUE(boot.Tick(257).startButton);
    EXPECT_EQ(StepsOfSilence(&boot, 251, 600), (Steps{{123, MonitorStep::kReboot}}));
}

TEST(Monitor, FiveSecondsAreNotSilenceAndSixAre) {
    bool marker = false;
    Boot boot(100, &marker);
    EXPECT_FALSE(boot.Tick(105).logOffline);
    const MonitorDecision first = boot.Tick(106);
    EXPECT_TRUE(first.logOffline && first.startButton);
    EXPECT_EQ(first.offTime, 6U);
    const MonitorDecision second = boot.Tick(109);
    EXPECT_TRUE(second.logOffline);
    EXPECT_FALSE(second.startButton);
    // Exactly 120 s is not beyond the time-out.
    EXPECT_EQ(boot.Tick(220).step, MonitorStep::kNone);
    EXPECT_EQ(boot.Tick(221).step, MonitorStep::kRestart);
    EXPECT_EQ(boot.Record().last_seen, 221U - 60U);
    // Quiet time does not count as silence, and nothing is logged or done during it.
    boot.quiet = true;
    const MonitorDecision quiet = boot.Tick(300);
    EXPECT_FALSE(quiet.logOffline || quiet.startButton || quiet.step != MonitorStep::kNone);
    EXPECT_EQ(boot.Record().last_seen, 300U);
}

TEST(Monitor, ButtonIsHandedBackWithTheSecondHeartbeatInARow) {
    bool marker = true;
    Boot boot(100, &marker);
    (void)boot.Tick(110);
    const MonitorDecision first = boot.Beat(111);
    EXPECT_FALSE(first.stopButton);
    EXPECT_TRUE(first.removeMarker);
    EXPECT_FALSE(marker);
    EXPECT_TRUE(boot.Beat(112).stopButton);
    EXPECT_EQ(boot.Record().last_seen, 112U);
}

TEST(Monitor, OnlineIsLoggedInOneSecondOutOfFour) {
    bool marker = false;
    Boot boot(100, &marker);
    for (uint32_t now = 100; now < 120; ++now) {
        EXPECT_EQ(boot.Beat(now).logOnline, now % 4 == 0) << now;
    }
}

TEST(Monitor, OnlyTheReadyFlagClearsTheHold) {
    bool marker = false;
    Boot boot(100, &marker);
    boot.Hold();
    EXPECT_EQ(boot.Tick(500).step, MonitorStep::kNone);
    (void)boot.Beat(501, false);
    EXPECT_EQ(boot.Record().ready_time, 100U);
    EXPECT_EQ(boot.Tick(800).step, MonitorStep::kNone);
    (void)boot.Beat(801, true);
    EXPECT_EQ(boot.Record().ready_time, 801U);
    EXPECT_EQ(boot.Tick(1000).step, MonitorStep::kRestart);
}

// With the program's own record and clock: silence starts after more than five seconds, and two
// starts of the button leave one thread.
TEST(Monitor, TheTimerFindsSilenceInTheSixthSecond) {
    kv_test::RequireSandbox();
    const kv_test::Capture out(1);
    const kv_test::Capture trace(2);
    KV_MONITOR_Begin();
    const std::string kFound = "off time = ";
    auto look = kv_test::Clock::now();
    double pause = 0;  // between the last two looks
    EXPECT_TRUE(kv_test::WaitUntil([&] {
        pause = kv_test::SecondsSince(look);
        look = kv_test::Clock::now();
        __KV_cameraMainCheckTimer(nullptr);
        return kv_test::Contains(trace.Text(), kFound);
    }));
    const std::string text = trace.Text();
    const int seconds = atoi(text.c_str() + text.find(kFound) + kFound.size());
    EXPECT_GE(seconds, 6);
    EXPECT_LE(seconds, 6 + pause);
    EXPECT_EQ(HardwareResetStart(), 0);
    HardwareResetStop();
    EXPECT_TRUE(kv_test::WaitUntil([&] { return kv_test::Contains(out.Text(), "End is OK"); }));
    EXPECT_EQ(kv_test::CountOf(out.Text(), "thread Start is OK"), 1U);
}

// No byte after the received ones is read, however few they are. They end at the end of a page, and
// the next page cannot be read.
TEST(Heartbeat, EndsWithItsDatagram) {
    kv_test::RequireSandbox();
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* const memory = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    ASSERT_EQ(mprotect(memory + page, page, PROT_NONE), 0);
    memset(memory, 'A', page);
    for (const std::string name : {"", "cameraMain"}) {
        name.copy(memory + page - name.size(), name.size());
        for (const int size : {0, 1, 31, 32, 33}) {
            __KV_cameraMainHeartbeatRead(nullptr, memory + page - size, size);
        }
    }
    (void)munmap(memory, 2 * page);
}
