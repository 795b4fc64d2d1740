// The mini services as a device uses them that falls into recovery again and again.
#include <gtest/gtest.h>
#include <unistd.h>

#include "mini/kv_hvloop_pool.h"
#include "tests/support/capture.h"
#include "tests/support/discovery_client.h"
#include "tests/support/footprint.h"
#include "tests/support/surroundings.h"
#include "tests/support/tcp_client.h"

namespace {

// One life of the services, with a search and a connection that is open when they stop. Whether
// both were served.
bool Live() {
    (void)KV_MINI_ServiceStart();
    const kv_test::DiscoveryClient searcher;
    searcher.Send(kv_test::Search(13));
    const bool found = searcher.Receive().size() == 544;
    const kv_test::TcpClient client(80);
    (void)KV_MINI_ServiceStop();
    return found && client.Connected();
}

}  // namespace

TEST(MiniSoak, AThousandStartsAndStopsLeaveNothing) {
    kv_test::RequireSandbox();
    int served = 0;
    long descriptors = 0;
    long threads = 0;
    long kib = 0;
    {
        const kv_test::Capture trace(STDERR_FILENO);
        // The first lives fill the allocator's and the thread library's stores.
        for (int life = -50; life < 1000; ++life) {
            if (life == 0) {
                descriptors = kv_test::Descriptors();
                threads = kv_test::Threads();
                kib = kv_test::PrivateKib();
                served = 0;
            }
            served += Live() ? 1 : 0;
        }
        descriptors -= kv_test::Descriptors();
        threads -= kv_test::Threads();
        kib = kv_test::PrivateKib() - kib;
    }
    EXPECT_EQ(served, 1000);
    EXPECT_EQ(descriptors, 0);
    EXPECT_EQ(threads, 0);
    // Less than 128 bytes a life.
    EXPECT_LT(kib, 128);
}
