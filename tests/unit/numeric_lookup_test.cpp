// Here the static program's address look-up replaces the C library's, as it does in that program.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "hv/icmp.h"

namespace {

TEST(NumericLookup, FindsANumericAddress) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_RAW;
    hints.ai_protocol = IPPROTO_ICMP;
    addrinfo* found = nullptr;
    ASSERT_EQ(getaddrinfo("172.20.18.1", nullptr, &hints, &found), 0);
    EXPECT_EQ(found->ai_family, AF_INET);
    EXPECT_EQ(found->ai_socktype, SOCK_RAW);
    EXPECT_EQ(found->ai_protocol, IPPROTO_ICMP);
    EXPECT_EQ(found->ai_next, nullptr);
    ASSERT_EQ(found->ai_addrlen, sizeof(sockaddr_in));
    const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    EXPECT_EQ(address->sin_family, AF_INET);
    EXPECT_EQ(address->sin_addr.s_addr, inet_addr("172.20.18.1"));
    freeaddrinfo(found);
}

TEST(NumericLookup, RefusesEverythingElse) {
    addrinfo* found = nullptr;
    EXPECT_EQ(getaddrinfo("localhost", nullptr, nullptr, &found), EAI_NONAME);
    EXPECT_EQ(getaddrinfo("::1", nullptr, nullptr, &found), EAI_NONAME);
    EXPECT_EQ(getaddrinfo("127.0.0.1", "80", nullptr, &found), EAI_NONAME);
    EXPECT_EQ(getaddrinfo(nullptr, nullptr, nullptr, &found), EAI_NONAME);
    EXPECT_EQ(found, nullptr);
}

TEST(NumericLookup, SufficesForThePingLibrary) {
    EXPECT_EQ(ping("127.0.0.1", 1), 1);
}

}  // namespace
