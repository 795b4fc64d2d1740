// The mini services on a device that enters recovery again and again.
#include "mini/kv_mini_service.h"
#include "tests/support/capture.h"
#include "tests/support/discovery_client.h"
#include "tests/support/footprint.h"
#include "tests/support/surroundings.h"
#include "tests/support/tcp_client.h"

using namespace kv_test;

namespace {

// Starts and stops the services once, with a search and a connection open at the stop. Returns
// whether both were served.
bool Live() {
    (void)KV_MINI_ServiceStart();
    const DiscoveryClient searcher;
    searcher.Send(Search(13));
    const bool found = searcher.Receive().size() == 544;
    const TcpClient client(80);
    // Arrives while the services stop.
    searcher.Send(Search(13));
    (void)KV_MINI_ServiceStop();
    return found && client.Connected();
}

}  // namespace

TEST(MiniSoak, AThousandStartsAndStopsLeaveNothing) {
    RequireSandbox();
    int served = 0;
    long descriptors = 0;
    long threads = 0;
    long kib = 0;
    {
        const Capture trace(STDERR_FILENO);
        // The first rounds fill the caches of the allocator and the thread library.
        for (int life = -50; life < 1000; ++life) {
            if (life == 0) {
                descriptors = Descriptors();
                threads = Threads();
                kib = PrivateKib();
                served = 0;
            }
            served += Live() ? 1 : 0;
        }
        descriptors -= Descriptors();
        kib = PrivateKib() - kib;
    }
    EXPECT_EQ(served, 1000);
    EXPECT_EQ(descriptors, 0);
    // A joined thread may be listed a moment longer.
    EXPECT_TRUE(WaitUntil([&] { return Threads() <= threads; }));
    // Less than 128 bytes a round.
    EXPECT_LT(kib, 128);
}
