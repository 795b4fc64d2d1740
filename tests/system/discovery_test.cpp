// Discovery, asked by the board's neighbours and by the board itself.
#include "tests/support/board.h"
#include "tests/support/discovery_client.h"

using namespace kv_test;

namespace {

nlohmann::json Kvtool(Board* board, const std::string& arguments) {
    const auto result = board->OnBench(BinDir() + "/kvtool " + arguments + " --json");
    EXPECT_EQ(result.status, 0) << result.output;
    return nlohmann::json::parse(result.output, nullptr, false);
}

}  // namespace

TEST(Discovery, ReportsTheSettingsOfWlan0WithoutEth0) {
    Board board;
    board.Start({"--no-eth"});
    ASSERT_TRUE(board.WaitTrace("into wifi guard"));
    std::string address =
        board.OnBoard("ip -o -4 address show wlan0 | sed 's,.*inet \\(.*\\)/24 .*,\\1,'").output;
    ASSERT_FALSE(address.empty());
    address.pop_back();
    const Bytes expected = ExpectedReply(
        {address, "255.255.255.0", "172.20.18.1", "172.20.18.1", "02:76:62:00:01:02"});
    const DiscoveryClient client(board.Connect("broadcast", 6789));
    EXPECT_EQ(client.Ask(Search(64), address.c_str()), expected);
    EXPECT_EQ(client.Ask(Search(64), "255.255.255.255"), expected);
    EXPECT_TRUE(client.Receive(200).empty()) << "more than one answer";
}

TEST(Discovery, ReportsItsIdentityWithoutAnyNetwork) {
    Board board;
    board.StartRecovery({"--no-eth", "--no-wifi"});
    const auto result = board.OnBoard(
        "bash -c 'exec 3<>/dev/udp/127.0.0.1/6789; printf \"searching..\\0\\n\" >&3;"
        "timeout 5 dd bs=2048 count=1 <&3 2>/dev/null'");
    EXPECT_EQ(Bytes(result.output.begin(), result.output.end()), ExpectedReply({}));
}

TEST(Discovery, KvtoolFindsItOnceAndReachesItByItsMac) {
    Board board;
    board.StartRecovery({});
    const auto found = Kvtool(&board, "discover --timeout 1.5");
    ASSERT_EQ(found.at("devices").size(), 1U) << found;
    const std::string mac = found.at("devices").at(0).at("mac");
    EXPECT_EQ(mac, "02:76:62:00:00:02");
    EXPECT_TRUE(Contains(Kvtool(&board, "info " + mac).dump(), "PRT7K_38QX_QJT_V1.0.0.241127_R1"));
    EXPECT_EQ(board.OnBench(BinDir() + "/kvtool info 02:76:62:00:00:03").status, 4);
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
