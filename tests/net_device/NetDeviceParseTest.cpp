#include <gtest/gtest.h>

#include <stdexcept>

#include "vostrelka/net_device/net_device_parse.h"

using vostrelka::net_device::parse_device_address;

namespace {

TEST(ParseDeviceAddress, ReadsHexWithPrefixAndDecimalOtherwise) {
    const struct {
        const char* text;
        int expected;
    } cases[] = {
        {"0x10", 16}, {"16", 16}, {"0x1FF", 511}, {"0xff", 255}, {"255", 255}, {"12abc", 12},  // trailing text ignored
        {"010", 10},  // a leading zero is not octal
        {"0", 0},     {"-1", -1},
    };
    for (const auto& c : cases) EXPECT_EQ(parse_device_address(c.text), c.expected) << c.text;
}

TEST(ParseDeviceAddress, ThrowsOnTextThatIsNoNumber) {
    EXPECT_THROW(parse_device_address(""), std::invalid_argument);
    EXPECT_THROW(parse_device_address("abc"), std::invalid_argument);
    EXPECT_THROW(parse_device_address("x10"), std::invalid_argument);
    EXPECT_THROW(parse_device_address("99999999999"), std::out_of_range);
    EXPECT_THROW(parse_device_address("0x100000000"), std::out_of_range);
}

}  // namespace
