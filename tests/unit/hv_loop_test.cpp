// Life of a loop, posted events, timers, idleness.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <vector>

#include "hv_test_support.h"

namespace {

TEST(HvLoop, RunsWhatWasPostedBeforeItRanInOrderAndStops) {
    struct Numbered {
        std::vector<int>* order;
        int number;
    };
    std::vector<int> order;
    Numbered events[5];
    hloop_t* loop = hloop_new(0);
    ASSERT_NE(loop, nullptr);
    for (int i = 0; i < 5; ++i) {
        events[i] = {&order, i};
        hevent_t ev;
        memset(&ev, 0, sizeof(ev));
        ev.cb = [](hevent_t* posted) {
            const auto* event = static_cast<Numbered*>(hevent_userdata(posted));
            event->order->push_back(event->number);
        };
        ev.userdata = &events[i];
        hloop_post_event(loop, &ev);
        memset(&ev, 0, sizeof(ev));  // posting has copied it
    }
    PostStop(loop);
    EXPECT_EQ(hloop_run(loop), 0);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    hloop_free(&loop);
    EXPECT_EQ(loop, nullptr);
    hloop_free(&loop);
    hloop_free(nullptr);
}

TEST(HvLoop, LeavesNoDescriptorHoweverItEnds) {
    const std::set<int> before = OpenDescriptors();
    hloop_t* automatic = hloop_new(HLOOP_FLAG_AUTO_FREE);
    PostStop(automatic);
    EXPECT_EQ(hloop_run(automatic), 0);
    EXPECT_EQ(OpenDescriptors(), before);

    hloop_t* never = hloop_new(0);
    PostStop(never);
    hloop_free(&never);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(HvLoop, StopEndsItAfterTheCallbackInProgress) {
    BUNDLED_ONLY("it drains its queue before it looks at the stop");
    hloop_t* loop = hloop_new(0);
    std::atomic<int> calls{0};
    const auto count = [](hevent_t* ev) { ++*static_cast<std::atomic<int>*>(hevent_userdata(ev)); };
    Post(loop, count, &calls);
    PostStop(loop);
    Post(loop, count, &calls);
    EXPECT_EQ(hloop_run(loop), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(hloop_stop(loop), 0);  // before it runs: the next run ends on it
    EXPECT_EQ(hloop_run(loop), 0);
    EXPECT_EQ(calls, 2);
    hloop_free(&loop);
}

TEST(HvLoop, RefusesToRunTwiceAtOnce) {
    LoopThread thread;
    int inner = 0;
    thread.Do([&] { inner = hloop_run(thread.Get()); });
    EXPECT_LT(inner, 0);
    EXPECT_LT(hloop_run(thread.Get()), 0);
    EXPECT_LT(hloop_run(nullptr), 0);
}

TEST(HvLoop, TakesPostsFromManyThreadsEachInItsOrder) {
    constexpr size_t kThreads = 4;
    constexpr size_t kPosts = 2000;
    struct Source {
        size_t next = 0;
        bool ordered = true;
        Tally done;
    };
    struct Numbered {
        Source* source;
        size_t number;
    };
    std::vector<Source> sources(kThreads);
    std::vector<Numbered> events(kThreads * kPosts);
    LoopThread loop;
    std::vector<std::thread> posters;
    for (size_t t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (size_t i = 0; i < kPosts; ++i) {
                Numbered& event = events[t * kPosts + i];
                event = {&sources[t], i};
                Post(
                    loop.Get(),
                    [](hevent_t* ev) {
                        const auto* it = static_cast<Numbered*>(hevent_userdata(ev));
                        it->source->ordered &= it->number == it->source->next++;
                        it->source->done.Add();
                    },
                    &event);
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    for (Source& source : sources) {
        EXPECT_TRUE(source.done.WaitFor(kPosts));
    }
    loop.Stop();
    for (const Source& source : sources) {
        EXPECT_TRUE(source.ordered);
    }
}

TEST(HvLoop, TimersRepeatAsOftenAsAsked) {
    struct Clock {
        int thrice = 0;
        int endless = 0;
    } clock;
    const auto begin = std::chrono::steady_clock::now();
    hloop_t* loop = hloop_new(0);
    EXPECT_EQ(htimer_add(
                  loop, [](htimer_t*) {}, 0),
              nullptr);
    htimer_t* thrice = htimer_add(
        loop, [](htimer_t* timer) { ++static_cast<Clock*>(hevent_userdata(timer))->thrice; }, 20,
        3);
    htimer_t* endless = htimer_add(
        loop,
        [](htimer_t* timer) {
            if (++static_cast<Clock*>(hevent_userdata(timer))->endless == 10) {
                hloop_stop(hevent_loop(timer));
            }
        },
        30, INFINITE);
    ASSERT_NE(thrice, nullptr);
    ASSERT_NE(endless, nullptr);
    hevent_set_userdata(thrice, &clock);
    hevent_set_userdata(endless, &clock);
    hloop_run(loop);
    const auto took = std::chrono::steady_clock::now() - begin;
    hloop_free(&loop);
    EXPECT_EQ(clock.thrice, 3);
    EXPECT_EQ(clock.endless, 10);
    EXPECT_GE(took, std::chrono::milliseconds(280));
    EXPECT_LT(took, std::chrono::seconds(2));
}

long VoluntarySwitches(pid_t tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/status";
    const UniqueFile status(fopen(path.c_str(), "re"));
    char line[128];
    long switches = -1;
    while (fgets(line, sizeof(line), status.Get()) != nullptr) {
        if (sscanf(line, "voluntary_ctxt_switches: %ld", &switches) == 1) {
            break;
        }
    }
    return switches;
}

Tally g_accepted;

TEST(HvLoop, IdleLoopWakesForNothing) {
    BUNDLED_ONLY("it wakes ten times a second");
    LoopThread loop;
    pid_t tid = 0;
    hio_t* server = nullptr;
    loop.Do([&] {
        tid = gettid();
        server = hloop_create_tcp_server(loop.Get(), "127.0.0.1", 0, [](hio_t* io) {
            hio_read(io);
            hio_set_read_timeout(io, 60000);
            g_accepted.Add();
        });
        hio_read(hloop_create_udp_server(loop.Get(), "127.0.0.1", 0));
    });
    const UniqueFd client = Client(PortOf(server));
    ASSERT_TRUE(g_accepted.WaitFor(1));
    loop.Do([] {});
    // The thread has yet to go to sleep behind that work.
    long before = -1;
    for (int i = 0; i < 50 && before != VoluntarySwitches(tid); ++i) {
        before = VoluntarySwitches(tid);
        usleep(50000);
    }
    usleep(1500000);
    EXPECT_GT(before, 0);
    EXPECT_EQ(VoluntarySwitches(tid), before);
}

}  // namespace
