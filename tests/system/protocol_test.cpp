// The recovery server on a board: each reply's bytes, many clients, no descriptors left, and rest.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/board.h"
#include "tests/support/mini_client.h"

using kv_test::Board;
using kv_test::CountOf;
using kv_test::Exchange;
using kv_test::Frame;
using kv_test::WaitUntil;

namespace {

void StartRecovery(Board* board) {
    board->Start({"--no-wifi"});
    ASSERT_TRUE(board->WaitTrace("app file not exist!"));
}

std::string Little(uint32_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

std::string Padded(std::string text, size_t size) {
    text.resize(size);
    return text;
}

// A reply's header, built here byte by byte.
std::string Header(uint16_t command, uint8_t status, uint32_t session, uint32_t dataLen) {
    return std::string("\0\0\1\1", 4) + static_cast<char>(command) +
           static_cast<char>(command >> 8) + static_cast<char>(status) + '\0' + Little(session) +
           Little(dataLen) + Little(dataLen == 0 ? 0 : 1) + std::string(12, '\0');
}

std::string Device(uint32_t session, const std::string& serial) {
    return Header(0x2003, 0, session, 464) + std::string("\0\x1B\0\0", 4) + Padded("PRT7K", 64) +
           Padded(serial, 100) + Padded("ZH8C4", 200) +
           Padded("PRT7K_38QX_QJT_V1.0.0.241127_R1", 64) + Padded("PRT7K", 16) + Padded("38QX", 16);
}

std::vector<int> ConnectMany(Board* board, size_t count) {
    std::vector<int> sockets;
    for (size_t i = 0; i < count; ++i) {
        sockets.push_back(board->Connect("tcp", 80));
        if (sockets.back() < 0) {
            throw std::runtime_error("connection refused");
        }
    }
    return sockets;
}

void CloseAll(const std::vector<int>& sockets) {
    for (const int socket : sockets) {
        (void)close(socket);
    }
}

// A number from a /proc file of "Name:  value" lines.
uint64_t Field(const std::string& file, const std::string& name) {
    std::smatch match;
    const std::string text = kv_test::ReadFile(file);
    return std::regex_search(text, match, std::regex("(^|\n)" + name + ":\\s*(\\d+)"))
               ? std::stoull(match[2])
               : 0;
}

// Voluntary context switches of each thread: name and id, count.
std::map<std::string, uint64_t> Switches(pid_t program) {
    std::map<std::string, uint64_t> switches;
    const std::string tasks = "/proc/" + std::to_string(program) + "/task/";
    DIR* const folder = opendir(tasks.c_str());
    for (const dirent* entry = nullptr; folder != nullptr && (entry = readdir(folder));) {
        if (entry->d_name[0] != '.') {
            const std::string task = tasks + entry->d_name;
            std::string name = kv_test::ReadFile(task + "/comm");
            name.back() = ' ';
            switches[name + entry->d_name] = Field(task + "/status", "voluntary_ctxt_switches");
        }
    }
    (void)closedir(folder);
    return switches;
}

// CPU seconds that a process has used.
double CpuSeconds(pid_t process) {
    const std::string stat = kv_test::ReadFile("/proc/" + std::to_string(process) + "/stat");
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

TEST(Protocol, EveryReplyByteForByte) {
    Board board;
    StartRecovery(&board);
    const int first = board.Connect("tcp", 80);
    const std::string noSerial(8, '\0');
    // No session yet; what a request names as its session is nobody's affair.
    EXPECT_EQ(Exchange(first, Frame(6, 0, 0, 0, 77)), Header(6, 0, 0, 0));
    EXPECT_EQ(Exchange(first, Frame(0x2003), 496), Device(0, noSerial));
    EXPECT_EQ(Exchange(first, Frame(0)), Header(0, 0, 0, 0));
    const uint32_t session = kv_test::SessionOf(Exchange(first, Frame(6)));
    EXPECT_EQ(session & 0xFFFFFFU, 1U);
    EXPECT_NE(session >> 24, 0U);

    const int second = board.Connect("tcp", 80);
    for (const int client : {second, first}) {
        EXPECT_EQ(Exchange(client, Frame(0)), Header(0, 0, session, 0));
        EXPECT_EQ(Exchange(client, Frame(1)), Header(1, 0, session, 0));
        EXPECT_EQ(Exchange(client, Frame(6)), Header(6, 0, session, 0));
        EXPECT_EQ(Exchange(client, Frame(0x0002)), Header(0x0002, 2, session, 0));
        EXPECT_EQ(Exchange(client, Frame(0xBEEF)), Header(0xBEEF, 2, session, 0));
    }
    EXPECT_EQ(Exchange(second, Frame(0x2003), 496), Device(session, noSerial));
    const std::string reply = Exchange(first, Frame(0x0101), 40);
    ASSERT_EQ(reply.size(), 40U);
    const std::string serial = reply.substr(32);
    EXPECT_EQ(reply.substr(0, 32), Header(0x0101, 0, session, 8));
    EXPECT_EQ(serial.find('\0'), std::string::npos);
    EXPECT_EQ(Exchange(second, Frame(0x0101), 40), reply);
    EXPECT_EQ(Exchange(second, Frame(0x2003), 496), Device(session, serial));
    CloseAll({first, second});
}

TEST(Protocol, WhatIsNoRequestGetsNoReply) {
    Board board;
    StartRecovery(&board);
    const int client = board.Connect("tcp", 80);
    size_t dropped = 0;
    for (const std::string& chunk :
         {Frame(6, 0, 0, 1), Frame(6).substr(0, 31), std::string(1, 0)}) {
        ASSERT_TRUE(kv_test::SendAll(client, chunk));
        ++dropped;
        ASSERT_TRUE(WaitUntil(
            [&] { return CountOf(board.Trace(), "Korvan Protocol Handle failed!") == dropped; }));
    }
    const auto messages = board.Messages();
    const std::vector<std::string> pair = {
        "ERROR __KV_KorvanProtocolHandle: UNSUPPORT!!",
        "FAILED __KV_KorvanProtocolRead: Korvan Protocol Handle failed!"};
    size_t pairs = 0;
    for (auto at = messages.begin();
         (at = std::search(at, messages.end(), pair.begin(), pair.end())) != messages.end(); ++at) {
        ++pairs;
    }
    EXPECT_EQ(pairs, dropped);
    // Two requests in one chunk are one, and the connection has stayed open.
    EXPECT_EQ(Exchange(client, Frame(6) + Frame(0x0002), 64), Header(6, 0, 0, 0));
    CloseAll({client});
}

TEST(Protocol, TwoHundredConnectionsGetTheirOwnAnswers) {
    Board board;
    StartRecovery(&board);
    const auto clients = ConnectMany(&board, 200);
    // One request at a time: the answers come from one buffer.
    for (uint16_t round = 0; round < 3; ++round) {
        for (size_t i = 0; i < clients.size(); ++i) {
            const auto command = static_cast<uint16_t>(0x4000 + round * 256 + i);
            ASSERT_EQ(Exchange(clients[i], Frame(command)), Header(command, 2, 0, 0));
        }
    }
    for (const int client : clients) {
        EXPECT_EQ(kv_test::Receive(client, 1, 0), "");
    }
    CloseAll(clients);
    EXPECT_TRUE(WaitUntil(
        [&] { return CountOf(board.Trace(), "__KV_KorvanProtocolClose") == clients.size(); }));
}

TEST(Protocol, WithoutDescriptorsItWaitsAndRecovers) {
    Board board;
    StartRecovery(&board);
    const pid_t program = board.ProgramPid();
    constexpr size_t kLimit = 48;
    const struct rlimit limit = {kLimit, kLimit};
    ASSERT_EQ(prlimit(program, RLIMIT_NOFILE, &limit, nullptr), 0);
    // The kernel completes connections that the program cannot take yet.
    auto clients = ConnectMany(&board, kLimit + 10);
    ASSERT_TRUE(board.WaitTrace("accept failed: Too many open files"));
    const double before = CpuSeconds(program);
    EXPECT_EQ(Exchange(clients.front(), Frame(6)).size(), 32U);
    ASSERT_TRUE(kv_test::SendAll(clients.back(), Frame(6)));
    EXPECT_EQ(kv_test::Receive(clients.back(), 32, 3000), "");
    EXPECT_LT(CpuSeconds(program) - before, 0.2);
    EXPECT_EQ(CountOf(board.Trace(), "accept failed"), 1U);
    // Room again: those who waited are served, the last one too.
    CloseAll({clients.begin(), clients.end() - 5});
    clients.erase(clients.begin(), clients.end() - 5);
    EXPECT_EQ(kv_test::Receive(clients.back(), 32), Header(6, 0, 0, 0));
    EXPECT_LT(kv_test::LargestFeedGap(board.Operations()), 1.3);
    CloseAll(clients);
}

TEST(Protocol, IdleRecoveryRestsAndIsSmall) {
    Board board;
    StartRecovery(&board);
    // The services have been used, and the Wi-Fi thread has come to wait for its interface.
    const int client = board.Connect("tcp", 80);
    EXPECT_EQ(Exchange(client, Frame(0x2003), 496).size(), 496U);
    CloseAll({client});
    ASSERT_TRUE(board.WaitTrace("__KV_KorvanProtocolClose"));
    ASSERT_TRUE(board.WaitTrace("KV_WIFI_WPA_Status"));
    const pid_t program = board.ProgramPid();
    constexpr int kSeconds = 10;
    // Wakings a second that each thread's work asks for; none where none is named.
    const std::map<std::string, double> allowed = {
        {"__KV_FH_WDT_Pro", 4},  // feeds each second, and each feed waits for the driver's answer
        {"__KV_WIFI_STA_H", 2},  // looks for its interface each second
        {"upgradeMain", 0.5},    // looks for the application every three seconds
    };
    const double cpu = CpuSeconds(program);
    const auto before = Switches(program);
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));  // The time is what is measured.
    const auto after = Switches(program);
    ASSERT_GE(after.size(), 7U);
    ASSERT_EQ(after.size(), before.size());
    for (const auto& thread : after) {
        const auto row = allowed.find(thread.first.substr(0, thread.first.find(' ')));
        const double most = row == allowed.end() ? 0 : row->second * (kSeconds + 1);
        ASSERT_EQ(before.count(thread.first), 1U);
        EXPECT_LE(static_cast<double>(thread.second - before.at(thread.first)), most)
            << thread.first;
    }
    EXPECT_LT(CpuSeconds(program) - cpu, 0.1);
    const std::string status = "/proc/" + std::to_string(program) + "/status";
    RecordProperty("VmRSS_kB", std::to_string(Field(status, "VmRSS")));
    printf("RssAnon %lu KiB, in total %lu KiB resident\n", Field(status, "RssAnon"),
           Field(status, "VmRSS"));
    EXPECT_GT(Field(status, "RssAnon"), 0U);
    EXPECT_LT(Field(status, "RssAnon"), 512U);
}
