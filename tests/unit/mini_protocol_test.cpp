// The protocol server over real sockets: exchanges, session, failures, and many clients at once.
#include "mini/kv_mini_protocol.h"

#include <atomic>
#include <memory>

#include "common/kv_platform.h"
#include "mini/kv_hvloop_pool.h"
#include "mini/kv_mini_service.h"
#include "tests/support/capture.h"
#include "tests/support/discovery_client.h"
#include "tests/support/footprint.h"
#include "tests/support/surroundings.h"
#include "tests/support/wire.h"

using namespace kv_test;

namespace {

std::atomic<int> g_writeResult{0};
std::atomic<int> g_writeError{0};

}  // namespace

extern "C" {
int __real_hio_write(hio_t* io, const void* buf, size_t len);
int __wrap_hio_write(hio_t* io, const void* buf, size_t len) {
    if (g_writeError == 0) {
        return __real_hio_write(io, buf, len);
    }
    errno = g_writeError;
    return g_writeResult;
}
}

namespace {

constexpr int kPort = kv::kProtocolPort;
constexpr uint16_t kLogin = 0;
constexpr uint16_t kLogout = 1;
constexpr uint16_t kHeartbeat = 6;
constexpr uint16_t kSerialNumber = 0x0101;
constexpr uint16_t kDeviceInfo = 0x2003;

class MiniProtocol : public testing::Test {
  protected:
    MiniProtocol() : log_(2), output_(1) {
        RequireSandbox();
        // Not the host's sync, which may take long.
        (void)Shell("ln -sf /bin/true /tmp/stubs/sync");
        EXPECT_EQ(KV_MINI_ProtocolInit(kPort), 0);
    }
    ~MiniProtocol() override {
        EXPECT_EQ(KV_MINI_ProtocolDeInit(), 0);
        EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
    }
    void Restart() {
        EXPECT_EQ(KV_MINI_ProtocolDeInit(), 0);
        EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
        EXPECT_EQ(KV_MINI_ProtocolInit(kPort), 0);
    }
    static uint32_t Session(const TcpClient& client) {
        return SessionOf(client.Ask(Frame(kHeartbeat)));
    }

    Capture log_;
    Capture output_;
};

TEST_F(MiniProtocol, AnswersEveryCommandOfTheTable) {
    const struct {
        uint16_t command;
        uint16_t status;
        uint32_t dataLen;
        const char* trace;
    } rows[] = {
        {0x0006, 0, 0, "ID:51966 CMD:CMD_ACT_HEADRTBEAT\n"},
        {0x0001, 0, 0, "ID:51966 CMD:CMD_ACT_LOGOUT\n"},
        {0x0000, 0, 0, "ID:51966 CMD:CMD_ACT_LOGIN\n"},
        {0x0002, 2, 0, "@@@@@@@@@@@@@@@@@: Not supported this command :  0002\n"},
        {0xBEEF, 2, 0, "@@@@@@@@@@@@@@@@@: Not supported this command :  BEEF\n"},
        {0x0101, 0, 8, "ID:51966 CMD:CMD_GET_SERIALNUM\n"},
        {0x2003, 0, 464, "ID:51966 CMD:CMD_SYS_GETDEVINFO\n"},
        {0x0006, 0, 0, "ID:51966 CMD:CMD_ACT_HEADRTBEAT\n"},
    };
    const TcpClient client(kPort);
    uint32_t session = 0;
    for (const auto& row : rows) {
        // The session and the bytes after the header do not matter. A second request in the chunk
        // is ignored.
        const std::string reply =
            client.Ask(Frame(row.command, 0, 0, 0, 0xCAFE) + Frame(kHeartbeat), 32 + row.dataLen);
        EXPECT_EQ(reply.substr(0, 32), ReplyHeader(row.command, row.status, session, row.dataLen))
            << row.trace;
        EXPECT_EQ(reply.size(), 32 + row.dataLen);
        EXPECT_TRUE(Contains(log_.Text(), row.trace)) << log_.Text();
        if (row.command == kLogin) {
            session = Session(client);
            EXPECT_NE(session, 0U);
        }
    }
    EXPECT_FALSE(client.Readable(0)) << "bytes after the last reply";
}

TEST_F(MiniProtocol, FirstLoginMakesTheSessionOfAllConnections) {
    const TcpClient one(kPort);
    const TcpClient other(kPort);
    EXPECT_EQ(one.Ask(Frame(kLogin)), ReplyHeader(kLogin, 0, 0));
    const uint32_t session = Session(one);
    EXPECT_TRUE(
        Contains(log_.Text(), "New SessionId, SessionID = " + std::to_string(session) + "\n"));
    EXPECT_EQ(other.Ask(Frame(kLogin)), ReplyHeader(kLogin, 0, session));
    EXPECT_EQ(other.Ask(Frame(kLogout)), ReplyHeader(kLogout, 0, session));
    EXPECT_EQ(Session(one), session);
    EXPECT_EQ(CountOf(log_.Text(), "New SessionId"), 1U);

    Restart();
    const TcpClient next(kPort);
    EXPECT_EQ(next.Ask(Frame(kLogin)), ReplyHeader(kLogin, 0, 0));
    EXPECT_EQ(Session(next), session + 1);
}

// The shape of a process's first ID. Other tests of this program may have used it up, so this one
// runs in its own process.
TEST(MiniProtocolDeathTest, FirstSessionIdIsOneRandomByteAboveOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            (void)KV_MINI_ProtocolInit(kPort);
            const TcpClient client(kPort);
            (void)client.Ask(Frame(kLogin));
            const uint32_t session = SessionOf(client.Ask(Frame(kHeartbeat)));
            _exit((session & 0xFFFFFFU) == 1 && session >> 24U != 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(MiniProtocol, SerialNumberIsDrawnOnceAndIsTheDeviceId) {
    const TcpClient client(kPort);
    EXPECT_EQ(client.Ask(Frame(kDeviceInfo), 496).substr(32), DeviceRecord(""));
    const std::string serial = client.Ask(Frame(kSerialNumber), 40).substr(32);
    EXPECT_EQ(serial.find('\0'), std::string::npos);
    EXPECT_EQ(client.Ask(Frame(kSerialNumber), 40).substr(32), serial);

    std::string printed;
    for (const char byte : serial) {
        char text[8];
        (void)snprintf(text, sizeof(text), "0x%02X ", static_cast<uint8_t>(byte));
        printed += text;
    }
    EXPECT_EQ(output_.Text(), printed + "\n");
    EXPECT_EQ(CountOf(log_.Text(), "\033[mSerialNum:\n"), 1U);
    EXPECT_EQ(client.Ask(Frame(kDeviceInfo), 496).substr(32), DeviceRecord(serial));
    EXPECT_TRUE(Contains(log_.Text(), "ucDEVName = PRT7K, ucDEVID = " + serial +
                                          ", ucFirmwareVersion = PRT7K_38QX_QJT_V1.0.0.241127_R1"));
    Restart();
    EXPECT_EQ(TcpClient(kPort).Ask(Frame(kDeviceInfo), 496).substr(32), DeviceRecord(""));
}

TEST_F(MiniProtocol, InvalidRequestsGetNoReplyAndKeepTheConnection) {
    const TcpClient client(kPort);
    size_t refused = 0;
    for (const std::string& row : {Frame(kHeartbeat, 0, 0, 1), Frame(kHeartbeat, 0, 0, 0x0100),
                                   Frame(kHeartbeat).substr(0, 31), std::string(1, '\0')}) {
        ASSERT_TRUE(client.Send(row));
        ++refused;
        ASSERT_TRUE(WaitUntil(
            [&] { return CountOf(log_.Text(), "Protocol Handle failed!\n") == refused; }));
        EXPECT_EQ(CountOf(log_.Text(), "__KV_KorvanProtocolHandle:"), 2 * refused - 1);
        EXPECT_EQ(CountOf(log_.Text(), "\033[mUNSUPPORT!!\n"), refused);
        EXPECT_EQ(CountOf(log_.Text(), "\033[mKorvan Protocol Handle failed!\n"), refused);
        EXPECT_EQ(client.Ask(Frame(kHeartbeat)), ReplyHeader(kHeartbeat, 0, 0));
    }
}

TEST_F(MiniProtocol, OnlyOneWriteErrorClosesTheConnection) {
    const struct {
        int result;
        int error;
        bool closes;
        const char* trace;
    } rows[] = {
        {-1, EPIPE, false, "io write failed:-1 errno:32!\n"},
        {0, EAGAIN, false, "io write failed:0 errno:11!\n"},
        {0, ENOTTY, true, "io write failed:0 errno:25!\n"},
        {-1, ENOTTY, true, "io write failed:-1 errno:25!\n"},
    };
    for (const auto& row : rows) {
        const TcpClient client(kPort);
        EXPECT_EQ(client.Ask(Frame(kHeartbeat)).size(), 32U);
        g_writeResult = row.result;
        g_writeError = row.error;
        ASSERT_TRUE(client.Send(Frame(kHeartbeat)));
        EXPECT_TRUE(WaitUntil([&] { return Contains(log_.Text(), row.trace); })) << row.trace;
        g_writeError = 0;
        EXPECT_EQ(row.closes ? client.Ends() : client.Ask(Frame(kHeartbeat)).size() == 32U, true);
    }
}

TEST_F(MiniProtocol, TracesOpenedAndClosedConnections) {
    EXPECT_TRUE(TcpClient(kPort).Connected());
    EXPECT_TRUE(WaitUntil([&] { return Contains(log_.Text(), "__KV_KorvanProtocolClose:"); }));
    EXPECT_TRUE(
        InOrder(log_.Text(),
                {"INFO kv_mini_protocol:__KV_Protocol_OnAccept:", "\033[m__KV_Protocol_OnAccept\n",
                 "\033[mconnect-> io:0x", "  [127.0.0.1:80] <= [127.0.0.1:", "]\n\n",
                 "DEBUG kv_mini_protocol:__KV_KorvanProtocolClose:", " connfd="}));
}

TEST_F(MiniProtocol, RefusesToStartOrStopTwice) {
    EXPECT_EQ(KV_MINI_ProtocolInit(kPort), -1);
    EXPECT_TRUE(Contains(log_.Text(), "\033[mKorvan Protocol is Inited!\n"));
    EXPECT_EQ(KV_MINI_ProtocolDeInit(), 0);
    EXPECT_EQ(KV_MINI_ProtocolDeInit(), -1);
    EXPECT_TRUE(Contains(log_.Text(), "\033[mKorvan Protocol is DeInit!\n"));

    hio_t* const squatter = hloop_create_tcp_server(KV_HV_GetAcceptLoop(), "", kPort, nullptr);
    EXPECT_EQ(KV_MINI_ProtocolInit(kPort), -1);
    EXPECT_TRUE(Contains(log_.Text(), "\033[mcreate tcp server failed!\n"));
    (void)hio_close(squatter);
    KV_HV_LoopPoolSettle();
    EXPECT_EQ(KV_MINI_ProtocolInit(kPort), 0);
}

// While it exists, the kernel buffers next to nothing for a connection.
class SmallBuffers {
  public:
    SmallBuffers() { Swap(); }
    ~SmallBuffers() { Swap(); }
    SmallBuffers(const SmallBuffers&) = delete;
    SmallBuffers& operator=(const SmallBuffers&) = delete;

  private:
    void Swap() {
        for (auto& [path, sizes] : sizes_) {
            const std::string before = ReadFile(path);
            WriteFile(path, sizes);
            sizes = before;
        }
    }
    std::pair<const char*, std::string> sizes_[2] = {
        {"/proc/sys/net/ipv4/tcp_wmem", "4096 4096 4096"},
        {"/proc/sys/net/ipv4/tcp_rmem", "4096 4096 4096"}};
};

TEST_F(MiniProtocol, AClientThatAsksAndNeverReadsCostsOneReply) {
    const SmallBuffers small;
    const std::string request = Frame(kDeviceInfo);
    std::vector<TcpClient> clients;
    for (int i = 0; i < 100; ++i) {
        clients.emplace_back(kPort);
        ASSERT_TRUE(clients.back().Connected()) << i;
    }
    const long before = PrivateKib();
    for (int i = 0; i < 500; ++i) {
        for (const TcpClient& client : clients) {
            EXPECT_TRUE(send(client.Fd(), request.data(), request.size(),
                             MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 ||
                        errno == EAGAIN);
        }
    }
    ASSERT_TRUE(WaitUntil([&] { return CountOf(log_.Text(), "io write failed:0 errno:11!") > 0; }));
    EXPECT_LT(PrivateKib() - before, 1024);
    // A client that finally reads gets what is queued, and is served again. A pause between two
    // replies looks like their end; a request that arrives then is ignored as part of a chunk.
    const TcpClient& late = clients.front();
    EXPECT_TRUE(WaitUntil([&] {
        while (late.Readable(200) && !late.Receive(1).empty()) {
        }
        return late.Send(Frame(kHeartbeat)) &&
               late.Receive(32, 5000) == ReplyHeader(kHeartbeat, 0, 0);
    }));
    clients.clear();
    KV_HV_LoopPoolSettle();
    EXPECT_LT(PrivateKib() - before, 1024);
}

TEST_F(MiniProtocol, AnIdleConnectionIsProbed) {
    const TcpClient client(kPort);
    EXPECT_EQ(client.Ask(Frame(kHeartbeat)).size(), 32U);
    EXPECT_EQ(CountOption(SOL_SOCKET, SO_KEEPALIVE, 1), 1) << "the server's end";
    EXPECT_EQ(CountOption(IPPROTO_TCP, TCP_KEEPIDLE, 60), 1);
}

TEST_F(MiniProtocol, StopsAndStartsUnderLoad) {
    std::atomic<bool> done{false};
    std::atomic<int> served{0};
    std::thread threads[6];
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            while (!done) {
                const TcpClient client(kPort);
                // Replies may mix while several workers serve. They end when the server does.
                while (!done && client.Connected() && client.Send(Frame(kDeviceInfo)) &&
                       client.Readable(50) && !client.Receive(496).empty()) {
                    ++served;
                }
            }
        });
    }
    for (int round = 0; round < 10; ++round) {
        const int target = served + 20;
        EXPECT_TRUE(WaitUntil([&] { return served > target; }));
        EXPECT_EQ(KV_MINI_ProtocolDeInit(), 0);
        if (round % 2 == 0) {
            EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
        }
        EXPECT_EQ(KV_MINI_ProtocolInit(kPort), 0);
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(MiniProtocol, AnUpgradeInOneBurstIsStoredAndAcceptedBeforeTheReply) {
    const std::string package = BuildPackage({{"none", Noise(10240, 1)}});
    const TcpClient client(kPort);
    EXPECT_EQ(client.Ask(Frame(kLogin)).size(), 32U);
    const uint32_t session = Session(client);
    EXPECT_EQ(client.Ask(UpgradeFrame(package.size()) + package + Trailer(package)),
              ReplyHeader(0x2002, 0, session));
    EXPECT_EQ(ReadFile(kv::kPackagePath), package);
    EXPECT_EQ(ReadFile("/tmp/commands.log"), "killall -SIGUSR2 upgradeMain\n");
    EXPECT_FALSE(Contains(log_.Text(), "Handle failed!"));
    EXPECT_FALSE(client.Readable(0));
}

// As a device that enters recovery again and again, with a search and a connection open at each
// stop.
TEST(MiniService, StartsAndStopsAThousandTimesAndLeavesNothing) {
    Footprint before;
    Footprint after;
    {
        const Capture log(2);
        // The first rounds fill the caches of the allocator and the thread library.
        for (int round = -50; round < 1000; ++round) {
            if (round == 0) {
                before = Footprint();
            }
            EXPECT_EQ(KV_MINI_ServiceIsStarted(), 0);
            EXPECT_EQ(KV_MINI_ServiceStart(), 0);
            EXPECT_EQ(KV_MINI_ServiceIsStarted(), 1);
            const DiscoveryClient searcher;
            EXPECT_EQ(searcher.Ask(Search(13), "127.0.0.1").size(), 544U);
            const TcpClient client(kPort);
            EXPECT_EQ(client.Ask(Frame(kHeartbeat)).size(), 32U);
            searcher.Send(Search(13));  // arrives while the services stop
            EXPECT_EQ(KV_MINI_ServiceStop(), 0);
            EXPECT_EQ(KV_MINI_ServiceIsStarted(), 0);
            EXPECT_FALSE(TcpClient(kPort).Connected());
        }
        after = Footprint();
        for (const char* text :
             {"MINI ProtocolInit Init Success!\n", "LoopPoolInit DeInit Success!\n",
              "MINI ProtocolInit DeInit Success!\n"}) {
            EXPECT_EQ(CountOf(log.Text(), text), 1050U);
        }
    }
    EXPECT_EQ(after.descriptors, before.descriptors);
    // A joined thread may be listed a moment longer.
    EXPECT_TRUE(WaitUntil([&] { return Threads() <= before.threads; }));
    // At most 130 bytes a round.
    EXPECT_LT(after.kib - before.kib, 128);
}

TEST(MiniService, AStopDoesNotWaitForQueuedRequests) {
    const Capture log(2);
    const Capture output(1);
    EXPECT_EQ(KV_MINI_ServiceStart(), 0);
    std::vector<TcpClient> clients;
    for (int i = 0; i < 60; ++i) {
        clients.emplace_back(kPort);
        ASSERT_TRUE(clients.back().Send(UpgradeFrame(1000))) << i;
    }
    ASSERT_TRUE(WaitUntil([&] { return CountOf(log.Text(), "CMD_SYS_UPGRADE") >= 3; }));
    const auto begin = Clock::now();
    EXPECT_EQ(KV_MINI_ServiceStop(), 0);
    // Each of the three workers is in a callback that takes 1.1 s.
    EXPECT_LT(SecondsSince(begin), 15) << "all 60 take 21 s";
}

}  // namespace
