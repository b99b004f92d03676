// The SocketCAN half without a bus; tests/can/ runs it on one in a VM.
#include <gtest/gtest.h>
#include <linux/can/error.h>

#include <cerrno>
#include <string>

#include "vostrelka/net_device_can/NetDeviceCan.h"

using namespace vostrelka::net_device;
using Device = NetDeviceCanAlloc<16, 2048, 512>;

TEST(NetDeviceCan, PrintsOneLinePerErrorClassThenTheCatchAll) {
    can_frame k = NetDeviceCan::to_socketcan_frame(CanFrame{0x10064021, 7, {0, 0x11, 0x22, 0x33, 0x44, 5, 6, 7}});
    EXPECT_EQ(k.can_id, 0x90064021u);
    Device device("vcan0", 0x20);
    testing::internal::CaptureStdout();
    for (canid_t classes :
         {CAN_ERR_ACK | CAN_ERR_TRX | CAN_ERR_PROT | CAN_ERR_CRTL | CAN_ERR_BUSOFF | CAN_ERR_TX_TIMEOUT,
          CAN_ERR_LOSTARB, 0u}) {
        k.can_id = CAN_ERR_FLAG | classes;
        device.handle_error_frame(k);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ERROR: tx timeout\nERROR: BUSOFF\nERROR: CAN controller error type=17\n"
              "ERROR: CAN protocol error type=34, location=51\nERROR: CAN transceiver error type=68\n"
              "ERROR: CAN ACK error\nERROR: CAN bus error\n"
              "ERROR: CAN bus error\n");
}

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
