#include <gtest/gtest.h>

#include <string>

#include "support/UdpEndpoint.h"
#include "vostrelka/UDPPort.h"

using test_support::bound_port_of;
using test_support::Bytes;
using test_support::UdpEndpoint;
using test_support::wait_readable;
using vostrelka::drivers::UDPPort;

TEST(UDPPort, WritesToRemoteAndAnswersTheLastSender) {
    UdpEndpoint first, second;
    UDPPort port;
    ASSERT_EQ(port.open("127.0.0.1:0", first.address().c_str()), 0);
    ASSERT_TRUE(port.is_open());
    const uint16_t local_port = bound_port_of(port.get_fd());

    uint8_t buffer[16];
    EXPECT_EQ(port.read(buffer, sizeof(buffer)), 0);  // nothing yet, and no blocking

    const Bytes hello = {1, 2, 3};
    EXPECT_EQ(port.write(hello.data(), hello.size()), 3);
    EXPECT_EQ(first.receive(), hello);

    ASSERT_TRUE(second.send_to(local_port, {9, 8}));
    ASSERT_TRUE(wait_readable(port.get_fd()));
    ASSERT_EQ(port.read(buffer, sizeof(buffer)), 2);
    EXPECT_EQ(Bytes(buffer, buffer + 2), (Bytes{9, 8}));

    EXPECT_EQ(port.write(hello.data(), hello.size()), 3);
    EXPECT_EQ(second.receive(), hello);
    EXPECT_FALSE(first.receive(100).has_value());

    port.close();
    port.close();
    EXPECT_FALSE(port.is_open());
    EXPECT_EQ(port.get_fd(), -1);
    EXPECT_EQ(port.write(hello.data(), hello.size()), -1);
    EXPECT_EQ(port.read(buffer, sizeof(buffer)), -1);
}

TEST(UDPPort, ReportsWhyItCouldNotOpen) {
    UdpEndpoint holder;
    UDPPort port;

    testing::internal::CaptureStdout();
    EXPECT_EQ(port.open("127.0.0.1:not-a-port", holder.address().c_str()), -1);
    EXPECT_EQ(port.get_fd(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("UDPPort: ERROR: getaddrinfo for 127.0.0.1:not-a-port: ", 0),
              0u);

    testing::internal::CaptureStdout();
    EXPECT_EQ(port.open(holder.address().c_str(), holder.address().c_str()), -1);
    EXPECT_EQ(port.get_fd(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UDPPort: ERROR: binding to UDP port: Address already in use\n");
}
