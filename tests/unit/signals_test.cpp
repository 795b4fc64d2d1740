#include "main/kv_signals.h"

#include <semaphore.h>

#include <atomic>
#include <csignal>

#include "common/kv_time.h"
#include "tests/support/common.h"

namespace {

std::atomic<int> g_serialRuns{0};
std::atomic<int> g_serialTogether{0};
std::atomic<int> g_mostTogether{0};
std::atomic<int> g_concurrentRuns{0};
std::atomic<int> g_signalSeen{0};
sem_t g_entered;
sem_t g_release;

void Serial(int signal) {
    g_signalSeen = signal;
    const int together = ++g_serialTogether;
    if (together > g_mostTogether) {
        g_mostTogether = together;
    }
    ++g_serialRuns;
    (void)sem_post(&g_entered);
    (void)sem_wait(&g_release);
    --g_serialTogether;
}

void Concurrent(int signal) {
    (void)signal;
    const bool first = ++g_concurrentRuns == 1;
    (void)sem_post(&g_entered);
    if (first) {
        (void)sem_wait(&g_release);
    }
}

bool Entered() {
    struct timespec until = {};
    (void)clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 60;
    return sem_timedwait(&g_entered, &until) == 0;
}

constexpr SignalRoute kRoutes[] = {
    {SIGUSR2, SignalMode::kSerial, Serial},
    {SIGTERM, SignalMode::kConcurrent, Concurrent},
};

}  // namespace

TEST(SignalsDeathTest, AFullPipeBlocksNobody) {
    EXPECT_EXIT(
        {
            (void)KV_SIGNAL_Install(kRoutes, 2);
            errno = EXDEV;
            for (int i = 0; i < 70000; ++i) {
                (void)raise(SIGUSR2);
            }
            _exit(errno == EXDEV ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Signals, ProceduresRunOutsideSignalContextAndSideBySide) {
    (void)sem_init(&g_entered, 0, 0);
    (void)sem_init(&g_release, 0, 0);
    ASSERT_EQ(KV_SIGNAL_Install(kRoutes, 2), 0);

    // Early arrivals wait; no thread exists yet.
    (void)raise(SIGUSR2);
    const std::filesystem::directory_iterator threads("/proc/self/task");
    EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);
    KV_SIGNAL_Serve();
    // A run in progress and four more arrivals: one is kept.
    ASSERT_TRUE(Entered());
    EXPECT_EQ(g_signalSeen, SIGUSR2);
    for (int i = 0; i < 4; ++i) {
        (void)raise(SIGUSR2);
    }
    // The other route's runs are not delayed, and each gets its own thread. The pipe keeps the
    // order, so the four arrivals above have been read when this one runs.
    (void)raise(SIGTERM);
    ASSERT_TRUE(Entered());
    (void)raise(SIGTERM);
    ASSERT_TRUE(Entered());
    EXPECT_EQ(g_concurrentRuns, 2);
    EXPECT_EQ(g_serialRuns, 1);

    // Three releases: the first SIGTERM, the run in progress, the pending run.
    (void)sem_post(&g_release);
    (void)sem_post(&g_release);
    (void)sem_post(&g_release);
    ASSERT_TRUE(Entered());
    EXPECT_EQ(g_mostTogether, 1);

    // Idle again: an arrival starts a new run. Nothing else was pending.
    ASSERT_TRUE(kv_test::WaitUntil([] { return g_serialTogether == 0; }));
    (void)raise(SIGUSR2);
    ASSERT_TRUE(Entered());
    EXPECT_EQ(g_serialRuns, 3);
    (void)sem_post(&g_release);
}

TEST(Sleep, IsNotCutShortBySignals) {
    (void)signal(SIGUSR1, [](int) {});
    std::atomic<bool> awake{false};
    const auto begin = kv_test::Clock::now();
    std::thread sleeper([&] {
        kv::SleepMilliseconds(200);
        awake = true;
    });
    while (!awake) {
        (void)pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(kv_test::milliseconds(5));
    }
    sleeper.join();
    EXPECT_GE(kv_test::SecondsSince(begin), 0.2);
}
