#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/PtyPair.h"
#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"
#include "vostrelka/NetDeviceSerial.h"
#include "vostrelka/SerialLine.h"
#include "vostrelka/net_device/NetDeviceFactory.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace vostrelka::net_device;

namespace {

std::string output_of(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(NetDeviceFactory, RefusesBadDescriptionsWithTheirMessage) {
    test_support::UdpEndpoint holder;
    const std::pair<std::string, std::string> cases[] = {
        {"udp:///1", "ERROR: invalid interface description\n"},  // nothing left for parameters
        {"udp://h:1/zz", "ERROR: invalid interface description\n"},
        {"Udp://h:1/1", "ERROR: unsupported interface type \"Udp\", supported types: serial, can, udp, udpserial\n"},
        {"udp://127.0.0.1:1:2/1", ""},  // a wrong number of parameters is the caller's to report
        {"serial:///dev/null:fast/1", "ERROR: parse serial baudrate: stol\n"},
        {"udp://127.0.0.1:-x/1", "ERROR: parse listen port -x: stoul\n"},
        {"udp://gw:1/1", "ERROR: failed to create inet address from host/port. gw : 1\n"},
        {"udp://" + holder.address() + "/1", "NetDeviceUDP: ERROR binding to " + holder.address() +
                                                 ": Address already in use\nERROR: create socket on address "
                                                 "127.0.0.1:" +
                                                 std::to_string(holder.port()) + "\n"},
        {"udp://127.0.0.1:0:127.0.0.1:/1", "ERROR: parse destination port : stoul\n"},
        {"udp://127.0.0.1:0:gw:70000/1", "ERROR: failed to create destination address from gw : 4464\n"},
    };
    NetDeviceFactory factory;
    for (const auto& c : cases) {
        EXPECT_EQ(output_of([&] { EXPECT_EQ(factory.make_net_device(c.first), nullptr); }), c.second) << c.first;
    }
    EXPECT_NE(output_of([&] {
                  EXPECT_EQ(factory.make_net_device("can://nosuchcan7", 1), nullptr);
              }).find("ERROR: failed to open CAN device: nosuchcan7\n"),
              std::string::npos);
}

TEST(NetDeviceFactory, BuildsUdpDevicesOnTheirPortsAndDestination) {
    NetDeviceFactory factory;
    test_support::UdpEndpoint far_end;
    // The listen port is cut to 16 bits; the second form appends the address.
    const uint16_t port = test_support::free_udp_port();
    auto serial = factory.make_net_device("udpserial://127.0.0.1:" + std::to_string(65536 + port), 0x1F);
    ASSERT_NE(dynamic_cast<NetDeviceUDPSerial*>(serial.get()), nullptr);
    EXPECT_EQ(test_support::bound_port_of(dynamic_cast<NetDeviceUDP*>(serial.get())->get_socket()), port);
    auto udp = factory.make_net_device("udp://127.0.0.1:0:127.0.0.1:" + std::to_string(far_end.port()) + "/0x1FF");
    EXPECT_EQ(dynamic_cast<NetDeviceUDPSerial*>(udp.get()), nullptr);
    EXPECT_EQ(std::make_pair(serial->address, udp->address), std::make_pair(uint8_t{0x1F}, uint8_t{0xFF}));
    ASSERT_EQ(udp->send_raw(test_support::make_frame(7, 1, 2, {1, 2, 3})), 0);
    EXPECT_EQ(far_end.receive(), (test_support::Bytes{7, 1, 2, 1, 2, 3}));
}

// A port that did not open, or took no rate, is left to the main loop to reopen or use as it is.
TEST(NetDeviceFactory, SerialDeviceKeepsARecordOfItsPortEvenWhenItDidNotOpen) {
    test_support::PtyPair pty;
    NetDeviceFactory factory;
    const std::string output = output_of([&] {
        // The path has slashes of its own: only the last one separates the address.
        auto device = factory.make_net_device("serial://" + pty.slave_path() + ":115200:2/16");
        ASSERT_NE(dynamic_cast<NetDeviceSerial*>(device.get()), nullptr);
        EXPECT_EQ(device->address, 16);
        EXPECT_NE(factory.make_net_device("serial:///nonexistent/ttyX:9600", 7), nullptr);
        EXPECT_NE(factory.make_net_device("serial://" + pty.slave_path() + ":14400/3"), nullptr);
    });
    EXPECT_EQ(output,
              "SerialPort: ERROR: opening port \"/nonexistent/ttyX\": No such file or directory\n"
              "ERROR: open serial port: /nonexistent/ttyX\n"
              "SerialPort: ERROR: invalid baudrate: 14400\n"
              "ERROR: set serial port baudrate to 14400 and stop bits to 1\n");
    const auto& records = factory.serial_ports();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0]->get_path() + " " + std::to_string(records[0]->get_baud_rate()) + " " +
                  std::to_string(records[0]->get_stop_bits()),
              pty.slave_path() + " 115200 2");
    EXPECT_EQ(records[1]->get_path() + " " + std::to_string(records[1]->get_stop_bits()), "/nonexistent/ttyX 1");
    EXPECT_LT(records[1]->get_port()->get_fd(), 0);
    EXPECT_GE(records[2]->get_port()->get_fd(), 0);
}
