#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "SameAddress.h"

using vostrelka::InetAddress;
using vostrelka::same_address;

namespace {

InetAddress text_only(const std::string& host, const std::string& port_str) {
    InetAddress address;
    address.host = host;
    address.port_str = port_str;
    return address;
}

}  // namespace

TEST(SameAddress, EqualExactlyWhenTheTextFormsAreEqual) {
    struct Case {
        InetAddress a, b;
    };
    const Case cases[] = {
        {text_only("127.0.0.1", "5000"), text_only("127.0.0.1", "5000")},
        {text_only("127.0.0.1", "5000"), text_only("127.0.0.2", "5000")},
        {text_only("127.0.0.1", "5000"), text_only("127.0.0.1", "5001")},
        {text_only("127.0.0.1", "5000"), text_only("127.0.0.1", "05000")},
        {text_only("10.1", "80"), text_only("10.0.0.1", "80")},
        {text_only("", ""), text_only("", "")},
        // The same text split differently between host and port.
        {text_only("a:b", "c"), text_only("a", "b:c")},
        {text_only("a:b", "c"), text_only("a", "b:d")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.a.to_s() + " vs " + c.b.to_s());
        const bool texts_equal = c.a.to_s() == c.b.to_s();
        EXPECT_EQ(same_address(c.a, c.b), texts_equal);
        EXPECT_EQ(same_address(c.b, c.a), texts_equal);
    }
}

TEST(SameAddress, AbsentEqualsOnlyAbsent) {
    const std::optional<InetAddress> none;
    const std::optional<InetAddress> some = text_only("127.0.0.1", "1");
    EXPECT_TRUE(same_address(none, none));
    EXPECT_FALSE(same_address(none, some));
    EXPECT_FALSE(same_address(some, none));
    EXPECT_TRUE(same_address(some, some));
}
