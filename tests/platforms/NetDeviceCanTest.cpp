// The SocketCAN half without a bus; tests/can/ runs it on one in a VM.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "vostrelka/net_device_can/NetDeviceCan.h"

using namespace vostrelka::net_device;
using Device = NetDeviceCanAlloc<16, 2048, 512>;

TEST(NetDeviceCan, OpenReportsTheErrnoOfAFailedSocketAndStaysClosed) {
    errno = 0;
    ASSERT_EQ(NetDeviceCan::create_can_socket("nosuchcan9"), -1);
    const std::string line =
        "ERROR: creating CAN socket: " + std::to_string(errno) + "\n";  // no CAN here, or no such interface
    Device device("nosuchcan9", 0x20);
    testing::internal::CaptureStdout();
    EXPECT_EQ(device.open(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
    CanAcceptanceFilter filter = make_acceptance_filter(0x20, 0xFF);
    EXPECT_EQ(device.apply_filters(vostrelka::Slice<CanAcceptanceFilter>(&filter, 1, 1)), -1);
}
