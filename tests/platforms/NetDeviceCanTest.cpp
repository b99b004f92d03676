// The SocketCAN half without a bus: conversions, error-frame lines, and
// behaviour when the socket cannot be made. The bus itself is exercised in
// the VM suite under tests/can/.
#include <gtest/gtest.h>
#include <linux/can/error.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "vostrelka/net_device_can/NetDeviceCan.h"

using namespace vostrelka;
using namespace vostrelka::net_device;

namespace {

using Device = NetDeviceCanAlloc<16, 2048, 512>;

can_frame kernel_frame(canid_t id, uint8_t dlc, std::vector<uint8_t> data) {
    can_frame f;
    std::memset(&f, 0, sizeof(f));
    f.can_id = id;
    f.can_dlc = dlc;
    std::memcpy(f.data, data.data(), data.size());
    return f;
}

}  // namespace

TEST(NetDeviceCan, ConvertsToAndFromKernelFrames) {
    CanFrame frame;
    frame.id = 0x10064021;
    frame.len = 7;
    for (uint8_t i = 0; i < 8; i++) frame.data[i] = static_cast<uint8_t>(0xA0 + i);

    const can_frame k = NetDeviceCan::to_socketcan_frame(frame);
    EXPECT_EQ(k.can_id, 0x90064021u);
    EXPECT_EQ(k.can_dlc, 7);
    EXPECT_EQ(std::memcmp(k.data, frame.data, 8), 0);

    // Receiving drops every flag bit and the high bits of the length code.
    const can_frame in = kernel_frame(0xF0064021, 0xF7, {1, 2, 3, 4, 5, 6, 7, 8});
    const CanFrame back = NetDeviceCan::to_netdev_frame(in);
    EXPECT_EQ(back.id, 0x10064021u);
    EXPECT_EQ(back.len, 7);
    EXPECT_EQ(std::vector<uint8_t>(back.data, back.data + 8), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(NetDeviceCan, PrintsOneLinePerErrorClassThenTheCatchAll) {
    struct Case {
        canid_t classes;
        std::string lines;
    };
    const std::vector<Case> cases = {
        {CAN_ERR_TX_TIMEOUT, "ERROR: tx timeout\nERROR: CAN bus error\n"},
        {CAN_ERR_BUSOFF, "ERROR: BUSOFF\nERROR: CAN bus error\n"},
        {CAN_ERR_CRTL, "ERROR: CAN controller error type=17\nERROR: CAN bus error\n"},
        {CAN_ERR_PROT, "ERROR: CAN protocol error type=34, location=51\nERROR: CAN bus error\n"},
        {CAN_ERR_TRX, "ERROR: CAN transceiver error type=68\nERROR: CAN bus error\n"},
        {CAN_ERR_ACK, "ERROR: CAN ACK error\nERROR: CAN bus error\n"},
        {CAN_ERR_RESTARTED, "ERROR: CAN bus error\n"},
        {CAN_ERR_LOSTARB, "ERROR: CAN bus error\n"},
        {0, ""},
        {CAN_ERR_ACK | CAN_ERR_TRX | CAN_ERR_PROT | CAN_ERR_CRTL | CAN_ERR_BUSOFF | CAN_ERR_TX_TIMEOUT,
         "ERROR: tx timeout\nERROR: BUSOFF\nERROR: CAN controller error type=17\n"
         "ERROR: CAN protocol error type=34, location=51\nERROR: CAN transceiver error type=68\n"
         "ERROR: CAN ACK error\nERROR: CAN bus error\n"},
    };
    Device device("vcan0", 0x20);
    for (const Case& c : cases) {
        can_frame f = kernel_frame(CAN_ERR_FLAG | c.classes, 8, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77});
        testing::internal::CaptureStdout();
        device.handle_error_frame(f);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.lines) << std::hex << c.classes;
    }
}

TEST(NetDeviceCan, OpenReportsTheErrnoOfAFailedSocketAndStaysClosed) {
    const char* name = "nosuchcan9";
    errno = 0;
    ASSERT_EQ(NetDeviceCan::create_can_socket(name), -1);
    const int expected_errno = errno;  // no CAN in this kernel, or no such interface
    ASSERT_NE(expected_errno, 0);

    Device device(name, 0x20);
    testing::internal::CaptureStdout();
    EXPECT_EQ(device.open(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ERROR: creating CAN socket: " + std::to_string(expected_errno) + "\n");

    EXPECT_EQ(device.get_fd(), -1);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(0, &set);
    EXPECT_FALSE(device.is_fd_set(&set));
    CanAcceptanceFilter filter = make_acceptance_filter(0x20, 0xFF);
    EXPECT_EQ(device.apply_filters(Slice<CanAcceptanceFilter>(&filter, 1, 1)), -1);
    EXPECT_EQ(device.send_raw_highprio(Frame()), -1) << "this device has no high-priority queue";
}

TEST(NetDeviceCanDeathTest, UsingAClosedSocketIsAProgrammingError) {
    Device device("vcan0", 0x20);
    fd_set r, w, e;
    FD_ZERO(&r);
    FD_ZERO(&w);
    FD_ZERO(&e);
    EXPECT_DEATH(device.register_fd(&r, &w, &e), "fd >= 0");
    EXPECT_DEATH(device.do_read(), "fd >= 0");
    EXPECT_DEATH(device.send_raw(Frame()), "fd >= 0");
}
