// Datagrams: whole or cut, answered to whoever sent the last one.
#include "hv_test_support.h"

namespace {

struct Got {
    std::string bytes;
    bool ended = false;
    Tally arrived;
};
Got* g_got;

class HvUdp : public testing::Test {
  protected:
    void SetUp() override {
        g_got = &got_;
        loop_.Do([&] {
            io_ = hloop_create_udp_server(loop_.Get(), "127.0.0.1", 0);
            hio_setcb_read(io_, [](hio_t* io, void* buf, int readbytes) {
                const auto* text = static_cast<const char*>(buf);
                const auto size = static_cast<size_t>(readbytes);
                g_got->bytes.assign(text, size);
                g_got->ended = size < 8192 ? text[size] == '\0' : true;
#ifndef KV_HV_SYSTEM
                g_got->ended = text[size] == '\0';
#endif
                if (size > 0 && size < 100) {
                    EXPECT_EQ(hio_write(io, buf, size), readbytes);
                }
                g_got->arrived.Add();
            });
            hio_read(io_);
        });
    }
    void TearDown() override {
        loop_.Stop();
    }

    Got got_;
    LoopThread loop_;
    hio_t* io_ = nullptr;
};

TEST_F(HvUdp, AnswersTheSenderOfTheDatagramLastRead) {
    const UniqueFd one = Client(PortOf(io_), SOCK_DGRAM);
    const UniqueFd two = Client(PortOf(io_), SOCK_DGRAM);
    for (int i = 0; i < 3; ++i) {
        Send(one, "one");
        Send(two, "second");
        char buffer[16];
        EXPECT_EQ(recv(one.Get(), buffer, sizeof(buffer), 0), 3);
        EXPECT_EQ(recv(two.Get(), buffer, sizeof(buffer), 0), 6);
    }
}

TEST_F(HvUdp, CutsALongDatagramAndShowsNothingOfItInTheNext) {
    const UniqueFd client = Client(PortOf(io_), SOCK_DGRAM);
    const std::string sent[] = {std::string(65507, 'L'), std::string(8192, 'M'), "cameraMain", ""};
    size_t count = 0;
    for (const std::string& datagram : sent) {
        Send(client, datagram);
        ASSERT_TRUE(got_.arrived.WaitFor(++count));
        loop_.Do([&] {
            EXPECT_EQ(got_.bytes, datagram.substr(0, 8192));
            EXPECT_TRUE(got_.ended) << datagram.size();
        });
    }
}

TEST_F(HvUdp, WritingBeforeAnythingArrivedFails) {
    BUNDLED_ONLY("it leaves that to the system call");
    loop_.Do([&] {
        EXPECT_LT(hio_write(io_, "x", 1), 0);
        EXPECT_EQ(errno, EDESTADDRREQ);
    });
    const UniqueFd client = Client(PortOf(io_), SOCK_DGRAM);
    Send(client, "still here");
    EXPECT_TRUE(got_.arrived.WaitFor(1));
}

}  // namespace
