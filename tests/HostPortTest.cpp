#include <gtest/gtest.h>

#include "vostrelka/HostPort.h"

using vostrelka::HostPort;

// Split at the first colon, the port text kept as typed: its number is the
// low 16 bits of what strtoul reads, with no range check.
TEST(HostPortFromText, TakesTheLow16BitsOfThePortAndKeepsWhiteSpace) {
    const struct {
        const char *text, *host;
        uint16_t port;
    } cases[] = {{"1.2.3.4:80abc", "1.2.3.4", 80}, {"gw:0080", "gw", 80}, {"h:65536", "h", 0},
                 {"h:70000", "h", 4464},           {"h:-1", "h", 65535},  {"h: \t90", "h", 90},
                 {" my host :5", " my host ", 5}};
    for (const auto& c : cases) {
        const auto hp = HostPort::from(std::string(c.text));
        ASSERT_TRUE(hp.has_value()) << c.text;
        EXPECT_EQ(hp->host, c.host) << c.text;
        EXPECT_EQ(hp->host + ":" + hp->port_str, c.text);
        EXPECT_EQ(hp->port, c.port) << c.text;
    }
}

TEST(HostPortFromText, RejectsMissingPartsAndPortsWithoutDigitsOrTooBig) {
    // The first colon splits, so 'a:b:80' and '[::1]:80' have no leading digit.
    for (const char* text : {"1.2.3.4", ":80", "1.2.3.4:", "1.2.3.4:abc", "a:b:80", "[::1]:80", "h:-",
                             "h:99999999999999999999999", "h:18446744073709551616"})
        EXPECT_FALSE(HostPort::from(std::string(text)).has_value()) << text;
}

TEST(HostPortFromParts, RemovesBlanksOnlyAfterTheEmptinessTest) {
    EXPECT_EQ(HostPort::from(" gw 1\t\n", 80).value().host, "gw1");
    const HostPort blanks = HostPort::from("   ", 65535).value();
    EXPECT_EQ(blanks.host + ":" + blanks.port_str, ":65535");
    EXPECT_FALSE(HostPort::from(std::string(), 80).has_value());
}
