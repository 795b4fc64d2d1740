// Discovery, asked by the board's neighbours. The unit test has the other networks and datagrams.
#include "tests/support/board.h"
#include "tests/support/discovery_client.h"

using namespace kv_test;

namespace {

CommandResult Kvtool(Board* board, const std::string& arguments) {
    return board->OnBench(BinDir() + "/kvtool " + arguments);
}

}  // namespace

TEST(Discovery, KvtoolFindsItOnceAndReachesItByItsMac) {
    Board board;
    board.StartRecovery({});
    // An answer may come after a search has ended.
    CommandResult search;
    ASSERT_TRUE(WaitUntil([&] {
        search = Kvtool(&board, "discover --timeout 1.5 --json");
        return search.status == 0;
    })) << search.output;
    const auto found = nlohmann::json::parse(search.output);
    ASSERT_EQ(found.at("devices").size(), 1U) << found;
    const std::string mac = found.at("devices").at(0).at("mac");
    EXPECT_EQ(mac, "02:76:62:00:00:02");
    const CommandResult info = Kvtool(&board, "info --json " + mac);
    EXPECT_EQ(info.status, 0);
    EXPECT_TRUE(Contains(info.output, "PRT7K_38QX_QJT_V1.0.0.241127_R1")) << info.output;
    EXPECT_EQ(Kvtool(&board, "info 02:76:62:00:00:03").status, 4);
    // The settings are read anew for each reply.
    ASSERT_TRUE(board.WaitTrace("into wifi guard"));
    EXPECT_EQ(board
                  .OnBoard("ip route add default via 192.168.10.1 metric 5;"
                           "echo nameserver 192.168.10.53 >/etc/resolv.conf")
                  .status,
              0);
    const DiscoveryClient client(board.Connect("broadcast", 6789));
    EXPECT_EQ(
        client.Ask(Search(13), kBoardAddress),
        ExpectedReply({kBoardAddress, "255.255.255.0", "192.168.10.1", "192.168.10.53", mac}));
}
