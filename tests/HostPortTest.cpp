#include <gtest/gtest.h>

#include <ostream>

#include "vostrelka/HostPort.h"

namespace vostrelka {
namespace {

struct ParsedCase {
    const char* text;
    const char* host;
    const char* port_str;
    uint16_t port;
};

// Names the case after its text, blanks made visible, for readable test names.
void PrintTo(const ParsedCase& c, std::ostream* os) {
    for (const char* p = c.text; *p; ++p) *os << (*p == '\t' ? "\\t" : std::string(1, *p));
}

class HostPortParses : public ::testing::TestWithParam<ParsedCase> {};

TEST_P(HostPortParses, KeepsTextAndTakesLow16BitsOfThePort) {
    const auto& c = GetParam();
    auto hp = HostPort::from(std::string(c.text));
    ASSERT_TRUE(hp.has_value()) << c.text;
    EXPECT_EQ(hp->host, c.host);
    EXPECT_EQ(hp->port_str, c.port_str);
    EXPECT_EQ(hp->port, c.port);
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, HostPortParses,
    ::testing::Values(ParsedCase{"1.2.3.4:80", "1.2.3.4", "80", 80},
                      ParsedCase{"1.2.3.4:80abc", "1.2.3.4", "80abc", 80}, ParsedCase{"gw:0080", "gw", "0080", 80},
                      ParsedCase{"h:0", "h", "0", 0}, ParsedCase{"h:65535", "h", "65535", 65535},
                      ParsedCase{"h:65536", "h", "65536", 0}, ParsedCase{"h:70000", "h", "70000", 4464},
                      ParsedCase{"h:-1", "h", "-1", 65535}, ParsedCase{"h:+81", "h", "+81", 81},
                      ParsedCase{"h: \t90", "h", " \t90", 90},
                      ParsedCase{"h:18446744073709551615", "h", "18446744073709551615", 65535},
                      ParsedCase{"h:80:90", "h", "80:90", 80}, ParsedCase{" my host :5", " my host ", "5", 5}));

class HostPortRejects : public ::testing::TestWithParam<const char*> {};

TEST_P(HostPortRejects, GivesNothing) {
    EXPECT_FALSE(HostPort::from(std::string(GetParam())).has_value());
}

INSTANTIATE_TEST_SUITE_P(Rejected, HostPortRejects,
                         ::testing::Values("1.2.3.4",      // no colon
                                           ":80",          // empty host
                                           "1.2.3.4:",     // no port
                                           "1.2.3.4:abc",  // no digit
                                           "a:b:80",       // first colon wins, 'b:80' has no leading digit
                                           "[::1]:80",     // same
                                           "h:-",          // a sign alone is no number
                                           "h:99999999999999999999999", "h:18446744073709551616",
                                           "h:-99999999999999999999999"));

TEST(HostPortFromParts, RemovesBlanksOnlyAfterTheEmptinessTest) {
    auto hp = HostPort::from(" gw 1\t\n", 80);
    ASSERT_TRUE(hp.has_value());
    EXPECT_EQ(hp->host, "gw1");
    EXPECT_EQ(hp->port_str, "80");
    EXPECT_EQ(hp->port, 80);

    EXPECT_FALSE(HostPort::from(std::string(), 80).has_value());
    auto blanks = HostPort::from("   ", 65535);
    ASSERT_TRUE(blanks.has_value());
    EXPECT_EQ(blanks->host, "");
    EXPECT_EQ(blanks->port_str, "65535");
}

}  // namespace
}  // namespace vostrelka
