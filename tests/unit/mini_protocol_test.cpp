// The protocol server over real sockets: exchanges, session, failures, and many clients at once.
#include "mini/kv_mini_protocol.h"

#include <gtest/gtest.h>
#include <md5.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/kv_platform.h"
#include "hv/hloop.h"
#include "mini/kv_hvloop_pool.h"
#include "mini/kv_mini_frame.h"
#include "tests/support/capture.h"
#include "tests/support/tcp_client.h"

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

using kv_test::Await;
using kv_test::Capture;
using kv_test::TcpClient;

constexpr int kPort = kv::kProtocolPort;

std::string Frame(uint16_t command, uint32_t dataLen = 0, uint32_t count = 0, uint16_t kind = 0) {
    uint8_t frame[kv::kFrameHeaderSize];
    kv::FillFrameHeader(frame, command, 0x7777, 0xCAFE, dataLen, count);
    kv::PutLe16(frame, kind);
    kv::PutLe16(frame + 2, 0x9999);
    return std::string(reinterpret_cast<const char*>(frame), sizeof(frame));
}

uint32_t SessionIn(const std::string& reply) {
    return reply.size() < kv::kFrameHeaderSize
               ? 0
               : kv::GetLe32(reinterpret_cast<const uint8_t*>(reply.data()) + 8);
}

std::string Reply(uint16_t command, uint16_t status, uint32_t session, uint32_t dataLen = 0) {
    uint8_t frame[kv::kFrameHeaderSize];
    kv::FillFrameHeader(frame, command, status, session, dataLen, dataLen == 0 ? 0 : 1);
    return std::string(reinterpret_cast<const char*>(frame), sizeof(frame));
}

std::string Ask(TcpClient* client, const std::string& request, size_t replySize = 32) {
    return client->Send(request) ? client->Receive(replySize) : "";
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class MiniProtocol : public testing::Test {
  protected:
    MiniProtocol() : log_(2), output_(1) { EXPECT_EQ(KV_MINI_ProtocolInit(kPort), 0); }
    ~MiniProtocol() override {
        EXPECT_EQ(KV_MINI_ProtocolDeInit(), 0);
        EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
    }
    void Restart() {
        EXPECT_EQ(KV_MINI_ProtocolDeInit(), 0);
        EXPECT_EQ(KV_HV_LoopPoolDeInit(), 0);
        EXPECT_EQ(KV_MINI_ProtocolInit(kPort), 0);
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
    TcpClient client(kPort);
    uint32_t session = 0;
    for (const auto& row : rows) {
        // What stands behind the header is not looked at.
        const std::string reply = Ask(&client, Frame(row.command) + "ignored", 32 + row.dataLen);
        EXPECT_EQ(reply.substr(0, 32), Reply(row.command, row.status, session, row.dataLen))
            << row.trace;
        EXPECT_EQ(reply.size(), 32 + row.dataLen);
        EXPECT_TRUE(Contains(log_.Text(), row.trace)) << log_.Text();
        if (row.command == kv::kCmdLogin) {
            session = SessionIn(Ask(&client, Frame(kv::kCmdHeartbeat)));
            EXPECT_NE(session, 0U);
        }
    }
    EXPECT_FALSE(client.Readable(0)) << "more bytes than the replies hold";
}

TEST_F(MiniProtocol, FirstLoginMakesTheSessionOfAllConnections) {
    TcpClient one(kPort);
    TcpClient other(kPort);
    EXPECT_EQ(Ask(&one, Frame(kv::kCmdLogin)), Reply(kv::kCmdLogin, 0, 0));
    const uint32_t session = SessionIn(Ask(&one, Frame(kv::kCmdHeartbeat)));
    EXPECT_TRUE(
        Contains(log_.Text(), "New SessionId, SessionID = " + std::to_string(session) + "\n"));
    EXPECT_EQ(Ask(&other, Frame(kv::kCmdLogin)), Reply(kv::kCmdLogin, 0, session));
    EXPECT_EQ(Ask(&other, Frame(kv::kCmdLogout)), Reply(kv::kCmdLogout, 0, session));
    EXPECT_EQ(SessionIn(Ask(&one, Frame(kv::kCmdHeartbeat))), session);
    EXPECT_EQ(Count(log_.Text(), "New SessionId"), 1U);

    Restart();
    TcpClient next(kPort);
    EXPECT_EQ(Ask(&next, Frame(kv::kCmdLogin)), Reply(kv::kCmdLogin, 0, 0));
    EXPECT_EQ(SessionIn(Ask(&next, Frame(kv::kCmdHeartbeat))), session + 1);
}

// The shape of the very first ID of a process; the other tests of this program may have used it up.
TEST(MiniProtocolDeathTest, FirstSessionIdIsOneRandomByteAboveOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            (void)KV_MINI_ProtocolInit(kPort);
            TcpClient client(kPort);
            (void)Ask(&client, Frame(kv::kCmdLogin));
            const uint32_t session = SessionIn(Ask(&client, Frame(kv::kCmdHeartbeat)));
            (void)fprintf(stderr, "first session %08X\n", session);
            _exit((session & 0xFFFFFFU) == 1 && session >> 24U != 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "first session ..000001");
}

TEST_F(MiniProtocol, SerialNumberIsDrawnOnceAndIsTheDeviceId) {
    TcpClient client(kPort);
    const std::string none(8, '\0');
    EXPECT_EQ(Ask(&client, Frame(kv::kCmdGetDevInfo), 496).substr(100, 8), none);
    const std::string serial = Ask(&client, Frame(kv::kCmdGetSerialNum), 40).substr(32);
    EXPECT_EQ(serial.find('\0'), std::string::npos);
    EXPECT_EQ(Ask(&client, Frame(kv::kCmdGetSerialNum), 40).substr(32), serial);

    std::string printed;
    for (const char byte : serial) {
        char text[8];
        (void)snprintf(text, sizeof(text), "0x%02X ", static_cast<uint8_t>(byte));
        printed += text;
    }
    EXPECT_EQ(output_.Text(), printed + "\n");
    EXPECT_EQ(Count(log_.Text(), "\033[mSerialNum:\n"), 1U);

    std::string record(464, '\0');
    record[1] = 27;
    record.replace(4, 5, "PRT7K");
    record.replace(68, 8, serial);
    record.replace(168, 5, "ZH8C4");
    record.replace(368, 31, "PRT7K_38QX_QJT_V1.0.0.241127_R1");
    record.replace(432, 5, "PRT7K");
    record.replace(448, 4, "38QX");
    EXPECT_EQ(Ask(&client, Frame(kv::kCmdGetDevInfo), 496).substr(32), record);
    EXPECT_TRUE(Contains(log_.Text(), "ucDEVName = PRT7K, ucDEVID = " + serial +
                                          ", ucFirmwareVersion = PRT7K_38QX_QJT_V1.0.0.241127_R1"));

    Restart();
    TcpClient next(kPort);
    EXPECT_EQ(Ask(&next, Frame(kv::kCmdGetDevInfo), 496).substr(100, 8), none);
}

TEST_F(MiniProtocol, WhatIsNoRequestGetsNoReplyAndKeepsTheConnection) {
    const std::string rows[] = {
        Frame(kv::kCmdHeartbeat, 0, 0, 1),
        Frame(kv::kCmdHeartbeat, 0, 0, 0x0100),
        Frame(kv::kCmdHeartbeat).substr(0, 31),
        std::string(1, '\0'),
    };
    TcpClient client(kPort);
    size_t refused = 0;
    for (const std::string& row : rows) {
        ASSERT_TRUE(client.Send(row));
        ++refused;
        ASSERT_TRUE(
            Await([&] { return Count(log_.Text(), "Protocol Handle failed!\n") == refused; }));
        EXPECT_EQ(Count(log_.Text(), "__KV_KorvanProtocolHandle:"), 2 * refused - 1);
        EXPECT_EQ(Count(log_.Text(), "\033[mUNSUPPORT!!\n"), refused);
        EXPECT_EQ(Count(log_.Text(), "\033[mKorvan Protocol Handle failed!\n"), refused);
        EXPECT_EQ(Ask(&client, Frame(kv::kCmdHeartbeat)), Reply(kv::kCmdHeartbeat, 0, 0));
    }
}

TEST_F(MiniProtocol, TwoRequestsInOneChunkAreOne) {
    TcpClient client(kPort);
    EXPECT_EQ(Ask(&client, Frame(kv::kCmdLogout) + Frame(kv::kCmdHeartbeat)),
              Reply(kv::kCmdLogout, 0, 0));
    EXPECT_EQ(Ask(&client, Frame(0x0002)), Reply(0x0002, 2, 0));
    EXPECT_FALSE(client.Readable(0));
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
        TcpClient client(kPort);
        EXPECT_EQ(Ask(&client, Frame(kv::kCmdHeartbeat)).size(), 32U);
        g_writeResult = row.result;
        g_writeError = row.error;
        ASSERT_TRUE(client.Send(Frame(kv::kCmdHeartbeat)));
        EXPECT_TRUE(Await([&] { return Contains(log_.Text(), row.trace); })) << row.trace;
        g_writeError = 0;
        if (row.closes) {
            EXPECT_TRUE(client.EndsNow());
        } else {
            EXPECT_EQ(Ask(&client, Frame(kv::kCmdHeartbeat)).size(), 32U);
        }
    }
}

TEST_F(MiniProtocol, TracesTheConnectionsComeAndGo) {
    { TcpClient(kPort).Connected(); }
    EXPECT_TRUE(Await([&] { return Contains(log_.Text(), " connfd="); }));
    const std::string log = log_.Text();
    EXPECT_TRUE(Contains(log, "INFO kv_mini_protocol:__KV_Protocol_OnAccept:")) << log;
    EXPECT_TRUE(Contains(log, "\033[m__KV_Protocol_OnAccept\n")) << log;
    EXPECT_TRUE(Contains(log, "\033[mconnect-> io:0x")) << log;
    EXPECT_TRUE(Contains(log, "  [127.0.0.1:80] <= [127.0.0.1:")) << log;
    EXPECT_TRUE(Contains(log, "DEBUG kv_mini_protocol:__KV_KorvanProtocolClose:")) << log;
    EXPECT_TRUE(Contains(log, "]\n\n")) << log;
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

TEST_F(MiniProtocol, ServesTwoHundredConnectionsAtOnce) {
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(std::make_unique<TcpClient>(kPort));
        ASSERT_TRUE(clients.back()->Connected()) << i;
    }
    for (const auto& client : clients) {
        EXPECT_EQ(Ask(client.get(), Frame(kv::kCmdHeartbeat)), Reply(kv::kCmdHeartbeat, 0, 0));
    }
}

TEST_F(MiniProtocol, StopsAndStartsUnderLoad) {
    std::atomic<bool> done{false};
    std::atomic<int> served{0};
    std::thread threads[6];
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            while (!done) {
                TcpClient client(kPort);
                // Replies may mix while several workers serve, and end when the server does.
                while (!done && client.Connected() && client.Send(Frame(kv::kCmdGetDevInfo)) &&
                       client.Readable(50) && !client.Receive(496).empty()) {
                    ++served;
                }
            }
        });
    }
    for (int round = 0; round < 10; ++round) {
        const int target = served + 20;
        EXPECT_TRUE(Await([&] { return served > target; }));
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
    std::string package(10240, 'x');
    package.replace(0, 24,
                    std::string("PRT7K\0\0\0"
                                "38QX\0\0\0\0"
                                "\1\0\0\0"
                                "\1\0\0\0",
                                24));
    char digest[MD5_DIGEST_STRING_LENGTH];
    (void)MD5Data(reinterpret_cast<const uint8_t*>(package.data()), package.size(), digest);
    const uint32_t announced = static_cast<uint32_t>(package.size()) + 37;

    TcpClient client(kPort);
    EXPECT_EQ(Ask(&client, Frame(kv::kCmdLogin)).size(), 32U);
    const uint32_t session = SessionIn(Ask(&client, Frame(kv::kCmdHeartbeat)));
    EXPECT_EQ(Ask(&client, Frame(kv::kCmdUpgrade, announced, 1) + package + "MD5:" + digest + "\n"),
              Reply(kv::kCmdUpgrade, 0, session));
    std::ifstream stored(kv::kPackagePath, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stored), {}), package);
    std::ifstream commands("/tmp/commands.log");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(commands), {}),
              "killall -SIGUSR2 upgradeMain\n");
    EXPECT_FALSE(Contains(log_.Text(), "Handle failed!"));
    EXPECT_FALSE(client.Readable(0));
}

TEST(MiniService, StartsAndStopsEverything) {
    std::string log;
    {
        const Capture capture(2);
        EXPECT_EQ(KV_MINI_ServiceIsStarted(), 0);
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(KV_MINI_ServiceStart(), 0);
            EXPECT_EQ(KV_MINI_ServiceIsStarted(), 1);
            {
                TcpClient client(kPort);
                EXPECT_EQ(Ask(&client, Frame(kv::kCmdHeartbeat)).size(), 32U);
            }
            EXPECT_EQ(KV_MINI_ServiceStop(), 0);
            EXPECT_EQ(KV_MINI_ServiceIsStarted(), 0);
            EXPECT_FALSE(TcpClient(kPort).Connected());
        }
        log = capture.Text();
    }
    EXPECT_EQ(Count(log, "MINI ProtocolInit Init Success!\n"), 2U) << log;
    EXPECT_EQ(Count(log, "MINI ProtocolInit DeInit Success!\n"), 2U) << log;
    EXPECT_EQ(Count(log, "LoopPoolInit DeInit Success!\n"), 2U) << log;
}

}  // namespace
