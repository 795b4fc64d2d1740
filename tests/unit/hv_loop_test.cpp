// Life of a loop, posted events, timers.
#include <atomic>

#include "hv_test_support.h"

namespace {

TEST(HvLoop, RunsEarlierPostsInOrderAndStops) {
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
        // The event may go out of scope at once, because posting copies it.
        Post(
            loop,
            [](hevent_t* posted) {
                const auto* event = static_cast<Numbered*>(hevent_userdata(posted));
                event->order->push_back(event->number);
            },
            &events[i]);
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
    const long before = Descriptors();
    hloop_t* automatic = hloop_new(HLOOP_FLAG_AUTO_FREE);
    PostStop(automatic);
    EXPECT_EQ(hloop_run(automatic), 0);
    EXPECT_EQ(Descriptors(), before);

    hloop_t* never = hloop_new(0);
    PostStop(never);
    hloop_free(&never);
    EXPECT_EQ(Descriptors(), before);
}

TEST(HvLoop, StopEndsItAfterTheCallbackInProgress) {
    BUNDLED_ONLY("it empties its queue before it obeys a stop");
    hloop_t* loop = hloop_new(0);
    std::atomic<int> calls{0};
    const auto count = [](hevent_t* ev) { ++*static_cast<std::atomic<int>*>(hevent_userdata(ev)); };
    Post(loop, count, &calls);
    PostStop(loop);
    Post(loop, count, &calls);
    EXPECT_EQ(hloop_run(loop), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(hloop_stop(loop), 0);  // not running: ends the next run
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

TEST(HvLoop, TimersRepeatAsOftenAsAsked) {
    static int thrice;
    static int endless;
    const auto begin = Clock::now();
    hloop_t* loop = hloop_new(0);
    const auto count = [](htimer_t* timer) {
        int* counter = static_cast<int*>(hevent_userdata(timer));
        if (++*counter == 10) {
            hloop_stop(hevent_loop(timer));
        }
    };
    EXPECT_EQ(htimer_add(loop, count, 0), nullptr);
    hevent_set_userdata(htimer_add(loop, count, 20, 3), &thrice);
    hevent_set_userdata(htimer_add(loop, count, 30, INFINITE), &endless);
    hloop_run(loop);
    hloop_free(&loop);
    EXPECT_EQ(thrice, 3);
    EXPECT_EQ(endless, 10);
    EXPECT_GE(SecondsSince(begin), 0.28);
}

}  // namespace
