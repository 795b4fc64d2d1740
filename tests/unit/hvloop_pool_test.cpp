// The loop pool: life, choice of a worker, hand-over, and failures of its parts.
#include "mini/kv_hvloop_pool.h"

#include <pthread.h>

#include <atomic>
#include <new>
#include <set>

#include "tests/support/capture.h"
#include "tests/support/tcp_client.h"

using namespace kv_test;

namespace {

constexpr int kPort = 20080;

std::atomic<int> g_loopsUntilFailure{-1};
// The loops in the order of creation, which is the order of the slots.
std::vector<hloop_t*> g_loops;
std::atomic<bool> g_refuseThreads{false};
std::atomic<size_t> g_stackSize{0};
std::atomic<bool> g_noMemory{false};

}  // namespace

// The event loop's allocations. A test can make them fail.
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return g_noMemory ? nullptr : ::operator new(size);
}

extern "C" {
hloop_t* __real_hloop_new(int flags);
hloop_t* __wrap_hloop_new(int flags) {
    EXPECT_EQ(flags & HLOOP_FLAG_AUTO_FREE, 0);
    if (g_loopsUntilFailure >= 0 && g_loopsUntilFailure-- == 0) {
        return nullptr;
    }
    g_loops.push_back(__real_hloop_new(flags));
    return g_loops.back();
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*procedure)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*procedure)(void*), void* argument) {
    size_t size = 0;
    (void)pthread_attr_getstacksize(attributes, &size);
    g_stackSize = size;
    return g_refuseThreads ? EAGAIN
                           : __real_pthread_create(thread, attributes, procedure, argument);
}
}

namespace {

int LoopThreads() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        count += ReadFile(task.path() / "comm") == "__KV_HV_LoopPro\n" ? 1 : 0;
    }
    return count;
}

bool AllLoopsRun() {
    // Once a loop has run a posted event, its thread has a name and is in hloop_run.
    KV_HV_LoopPoolSettle();
    return LoopThreads() == 4;
}

// Answers every chunk with the thread's identity, so a client knows its worker.
void Identify(hio_t* io, void* buf, int readbytes) {
    (void)buf;
    (void)readbytes;
    const pthread_t self = pthread_self();
    (void)hio_write(io, &self, sizeof(self));
}

void Serve(hio_t* io) {
    hio_setcb_read(io, Identify);
    (void)hio_read(io);
}

void OnAccept(hio_t* io) {
    KV_HV_HandOver(io, Serve);
}

TEST(HvLoopPool, StartsAndStopsRepeatedly) {
    for (int round = 0; round < 3; ++round) {
        const Capture log(2);
        EXPECT_EQ(KV_HV_LoopPoolStart(), 0);
        EXPECT_EQ(KV_HV_LoopPoolStart(), -1);
        EXPECT_TRUE(AllLoopsRun());
        EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
        EXPECT_TRUE(WaitUntil([] { return LoopThreads() == 0; }));
        EXPECT_EQ(KV_HV_LoopPoolDeInit(), -1);
        EXPECT_TRUE(InOrder(
            log.Text(),
            {"DEBUG kv_hvloop_pool:KV_HV_LoopPoolInit:", "\033[mLoopPoolInit Init Success!\n",
             "\033[mLoopPoolInit DeInit Success!\n",
             "FAILED kv_hvloop_pool:KV_HV_LoopPoolDeInit:", "\033[mEvent not Inited!\n"}));
    }
    EXPECT_EQ(g_stackSize, 0x20000U);
}

TEST(HvLoopPool, AFailedLoopLeavesAPoolThatTheNextCallCompletes) {
    const Capture log(2);
    g_loopsUntilFailure = 2;
    EXPECT_EQ(KV_HV_LoopPoolInit(), -1);
    EXPECT_TRUE(Contains(log.Text(), "\033[mloop new failed!\n"));
    EXPECT_TRUE(WaitUntil([] { return LoopThreads() == 2; }));
    EXPECT_EQ(KV_HV_LoopPoolDeInit(), -1);
    g_loopsUntilFailure = 0;
    EXPECT_EQ(KV_HV_GetAcceptLoop(), nullptr);
    g_loopsUntilFailure = 0;
    EXPECT_EQ(KV_HV_GetWorkLoop(), nullptr);
    EXPECT_EQ(KV_HV_LoopPoolInit(), 0);
    EXPECT_TRUE(AllLoopsRun());
    EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
    EXPECT_TRUE(WaitUntil([] { return LoopThreads() == 0; }));
}

TEST(HvLoopPool, RunsErrandsAndStopsWithoutMemory) {
    const Capture log(2);
    ASSERT_EQ(KV_HV_LoopPoolInit(), 0);
    g_noMemory = true;
    std::atomic<int> ran{0};
    for (int i = 0; i < 3; ++i) {
        KV_HV_RunOnLoop(
            KV_HV_GetWorkLoop(),
            [](hloop_t*, void* arg) { ++*static_cast<std::atomic<int>*>(arg); }, &ran);
    }
    EXPECT_EQ(ran, 3);
    EXPECT_FALSE(Contains(log.Text(), "it is lost"));
#ifndef KV_HV_SYSTEM
    // There is room for one event, so the second of two is lost.
    const auto postTwo = [](hloop_t* loop, void* arg) {
        hevent_t event{};
        event.cb = [](hevent_t* ev) { ++*static_cast<std::atomic<int>*>(hevent_userdata(ev)); };
        event.userdata = arg;
        hloop_post_event(loop, &event);
        hloop_post_event(loop, &event);
    };
    KV_HV_RunOnLoop(KV_HV_GetWorkLoop(), postTwo, &ran);
    // The first one must have run: until then it has the room that a stop needs.
    EXPECT_TRUE(WaitUntil([&] { return ran == 4; }));
    EXPECT_TRUE(Contains(log.Text(), "it is lost"));
#endif
    EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
    g_noMemory = false;
}

TEST(HvLoopPoolDeathTest, AThreadThatCannotBeCreatedAborts) {
    EXPECT_DEATH(
        {
            g_refuseThreads = true;
            (void)KV_HV_LoopPoolInit();
        },
        "ASSERT kv_hvloop_pool:KV_HV_LoopPoolInit:.*pthread create failed:Resource temporarily");
}

TEST(HvLoopPool, ConnectionsGoToTheLeastLoadedWorkerAndTiesToTheLowerSlot) {
    g_loops.clear();
    hio_t* listener = hloop_create_tcp_server(KV_HV_GetAcceptLoop(), "", kPort, OnAccept);
    ASSERT_NE(listener, nullptr);
    ASSERT_EQ(g_loops.size(), 4U);
    EXPECT_EQ(KV_HV_GetAcceptLoop(), g_loops[0]);
    std::vector<TcpClient> clients;
    std::vector<std::string> workers;
    const auto connectTo = [&](size_t slot) {
        EXPECT_EQ(KV_HV_GetWorkLoop(), g_loops[slot]);
        clients.emplace_back(kPort);
        workers.push_back(clients.back().Ask("?", sizeof(pthread_t)));
        ASSERT_EQ(workers.back().size(), sizeof(pthread_t));
    };
    for (const size_t slot : {1, 2, 3, 1, 2, 3}) {
        connectTo(slot);
    }
    EXPECT_EQ(std::set<std::string>(workers.begin(), workers.begin() + 3).size(), 3U);
    EXPECT_TRUE(std::equal(workers.begin(), workers.begin() + 3, workers.begin() + 3));

    // Two connections of slot 2 end. Slot 2 gets the next two although slot 1 is lower.
    const uint32_t before = hloop_nios(g_loops[2]);
    clients[1].Close();
    clients[4].Close();
    EXPECT_TRUE(WaitUntil([=] { return hloop_nios(g_loops[2]) == before - 2; }));
    for (const size_t slot : {2, 2, 1}) {
        connectTo(slot);
    }
    EXPECT_EQ(workers[6], workers[1]);
    EXPECT_EQ(workers[7], workers[1]);
    EXPECT_EQ(workers[8], workers[0]);

    (void)hio_close(listener);
    KV_HV_LoopPoolSettle();
    EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
}

}  // namespace
