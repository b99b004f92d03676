#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/un.h>

#include <cstring>
#include <ostream>

#include "vostrelka/InetAddress.h"

namespace vostrelka {
namespace {

uint32_t ipv4(const InetAddress& a) {
    return ntohl(a.addr.sin_addr.s_addr);
}

TEST(InetAddressFromText, BuildsTheSocketAddress) {
    auto a = InetAddress::from(std::string("192.168.1.20:14550"));
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(a->addr.sin_family, AF_INET);
    EXPECT_EQ(ntohs(a->addr.sin_port), 14550);
    EXPECT_EQ(ipv4(*a), 0xC0A80114u);
    EXPECT_EQ(a->to_s(), "192.168.1.20:14550");
    const unsigned char zero[sizeof(a->addr.sin_zero)] = {};
    EXPECT_EQ(std::memcmp(a->addr.sin_zero, zero, sizeof(zero)), 0);
}

struct NumericCase {
    const char* text;
    uint32_t address;
};

void PrintTo(const NumericCase& c, std::ostream* os) {
    *os << c.text;
}

class InetAddressNumericForms : public ::testing::TestWithParam<NumericCase> {};

TEST_P(InetAddressNumericForms, AcceptsEveryFormOfInetAtonAndKeepsTheText) {
    auto a = InetAddress::from(std::string(GetParam().text));
    ASSERT_TRUE(a.has_value()) << GetParam().text;
    EXPECT_EQ(ipv4(*a), GetParam().address);
    EXPECT_EQ(a->to_s(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Forms, InetAddressNumericForms,
                         ::testing::Values(NumericCase{"127.1:5000", 0x7F000001u}, NumericCase{"10.1.2:1", 0x0A010002u},
                                           NumericCase{"3232235777:1", 0xC0A80101u},
                                           NumericCase{"0x7f.1:1", 0x7F000001u},
                                           NumericCase{"010.0.0.1:1", 0x08000001u}));

TEST(InetAddressFromText, NeverLooksANameUp) {
    EXPECT_FALSE(InetAddress::from(std::string("localhost:5000")).has_value());
    EXPECT_FALSE(InetAddress::from(std::string("myhost:5000")).has_value());
    EXPECT_FALSE(InetAddress::from(std::string("256.0.0.1:5000")).has_value());
    EXPECT_FALSE(InetAddress::from(std::string("127.0.0.1")).has_value());
}

TEST(InetAddressFromParts, RemovesBlanksBeforeConverting) {
    auto a = InetAddress::from(" 10.0.0.2 ", 5000);
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(a->to_s(), "10.0.0.2:5000");
    EXPECT_EQ(ipv4(*a), 0x0A000002u);
    EXPECT_FALSE(InetAddress::from(std::string(), 5000).has_value());
    EXPECT_FALSE(InetAddress::from("gw1", 5000).has_value());
}

TEST(InetAddressEquality, ComparesTextNotSocketAddress) {
    auto a = *InetAddress::from(std::string("10.0.0.1:80"));
    EXPECT_EQ(a, *InetAddress::from(std::string("10.0.0.1:80")));
    EXPECT_NE(a, *InetAddress::from(std::string("10.0.0.1:080")));
    EXPECT_NE(a, *InetAddress::from(std::string("10.0.1:80")));
    EXPECT_NE(a, *InetAddress::from(std::string("10.0.0.1:81")));

    // Same text, different socket address: still equal.
    sockaddr_in other{};
    InetAddress b("10.0.0.1", "80", 1, other);
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a != b);

    // The colon may sit in the host or in the port text.
    EXPECT_EQ(InetAddress("a:b", "80", 80, other), InetAddress("a", "b:80", 80, other));
    EXPECT_NE(InetAddress("a:b", "8", 8, other), InetAddress("a", "b:80", 80, other));
}

TEST(InetAddressFromSockaddr, RoundTripsAnIpv4Address) {
    auto sent = *InetAddress::from(std::string("127.0.0.1:14550"));
    sockaddr_in raw = sent.addr;
    auto back = InetAddress::from(*reinterpret_cast<sockaddr*>(&raw));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->host, "127.0.0.1");
    EXPECT_EQ(back->port_str, "14550");
    EXPECT_EQ(back->port, 14550);
    EXPECT_EQ(std::memcmp(&back->addr, &raw, sizeof(raw)), 0);
    EXPECT_EQ(back->to_s(), "127.0.0.1:14550");
    EXPECT_EQ(*back, sent);
}

TEST(InetAddressFromSockaddr, PortTextIsCanonicalSoShortFormsDiffer) {
    auto configured = *InetAddress::from(std::string("127.1:0080"));
    auto received = InetAddress::from(*configured.sockaddr());
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(received->to_s(), "127.0.0.1:80");
    EXPECT_NE(*received, configured);
}

TEST(InetAddressFromSockaddr, RefusesOtherFamilies) {
    sockaddr_un unix_address{};
    unix_address.sun_family = AF_UNIX;
    std::strcpy(unix_address.sun_path, "/tmp/x");
    EXPECT_FALSE(InetAddress::from(*reinterpret_cast<sockaddr*>(&unix_address)).has_value());

    sockaddr_in unspecified{};
    EXPECT_FALSE(InetAddress::from(*reinterpret_cast<sockaddr*>(&unspecified)).has_value());
}

TEST(InetAddressFromSockaddr, ReadsIpv6TextFromTheIpv4Offset) {
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(5000);
    six.sin6_flowinfo = htonl(0x00010002);
    ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::1", &six.sin6_addr), 1);

    auto a = InetAddress::from(*reinterpret_cast<sockaddr*>(&six));
    ASSERT_TRUE(a.has_value());
    // Flow information, then the first 12 bytes of the address.
    EXPECT_EQ(a->host, "1:2:2001:db8::");
    EXPECT_EQ(a->port_str, "5000");
    EXPECT_EQ(a->port, 5000);
    EXPECT_EQ(std::memcmp(&a->addr, &six, sizeof(a->addr)), 0);
}

}  // namespace
}  // namespace vostrelka
