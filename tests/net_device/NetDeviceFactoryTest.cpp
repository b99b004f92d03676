#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "support/FreeUdpPort.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/NetDeviceSerial.h"
#include "vostrelka/SerialPort.h"
#include "vostrelka/net_device/NetDeviceFactory.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using vostrelka::net_device::NetDevice;
using vostrelka::net_device::NetDeviceFactory;
using vostrelka::net_device::NetDeviceSerial;
using vostrelka::net_device::NetDeviceUDP;
using vostrelka::net_device::NetDeviceUDPSerial;

namespace {

using Params = std::vector<std::string>;

TEST(ParseInterfaceDesc, SplitsTypeParametersAndAddress) {
    const struct {
        const char* desc;
        const char* type;
        Params params;
        int address;
    } cases[] = {
        {"serial:///dev/ttyUSB0:115200/0x10", "serial", {"/dev/ttyUSB0", "115200"}, 0x10},
        {"udp://0.0.0.0:5000:10.0.0.2:5001/16", "udp", {"0.0.0.0", "5000", "10.0.0.2", "5001"}, 16},
        {"can://can0/0x1FF", "can", {"can0"}, 0x1FF},
        // The type ends at the first "://"; later ones belong to the parameters.
        {"a://b://c:d/7", "a", {"b", "//c", "d"}, 7},
        {"x://:/5", "x", {"", ""}, 5},
        {"udp://h:1/12abc", "udp", {"h", "1"}, 12},
        // Only the last slash separates the address.
        {"udp://127.0.0.1:7001/0x10/255", "udp", {"127.0.0.1", "7001/0x10"}, 255},
    };
    NetDeviceFactory factory;
    for (const auto& c : cases) {
        NetDeviceFactory::InterfaceDescription out;
        ASSERT_EQ(factory.parse_interface_desc(c.desc, out), 0) << c.desc;
        EXPECT_EQ(out.type, c.type) << c.desc;
        EXPECT_EQ(out.params, c.params) << c.desc;
        EXPECT_EQ(out.address, c.address) << c.desc;
    }
}

TEST(ParseInterfaceDesc, RefusesTextWithoutTheGeneralForm) {
    NetDeviceFactory factory;
    for (const char* desc : {"", "://", "udp:///1", "udp://1", "udp0.0.0.0:5000/1", "udp://h:1", "udp://h:1/",
                             "udp://h:1/zz", "udp://h:1/99999999999", "udp//h:1/1"}) {
        NetDeviceFactory::InterfaceDescription out;
        EXPECT_EQ(factory.parse_interface_desc(desc, out), -1) << desc;
    }
}

std::string captured(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(MakeNetDevice, RefusesBadDescriptionsWithTheirMessage) {
    NetDeviceFactory factory;
    const struct {
        std::string desc;
        std::string output;
    } cases[] = {
        {"udp:/127.0.0.1:1/1", "ERROR: invalid interface description\n"},
        {"tcp://a:1/1", "ERROR: unsupported interface type \"tcp\", supported types: serial, can, udp, udpserial\n"},
        {"Serial:///dev/null:9600/1",
         "ERROR: unsupported interface type \"Serial\", supported types: serial, can, udp, udpserial\n"},
        // A wrong number of parameters is the caller's to report.
        {"udp://127.0.0.1:1:2/1", ""},
        {"udpserial://127.0.0.1/1", ""},
        {"udp://a:1:b:2:c/1", ""},
        {"serial:///dev/null/1", ""},
        {"serial:///dev/null:9600:1:x/1", ""},
        {"can://can0:x/1", ""},
        {"serial:///dev/null:fast/1", "ERROR: parse serial baudrate: stol\n"},
        {"udp://127.0.0.1:-x/1", "ERROR: parse listen port -x: stoul\n"},
        {"udp://127.0.0.1:99999999999999999999/1", "ERROR: parse listen port 99999999999999999999: stoul\n"},
        {"udp://gw:1/1", "ERROR: failed to create inet address from host/port. gw : 1\n"},
        {"udp://127.0.0.1:0:127.0.0.1:/1", "ERROR: parse destination port : stoul\n"},
        {"udp://127.0.0.1:0:gw:70000/1", "ERROR: failed to create destination address from gw : 4464\n"},
    };
    for (const auto& c : cases) {
        std::unique_ptr<NetDevice> device;
        EXPECT_EQ(captured([&] { device = factory.make_net_device(c.desc); }), c.output) << c.desc;
        EXPECT_EQ(device, nullptr) << c.desc;
    }
    EXPECT_TRUE(factory.serial_ports().empty());
}

uint16_t local_port_of(const NetDeviceUDP& device) {
    return test_support::bound_port_of(device.get_socket());
}

TEST(MakeNetDevice, BuildsUdpDevicesBoundToTheirListenPort) {
    NetDeviceFactory factory;
    const uint16_t port = test_support::free_udp_port();
    auto device = factory.make_net_device("udp://127.0.0.1:" + std::to_string(port) + "/0x10");
    ASSERT_NE(device, nullptr);
    auto* udp = dynamic_cast<NetDeviceUDP*>(device.get());
    ASSERT_NE(udp, nullptr);
    EXPECT_EQ(dynamic_cast<NetDeviceUDPSerial*>(device.get()), nullptr);
    EXPECT_EQ(device->address, 0x10);
    EXPECT_EQ(local_port_of(*udp), port);

    // The port is cut to 16 bits; the second form appends the address.
    const uint16_t other = test_support::free_udp_port();
    auto serial = factory.make_net_device("udpserial://127.0.0.1:" + std::to_string(65536 + other), 0x1F);
    ASSERT_NE(dynamic_cast<NetDeviceUDPSerial*>(serial.get()), nullptr);
    EXPECT_EQ(serial->address, 0x1F);
    EXPECT_EQ(local_port_of(*dynamic_cast<NetDeviceUDP*>(serial.get())), other);
}

TEST(MakeNetDevice, UdpDestinationReceivesWhatTheDeviceSends) {
    NetDeviceFactory factory;
    test_support::UdpEndpoint far_end;
    for (const char* type : {"udp", "udpserial"}) {
        auto device = factory.make_net_device(std::string(type) +
                                              "://127.0.0.1:0:127.0.0.1:" + std::to_string(far_end.port()) + "/0x1FF");
        ASSERT_NE(device, nullptr) << type;
        EXPECT_EQ(device->address, 0xFF) << type;
        const std::vector<uint8_t> payload{1, 2, 3};
        vostrelka::net_device::Frame frame;
        frame.proto_id = 7;
        frame.src = 1;
        frame.dst = 2;
        frame.payload = vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size());
        ASSERT_EQ(device->send_raw(frame), 0) << type;
        auto datagram = far_end.receive();
        ASSERT_TRUE(datagram) << type;
        if (std::string(type) == "udp") {
            EXPECT_EQ(*datagram, (std::vector<uint8_t>{7, 1, 2, 1, 2, 3}));
        } else {
            EXPECT_EQ(datagram->front(), 0x42);  // serial framing starts with its delimiter
        }
    }
}

TEST(MakeNetDevice, SerialDeviceKeepsARecordOfItsPortEvenWhenItDidNotOpen) {
    test_support::PtyPair pty;
    ASSERT_TRUE(pty.ok());
    test_support::TempDir dir;
    const std::string missing = dir.path() + "/ttyNONE";
    NetDeviceFactory factory;

    auto present = factory.make_net_device("serial://" + pty.slave_path() + ":115200:2/0x10");
    ASSERT_NE(dynamic_cast<NetDeviceSerial*>(present.get()), nullptr);
    EXPECT_EQ(present->address, 0x10);
    std::unique_ptr<NetDevice> absent;
    const std::string output = captured([&] { absent = factory.make_net_device("serial://" + missing + ":9600", 7); });
    ASSERT_NE(absent, nullptr);
    EXPECT_NE(output.find("ERROR: open serial port: " + missing + "\n"), std::string::npos) << output;
    std::unique_ptr<NetDevice> odd_rate;
    EXPECT_NE(captured([&] {
                  odd_rate = factory.make_net_device("serial://" + pty.slave_path() + ":14400/3");
              }).find("ERROR: set serial port baudrate to 14400 and stop bits to 1\n"),
              std::string::npos);
    ASSERT_NE(odd_rate, nullptr);

    const auto& records = factory.serial_ports();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].path, pty.slave_path());
    EXPECT_EQ(records[0].baud_rate, 115200);
    EXPECT_EQ(records[0].stop_bits, 2);
    EXPECT_GE(records[0].port->get_fd(), 0);
    EXPECT_EQ(records[1].path, missing);
    EXPECT_EQ(records[1].baud_rate, 9600);
    EXPECT_EQ(records[1].stop_bits, 1);
    EXPECT_LT(records[1].port->get_fd(), 0);
    // A rate the line refuses leaves the port open for the loop to use as it is.
    EXPECT_EQ(records[2].baud_rate, 14400);
    EXPECT_GE(records[2].port->get_fd(), 0);
}

TEST(MakeNetDevice, CanDeviceThatDoesNotOpenIsDropped) {
    NetDeviceFactory factory;
    std::unique_ptr<NetDevice> device;
    const std::string output = captured([&] { device = factory.make_net_device("can://nosuchcan7", 1); });
    EXPECT_EQ(device, nullptr);
    EXPECT_NE(output.find("ERROR: failed to open CAN device: nosuchcan7\n"), std::string::npos) << output;
}

}  // namespace
