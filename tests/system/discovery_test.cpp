// Discovery, asked from the board's neighbours and from the board itself.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "tests/support/board.h"
#include "tests/support/discovery_client.h"

using kv_test::Board;
using kv_test::Bytes;
using kv_test::ExpectedReply;
using kv_test::Search;

namespace {

Bytes Receive(int socket, int timeoutMs = 5000) {
    Bytes bytes(2048);
    struct pollfd readable = {socket, POLLIN, 0};
    const ssize_t got =
        poll(&readable, 1, timeoutMs) == 1 ? recv(socket, bytes.data(), bytes.size(), 0) : 0;
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

Bytes Ask(int socket) {
    const Bytes search = Search(64);
    EXPECT_EQ(send(socket, search.data(), search.size(), 0), static_cast<ssize_t>(search.size()));
    return Receive(socket);
}

Bytes AskByBroadcast(Board* board) {
    const UniqueFd socket(board->Connect("broadcast", 6789, "255.255.255.255"));
    sockaddr_in everybody{};
    everybody.sin_family = AF_INET;
    everybody.sin_port = htons(6789);
    everybody.sin_addr.s_addr = INADDR_BROADCAST;
    const Bytes search = Search(13);
    EXPECT_EQ(sendto(socket.Get(), search.data(), search.size(), 0,
                     reinterpret_cast<const sockaddr*>(&everybody), sizeof(everybody)),
              static_cast<ssize_t>(search.size()));
    Bytes reply = Receive(socket.Get());
    EXPECT_TRUE(Receive(socket.Get(), 200).empty());
    return reply;
}

nlohmann::json Kvtool(Board* board, const std::string& arguments) {
    const auto result = board->OnBench(kv_test::BinDir() + "/kvtool " + arguments + " --json");
    EXPECT_EQ(result.status, 0) << result.output;
    return nlohmann::json::parse(result.output, nullptr, false);
}

}  // namespace

TEST(Discovery, TellsTheSettingsOfTheWire) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    kv_test::Settings settings = {"192.168.10.2", "255.255.255.0", "", "", "02:76:62:00:00:02"};
    const UniqueFd socket(board.Connect("udp", 6789));
    EXPECT_EQ(Ask(socket.Get()), ExpectedReply(settings));
    // Settings are read for each reply.
    EXPECT_EQ(board
                  .OnBoard("ip route add default via 192.168.10.1;"
                           "echo nameserver 192.168.10.53 >/etc/resolv.conf")
                  .status,
              0);
    settings.gateway = "192.168.10.1";
    settings.dns = "192.168.10.53";
    EXPECT_EQ(Ask(socket.Get()), ExpectedReply(settings));
    EXPECT_EQ(AskByBroadcast(&board), ExpectedReply(settings));
}

TEST(Discovery, TellsTheSettingsOfTheRadioWithoutAWire) {
    Board board;
    board.Start({"--no-eth"});
    ASSERT_TRUE(board.WaitTrace("into wifi guard"));
    std::string address =
        board.OnBoard("ip -o -4 address show wlan0 | sed 's,.*inet \\(.*\\)/24 .*,\\1,'").output;
    ASSERT_FALSE(address.empty());
    address.pop_back();
    const Bytes expected = ExpectedReply(
        {address, "255.255.255.0", "172.20.18.1", "172.20.18.1", "02:76:62:00:01:02"});
    const UniqueFd socket(board.Connect("udp", 6789, address));
    EXPECT_EQ(Ask(socket.Get()), expected);
    EXPECT_EQ(AskByBroadcast(&board), expected);
}

TEST(Discovery, TellsWhoItIsWithoutAnyNetwork) {
    Board board;
    board.Start({"--no-eth", "--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const auto result = board.OnBoard(
        "bash -c 'exec 3<>/dev/udp/127.0.0.1/6789; printf \"searching..\\0\\n\" >&3;"
        "timeout 5 dd bs=2048 count=1 <&3 2>/dev/null'");
    EXPECT_EQ(Bytes(result.output.begin(), result.output.end()), ExpectedReply({}));
}

TEST(Discovery, KvtoolFindsItOnceAndReachesItByItsMac) {
    Board board;
    board.Start();
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const auto found = Kvtool(&board, "discover --timeout 1.5");
    ASSERT_EQ(found.at("devices").size(), 1U) << found;
    const std::string mac = found.at("devices").at(0).at("mac");
    EXPECT_EQ(mac, "02:76:62:00:00:02");
    EXPECT_NE(Kvtool(&board, "info " + mac).dump().find("PRT7K_38QX_QJT_V1.0.0.241127_R1"),
              std::string::npos);
}

TEST(Discovery, AFloodIsAnsweredToEachSender) {
    Board board;
    board.Start({"--no-wifi"});
    ASSERT_TRUE(board.WaitTrace("app file not exist!"));
    const Bytes expected =
        ExpectedReply({"192.168.10.2", "255.255.255.0", "", "", "02:76:62:00:00:02"});
    const Bytes search = Search(13);
    std::vector<UniqueFd> senders;
    for (int i = 0; i < 8; ++i) {
        senders.emplace_back(board.Connect("udp", 6789));
    }
    // What is on its way at one moment fits into the board's socket buffer; the sender with the
    // number n asks n + 1 times.
    for (int round = 0; round < 20; ++round) {
        for (size_t i = 0; i < senders.size(); ++i) {
            for (size_t n = 0; n <= i; ++n) {
                (void)send(senders[i].Get(), search.data(), search.size(), 0);
            }
        }
        for (size_t i = 0; i < senders.size(); ++i) {
            for (size_t n = 0; n <= i; ++n) {
                ASSERT_EQ(Receive(senders[i].Get()), expected) << round << " " << i;
            }
        }
    }
    for (const UniqueFd& sender : senders) {
        EXPECT_TRUE(Receive(sender.Get(), 0).empty());
    }
}
