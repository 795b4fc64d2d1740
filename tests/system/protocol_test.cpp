// The recovery server on a board: without descriptors, and idle. Unit tests check the bytes of its
// replies.
#include <sys/resource.h>

#include <regex>
#include <sstream>

#include "tests/support/board.h"
#include "tests/support/wire.h"

using namespace kv_test;

namespace {

// CPU seconds used by a process.
double CpuSeconds(pid_t process) {
    const std::string stat = ReadFile("/proc/" + std::to_string(process) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

TEST(Protocol, WithoutDescriptorsItWaitsAndRecovers) {
    Board board;
    board.StartRecovery();
    const pid_t program = board.ProgramPid();
    constexpr size_t kLimit = 48;
    const struct rlimit limit = {kLimit, kLimit};
    ASSERT_EQ(prlimit(program, RLIMIT_NOFILE, &limit, nullptr), 0);
    // The kernel completes connections that the program cannot accept yet.
    std::vector<TcpClient> clients;
    for (size_t i = 0; i < kLimit + 10; ++i) {
        clients.push_back(board.Client());
        ASSERT_TRUE(clients.back().Connected()) << i;
    }
    if (kLoopsRest) {
        ASSERT_TRUE(board.WaitTrace("accept failed: Too many open files"));
    }
    const double before = CpuSeconds(program);
    EXPECT_EQ(clients.front().Ask(Frame(6)), ReplyHeader(6, 0, 0));
    ASSERT_TRUE(clients.back().Send(Frame(6)));
    EXPECT_EQ(clients.back().Receive(32, 3000), "");
    EXPECT_TRUE(board.WaitFeeds(1)) << "feeding needs no descriptor";
    if (kLoopsRest) {
        EXPECT_LT(CpuSeconds(program) - before, 0.2);
        EXPECT_EQ(CountOf(board.Trace(), "accept failed"), 1U);
    }
    // With free descriptors again, all waiting clients are served, including the last.
    clients.erase(clients.begin(), clients.end() - 5);
    EXPECT_EQ(clients.back().Receive(32), ReplyHeader(6, 0, 0));
    board.ExpectFed();
}

TEST(Protocol, IdleRecoveryRestsAndIsSmall) {
    Board board;
    board.StartRecovery();
    // The services have been used, and the Wi-Fi thread is waiting for its interface.
    EXPECT_EQ(board.Client().Ask(Frame(0x2003), 496),
              ReplyHeader(0x2003, 0, 0, 464) + DeviceRecord(""));
    ASSERT_TRUE(board.WaitTrace("__KV_KorvanProtocolClose"));
    ASSERT_TRUE(board.WaitTrace("KV_WIFI_WPA_Status"));
    const pid_t program = board.ProgramPid();
    double cpu = 0;
    // This measures a span of time, so it sleeps. Each second a feed waits for the driver's answer
    // and the station checks its interface; every three seconds the main thread checks the
    // application.
    board.ExpectRest(
        {{"__KV_FH_WDT_Pro", {2, 4}}, {"__KV_WIFI_STA_H", {2, 2}}, {"upgradeMain", {1.0 / 3, 2}}},
        [&] {
            const double before = CpuSeconds(program);
            std::this_thread::sleep_for(std::chrono::seconds(10));
            cpu = CpuSeconds(program) - before;
        });
    EXPECT_LT(cpu, 0.1);
    std::smatch kib;
    const std::string status = ReadFile("/proc/" + std::to_string(program) + "/status");
    ASSERT_TRUE(std::regex_search(status, kib, std::regex("RssAnon:\\s*(\\d+)")));
    printf("RssAnon %s KiB\n", kib[1].str().c_str());
    EXPECT_GT(std::stoi(kib[1]), 0);
    EXPECT_LT(std::stoi(kib[1]), 512);
}
