// Connections on one loop: reading, writing, closing, and what a callback may do to its own io.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <vector>

#include "hv_test_support.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A server whose read and close behaviour a test supplies. Everything of a connection happens on
// the loop's thread; the tallies tell the test.
struct Server {
    std::function<void(hio_t*)> onAccept = [](hio_t*) {};
    std::function<void(hio_t*, const char*, size_t)> onRead = [](hio_t*, const char*, size_t) {};
    Tally accepted;
    Tally received;  // bytes
    Tally closed;
    std::thread::id closer;
    hio_t* last = nullptr;
    hio_t* listener = nullptr;
    int port = 0;
};
Server* g_server;

void OnClose(hio_t* /*io*/) {
    g_server->closed.Add();
}
void OnRead(hio_t* io, void* buf, int readbytes) {
    ASSERT_EQ(hio_context(io), g_server);
    const auto size = static_cast<size_t>(readbytes);
    g_server->onRead(io, static_cast<const char*>(buf), size);
    g_server->received.Add(size);
}
void OnAccept(hio_t* io) {
    hio_set_context(io, g_server);
    hio_setcb_close(io, OnClose);
    hio_setcb_read(io, OnRead);
    g_server->last = io;
    g_server->onAccept(io);
    hio_read(io);
    g_server->accepted.Add();
}

class HvIo : public testing::Test {
  protected:
    void SetUp() override {
        g_server = &server_;
        loop_.Do([&] {
            server_.listener = hloop_create_tcp_server(loop_.Get(), "127.0.0.1", 0, OnAccept);
            server_.port = PortOf(server_.listener);
        });
        ASSERT_NE(server_.port, 0);
    }
    void TearDown() override { loop_.Stop(); }
    // Waits until the connection is served, so that server_.last is it.
    UniqueFd Connected() {
        const size_t before = server_.accepted.Count();
        UniqueFd client = Client(server_.port);
        EXPECT_TRUE(server_.accepted.WaitFor(before + 1));
        return client;
    }

    Server server_;
    LoopThread loop_;
};

void Echo(hio_t* io, const char* buf, size_t size) {
    EXPECT_LE(size, 8192U);
#ifndef KV_HV_SYSTEM
    EXPECT_EQ(buf[size], '\0');
#endif
    EXPECT_GE(hio_write(io, buf, size), 0);
}

TEST_F(HvIo, EchoesALongStreamInChunks) {
    server_.onRead = Echo;
    const UniqueFd client = Connected();
    const std::string sent = Pattern(300000, 1);
    std::thread writer([&] { Send(client, sent); });
    EXPECT_EQ(Receive(client, sent.size()), sent);
    writer.join();
    sockaddr_in own{};
    socklen_t length = sizeof(own);
    ASSERT_EQ(getsockname(client.Get(), reinterpret_cast<sockaddr*>(&own), &length), 0);
    const std::string peer = "127.0.0.1:" + std::to_string(ntohs(own.sin_port));
    const std::string local = "127.0.0.1:" + std::to_string(server_.port);
    loop_.Do([&] {
        char text[SOCKADDR_STRLEN];
        const auto print = [&](sockaddr* address) {
            return sockaddr_str(reinterpret_cast<sockaddr_u*>(address), text, SOCKADDR_STRLEN);
        };
        EXPECT_EQ(print(hio_peeraddr(server_.last)), peer);
        EXPECT_EQ(print(hio_localaddr(server_.last)), local);
    });
}

TEST_F(HvIo, QueuesForASlowReaderAndClosesBehindTheLastByte) {
    const std::string big = Pattern(500000, 2);
    std::vector<int> results;
    server_.onAccept = [&](hio_t* io) {
        const int size = 4096;
        ASSERT_EQ(setsockopt(hio_fd(io), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
        for (const size_t at : {size_t{0}, big.size() / 2}) {
            results.push_back(hio_write(io, big.data() + at, big.size() / 2));
        }
        hio_close(io);
    };
    const UniqueFd client = ClientSocket();
    const int size = 4096;
    ASSERT_EQ(setsockopt(client.Get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)), 0);
    ASSERT_TRUE(ConnectTo(client, server_.port));
    ASSERT_TRUE(server_.accepted.WaitFor(1));
    EXPECT_GT(results[0], 0);
    EXPECT_LT(results[0], 250000);
    EXPECT_EQ(results[1], 0);
    EXPECT_EQ(server_.closed.Count(), 0U);
    EXPECT_TRUE(Receive(client, big.size()) == big);
    EXPECT_TRUE(AtEnd(client));
    EXPECT_TRUE(server_.closed.WaitFor(1));
}

TEST_F(HvIo, GivesUpOnAReaderThatNeverReads) {
    BUNDLED_ONLY("it queues up to 16 MiB");
    const std::string part(100000, 'x');
    int error = 0;
    int writes = 0;
    server_.onAccept = [&](hio_t* io) {
        for (; error == 0 && writes < 1000; ++writes) {
            error = hio_write(io, part.data(), part.size()) < 0 ? errno : 0;
        }
        EXPECT_LT(hio_write(io, "more", 4), 0);
        EXPECT_EQ(server_.closed.Count(), 0U);  // not below the caller's feet
    };
    const UniqueFd client = Connected();
    EXPECT_EQ(error, ENOBUFS);
    EXPECT_GE(writes, 10);
    EXPECT_TRUE(server_.closed.WaitFor(1));
}

TEST_F(HvIo, WritingToAPeerThatIsGoneFailsWithoutASignal) {
    (void)signal(SIGPIPE, SIG_DFL);
    std::promise<void> gone;
    int result = 0;
    int error = 0;
    server_.onRead = [&](hio_t* io, const char*, size_t) {
        gone.get_future().wait();
        pollfd reset = {hio_fd(io), 0, 0};
        ASSERT_EQ(poll(&reset, 1, 10000), 1);
        // With the pending error taken out, the next send is one that would raise SIGPIPE.
        socklen_t length = sizeof(error);
        ASSERT_EQ(getsockopt(hio_fd(io), SOL_SOCKET, SO_ERROR, &error, &length), 0);
        result = hio_write(io, "late", 4);
        error = errno;
    };
    UniqueFd client = Connected();
    Send(client, "x");
    const linger hard = {1, 0};
    ASSERT_EQ(setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
    client.Reset();
    gone.set_value();
    EXPECT_TRUE(server_.closed.WaitFor(1));
    EXPECT_LT(result, 0);
    EXPECT_EQ(error, EPIPE);
    loop_.Stop();
    EXPECT_EQ(server_.closed.Count(), 1U);
}

TEST_F(HvIo, ReadTimeoutCountsFromTheLastArrivalAndCanBeTakenBack) {
    server_.onAccept = [](hio_t* io) { hio_set_read_timeout(io, 1500); };
    const UniqueFd freed = Connected();
    loop_.Do([&] { hio_set_read_timeout(server_.last, 0); });
    const UniqueFd client = Connected();
    Clock::time_point last;
    for (size_t i = 1; i <= 4; ++i) {
        usleep(600000);
        EXPECT_EQ(server_.closed.Count(), 0U);
        last = Clock::now();
        Send(client, "x");
        ASSERT_TRUE(server_.received.WaitFor(i));
    }
    EXPECT_TRUE(AtEnd(client));
    EXPECT_GE(Clock::now() - last, milliseconds(1390));  // libhv rounds down to a tenth
    EXPECT_LT(Clock::now() - last, milliseconds(4000));
    EXPECT_EQ(server_.closed.Count(), 1U);
    Send(freed, "z");
    EXPECT_TRUE(server_.received.WaitFor(5));
}

TEST_F(HvIo, ACallbackThatBlocksDoesNotShortenTheTimeout) {
    BUNDLED_ONLY("it counts from before the callback");
    Clock::time_point set;
    server_.onRead = [&](hio_t* io, const char*, size_t) {
        usleep(500000);
        set = Clock::now();
        hio_set_read_timeout(io, 600);
    };
    const UniqueFd client = Connected();
    Send(client, "x");
    ASSERT_TRUE(server_.received.WaitFor(1));
    EXPECT_TRUE(AtEnd(client));
    EXPECT_GE(Clock::now() - set, milliseconds(595));
}

TEST_F(HvIo, ClosesFromAnotherThread) {
    server_.onAccept = [](hio_t* io) {
        hio_setcb_close(io, [](hio_t*) {
            g_server->closer = std::this_thread::get_id();
            g_server->closed.Add();
        });
    };
    const UniqueFd client = Connected();
    EXPECT_EQ(hio_close(server_.last), 0);
    EXPECT_TRUE(AtEnd(client));
    ASSERT_TRUE(server_.closed.WaitFor(1));
    EXPECT_EQ(server_.closer, loop_.Id());

    hio_close(server_.listener);
    loop_.Do([] {});
    EXPECT_FALSE(ConnectTo(ClientSocket(), server_.port));
}

// What a read callback may do to its own io. Each case is a connection of its own, to which "ab"
// and then "cd" are sent; `answer` is all that comes back before the server closes or the client
// does.
std::vector<char> g_ownBuffer;
struct Reentry {
    const char* name;
    void (*onRead)(hio_t* io, const char* buf, size_t size);
    const char* answer;
};
void AnswerAgain(hio_t* io, void* buf, int readbytes) {
    EXPECT_EQ(readbytes, 1);
    hio_write(io, buf, 1);
    if (*static_cast<char*>(buf) == 'd') {
        hio_close(io);
    }
}
const Reentry kReentries[] = {
    {"close", [](hio_t* io, const char*, size_t) { hio_close(io); }, ""},
    {"close twice, then touch",
     [](hio_t* io, const char*, size_t) {
         hio_close(io);
         hio_close(io);
         EXPECT_LT(hio_write(io, "no", 2), 0);
         hio_set_read_timeout(io, 10);
         EXPECT_NE(hio_peeraddr(io), nullptr);
     },
     ""},
    {"answer, then close",
     [](hio_t* io, const char* buf, size_t) {
         EXPECT_EQ(hio_write(io, buf, 1), 1);
         hio_close(io);
     },
     "a"},
    {"take over with buffer and time-out",
     [](hio_t* io, const char* buf, size_t size) {
         hio_setcb_read(io, AnswerAgain);
         hio_set_read_timeout(io, 20000);
         g_ownBuffer.assign(1, '\0');
         hio_set_readbuf(io, g_ownBuffer.data(), g_ownBuffer.size());
         EXPECT_EQ(hio_read(io), 0);
         hio_write(io, buf, size);
     },
     "abcd"},
};

TEST_F(HvIo, ReadCallbackMayDoAnythingToItsIo) {
    for (const Reentry& entry : kReentries) {
        SCOPED_TRACE(entry.name);
        server_.onRead = entry.onRead;
        const size_t closed = server_.closed.Count();
        const size_t received = server_.received.Count();
        const UniqueFd client = Connected();
        Send(client, "ab");
        ASSERT_TRUE(server_.received.WaitFor(received + 2));
        (void)send(client.Get(), "cd", 2, MSG_NOSIGNAL);  // refused where the server has closed
        EXPECT_EQ(Receive(client, 10), entry.answer);
        EXPECT_TRUE(server_.closed.WaitFor(closed + 1));
    }
    loop_.Stop();
    EXPECT_EQ(server_.closed.Count(), sizeof(kReentries) / sizeof(kReentries[0]));
}

TEST_F(HvIo, AcceptCallbackMayCloseItsListener) {
    server_.onAccept = [&](hio_t* io) {
        hio_close(server_.listener);
        hio_write(io, "last", 4);
    };
    const UniqueFd client = Connected();
    EXPECT_EQ(Receive(client, 4), "last");
    EXPECT_FALSE(ConnectTo(ClientSocket(), server_.port));
}

TEST_F(HvIo, FreeClosesEverythingItHolds) {
    BUNDLED_ONLY("its descriptors are not close-on-exec");
    loop_.Stop();
    const std::set<int> before = OpenDescriptors();
    {
        LoopThread loop;
        hio_t* listener = hloop_create_tcp_server(loop.Get(), "", 0, OnAccept);
        ASSERT_NE(listener, nullptr);
        EXPECT_EQ(hloop_create_tcp_server(loop.Get(), "", PortOf(listener), OnAccept), nullptr);
        EXPECT_EQ(hloop_create_udp_server(loop.Get(), "camera", 0), nullptr);
        EXPECT_EQ(hloop_create_udp_server(loop.Get(), "", 65536), nullptr);
        hio_t* datagrams = hloop_create_udp_server(loop.Get(), "", 0);
        hio_setcb_close(datagrams, OnClose);
        hio_read(datagrams);
        const UniqueFd one = Client(PortOf(listener));
        const UniqueFd two = Client(PortOf(listener));
        ASSERT_TRUE(server_.accepted.WaitFor(2));
        EXPECT_EQ(hloop_nios(loop.Get()), 4U);
        for (const int fd : OpenDescriptors()) {
            if (before.count(fd) == 0) {
                EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << "descriptor " << fd;
            }
        }
        loop.Stop();
        EXPECT_EQ(server_.closed.Count(), 3U);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

double LoopCpuSeconds(LoopThread* loop) {
    timespec used{};
    loop->Do([&] { (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used); });
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

TEST_F(HvIo, OutOfDescriptorsItWaitsWithoutSpinningAndRecovers) {
    BUNDLED_ONLY("it spins");
    server_.onRead = Echo;
    std::vector<UniqueFd> clients(5);
    for (UniqueFd& client : clients) {
        client = ClientSocket();
    }
    rlimit normal{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &normal), 0);
    const int next = dup(0);
    (void)close(next);
    const rlimit none = {static_cast<rlim_t>(next), normal.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    for (const UniqueFd& client : clients) {
        EXPECT_TRUE(ConnectTo(client, server_.port));
    }
    const double before = LoopCpuSeconds(&loop_);
    usleep(1000000);
    EXPECT_LT(LoopCpuSeconds(&loop_) - before, 0.1);
    EXPECT_EQ(server_.accepted.Count(), 0U);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &normal), 0);
    for (const UniqueFd& client : clients) {
        Send(client, "alive");
        EXPECT_EQ(Receive(client, 5), "alive");
    }
}

}  // namespace
