// Runs in the sandbox: it needs its own network and permission for raw sockets.
#include "hv/icmp.h"

#include <linux/capability.h>
#include <sys/syscall.h>

#include "hv_test_support.h"

namespace {

// Another host, 10.9.8.2, on a link inside this sandbox; 10.9.8.7 does not exist. Loopback would
// not do: a raw socket there also sees the request, which libhv takes for a wrong answer.
class HvPing : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(system("unshare --net sleep 600 & host=$!\n"
                         "ours=$(readlink /proc/self/ns/net)\n"
                         "for i in $(seq 100); do\n"
                         "    [ \"$(readlink /proc/$host/ns/net)\" != \"$ours\" ] && break\n"
                         "    sleep 0.05\n"
                         "done\n"
                         "ip link add near type veth peer name far netns $host &&\n"
                         "nsenter --net=/proc/$host/ns/net sh -ec '\n"
                         "    ip addr add 10.9.8.2/24 dev far && ip link set far up' &&\n"
                         "ip addr add 10.9.8.1/24 dev near && ip link set near up || exit 1\n"
                         // A link drops packets until the kernel has seen its carrier.
                         "for i in $(seq 200); do\n"
                         "    ip link show near | grep -q \"state UP\" &&\n"
                         "    nsenter --net=/proc/$host/ns/net ip link show far |\n"
                         "        grep -q \"state UP\" && exit 0\n"
                         "    sleep 0.05\n"
                         "done\n"
                         "exit 1"),
                  0);
    }
};

TEST_F(HvPing, CountsAnswersOneSecondApart) {
    // An answer that is later than a second does not count.
    EXPECT_TRUE(WaitUntil([] { return ping("10.9.8.2", 1) == 1; }));
    Clock::time_point begin;
    EXPECT_TRUE(WaitUntil([&] {
        begin = Clock::now();
        return ping("10.9.8.2", 3) == 3;
    }));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(1900));
}

TEST_F(HvPing, IgnoresAnswersOfOtherHosts) {
    BUNDLED_ONLY("it accepts the answer to another thread's request");
    int other = 0;
    std::thread answered([&] { other = ping("10.9.8.2", 3); });
    const auto begin = Clock::now();
    EXPECT_LE(ping("10.9.8.7", 3), 0);
    EXPECT_GT(SecondsSince(begin), 1.2) << "a missing answer takes a second";
    answered.join();
    EXPECT_GT(other, 0);
}

TEST_F(HvPing, RefusesNamesAndNonsenseAtOnce) {
    const auto begin = Clock::now();
    for (const char* host : {"", "localhost", "1.2.3", "no.such.host.invalid", "172.20.18.1 "}) {
        EXPECT_LE(ping(host, 1), 0) << host;
    }
    EXPECT_LT(SecondsSince(begin), 4) << "a resolver gives up after five seconds";
}

TEST_F(HvPing, FailsWithoutPermissionForRawSockets) {
    int result = 0;
    std::thread([&] {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
        result = ping("127.0.0.1", 1);
    }).join();
    EXPECT_LT(result, 0);
}

}  // namespace
