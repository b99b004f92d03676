#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

#include "vostrelka/InetAddress.h"

using vostrelka::InetAddress;
using namespace std::string_literals;

TEST(InetAddressFromText, AcceptsEveryInetAtonFormKeepsTheTextAndNeverLooksANameUp) {
    const std::pair<const char*, uint32_t> cases[] = {{"192.168.1.20:14550", 0xC0A80114u},
                                                      {"127.1:0080", 0x7F000001u},
                                                      {"10.1.2:1", 0x0A010002u},
                                                      {"3232235777:1", 0xC0A80101u},
                                                      {"0x7f.010.0.1:1", 0x7F080001u}};
    for (const auto& [text, address] : cases) {
        const auto a = InetAddress::from(std::string(text));
        ASSERT_TRUE(a.has_value()) << text;
        EXPECT_EQ(ntohl(a->addr.sin_addr.s_addr), address) << text;
        EXPECT_EQ(ntohs(a->addr.sin_port), a->port) << text;
        EXPECT_EQ(a->to_s(), text);
    }
    for (const char* text : {"localhost:5000", "myhost:5000", "256.0.0.1:5000", "127.0.0.1"})
        EXPECT_FALSE(InetAddress::from(std::string(text)).has_value()) << text;
}

TEST(InetAddressEquality, ComparesTheTextNotTheSocketAddress) {
    const InetAddress a = *InetAddress::from("10.0.0.1:80"s);
    EXPECT_EQ(a, *InetAddress::from("10.0.0.1:80"s));
    EXPECT_NE(a, *InetAddress::from("10.0.0.1:080"s));
    sockaddr_in other{};
    EXPECT_EQ(a, InetAddress("10.0.0.1", "80", 1, other));
    EXPECT_EQ(InetAddress("a:b", "80", 80, other), InetAddress("a", "b:80", 80, other));
}

// The text is read from 4 bytes in for IPv6 too: flow information, then 12
// bytes of the address.
TEST(InetAddressFromSockaddr, WritesCanonicalTextFromTheIpv4Offset) {
    InetAddress configured = *InetAddress::from("127.1:0080"s);
    const auto received = InetAddress::from(*configured.sockaddr());
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(received->to_s(), "127.0.0.1:80");
    EXPECT_EQ(std::memcmp(&received->addr, &configured.addr, sizeof configured.addr), 0);
    EXPECT_NE(*received, configured);

    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(5000);
    six.sin6_flowinfo = htonl(0x00010002);
    ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::1", &six.sin6_addr), 1);
    EXPECT_EQ(InetAddress::from(*reinterpret_cast<sockaddr*>(&six)).value().to_s(), "1:2:2001:db8:::5000");
}
