#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace test_support;
using vostrelka::InetAddress;
using vostrelka::event_system::EVENT_READABLE;
using vostrelka::net_device::NetDeviceUDP;
using vostrelka::net_device::NetDeviceUDPSerial;

namespace {

constexpr unsigned long BUFFER_SIZE = 2048;
constexpr uint8_t DEVICE_ADDRESS = 0x10;

InetAddress inet(const std::string& text) {
    return InetAddress::from(text).value();
}

// A "udp" device on an ephemeral loopback port, sending to `peer`.
struct UdpDeviceTest : ::testing::Test {
    void SetUp() override { open(DEVICE_ADDRESS); }

    void open(uint8_t address) {
        device = std::make_unique<NetDeviceUDP>(BUFFER_SIZE, address);
        ASSERT_TRUE(device->create_socket(inet("127.0.0.1:0")));
        device_port = bound_port_of(device->get_socket());
        device->set_destination_address(inet(peer.address()));
        device->set_handler(&handler);
    }

    // Waits for one datagram and lets the device read it, as the main loop would.
    void read_one() {
        ASSERT_TRUE(wait_readable(device->get_socket()));
        device->on_event(EVENT_READABLE);
    }

    UdpEndpoint peer;
    FrameRecorder handler;
    std::unique_ptr<NetDeviceUDP> device;
    uint16_t device_port = 0;
};

}  // namespace

TEST_F(UdpDeviceTest, SendsHeaderThenPayloadToTheDestination) {
    const Bytes payload = {0xAA, 0x42, 0x00};
    EXPECT_EQ(device->send_raw(make_frame(7, 1, 2, payload)), 0);
    EXPECT_EQ(peer.receive(), (Bytes{7, 1, 2, 0xAA, 0x42, 0x00}));
    EXPECT_EQ(peer.last_sender_port(), device_port);

    // An empty payload goes out as the header alone.
    EXPECT_EQ(device->send_raw(make_frame(7, 1, 2, {})), 0);
    EXPECT_EQ(peer.receive(), (Bytes{7, 1, 2}));
}

TEST_F(UdpDeviceTest, DeliversDatagramAsFrameFromThisDevice) {
    ASSERT_TRUE(peer.send_to(device_port, {5, 9, DEVICE_ADDRESS, 1, 2, 3}));
    read_one();
    ASSERT_EQ(handler.frames.size(), 1u);
    EXPECT_EQ(handler.frames[0], (RecordedFrame{5, 9, DEVICE_ADDRESS, {1, 2, 3}}));
    EXPECT_EQ(handler.last_device, device.get());
}

TEST_F(UdpDeviceTest, NeedsAPayloadByteToDeliver) {
    for (const Bytes& datagram : {Bytes{}, Bytes{5}, Bytes{5, 9, DEVICE_ADDRESS}}) {
        ASSERT_TRUE(peer.send_to(device_port, datagram));
        read_one();
    }
    EXPECT_TRUE(handler.frames.empty());

    ASSERT_TRUE(peer.send_to(device_port, {5, 9, DEVICE_ADDRESS, 0x42}));
    read_one();
    ASSERT_EQ(handler.frames.size(), 1u);
    EXPECT_EQ(handler.frames[0], (RecordedFrame{5, 9, DEVICE_ADDRESS, {0x42}}));
}

TEST_F(UdpDeviceTest, SendsPayloadUpToBufferSizeAndRefusesLongerSilently) {
    const Bytes largest(BUFFER_SIZE, 0x33);
    const Bytes too_long(BUFFER_SIZE + 1, 0x33);

    testing::internal::CaptureStdout();
    EXPECT_EQ(device->send_raw(make_frame(1, 2, 3, largest)), 0);
    EXPECT_EQ(device->send_raw(make_frame(1, 2, 3, too_long)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    const auto datagram = peer.receive();
    ASSERT_TRUE(datagram.has_value());
    EXPECT_EQ(datagram->size(), BUFFER_SIZE + 3);
    EXPECT_FALSE(peer.receive(100).has_value());
}

TEST_F(UdpDeviceTest, RemembersTheSenderOfTheLastDatagram) {
    EXPECT_EQ(device->get_sender_inet_addr().to_s(), ":");

    // Back and forth, and twice in a row: each datagram names its own sender.
    UdpEndpoint other;
    for (UdpEndpoint* sender : {&peer, &other, &other, &peer}) {
        ASSERT_TRUE(sender->send_to(device_port, {1, 2, DEVICE_ADDRESS, 4}));
        read_one();
        const InetAddress& from = device->get_sender_inet_addr();
        EXPECT_EQ(from.to_s(), sender->address());
        EXPECT_EQ(from.addr.sin_port, htons(sender->port()));
        EXPECT_EQ(from.port, sender->port());
    }
    // Learning a sender does not redirect what the device sends.
    ASSERT_EQ(device->send_raw(make_frame(1, 2, 3, {4})), 0);
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(UdpDeviceTest, DeliversOnlyFramesForItsAddressOrBroadcast) {
    struct Case {
        uint8_t device_address, dst;
        bool delivered;
    };
    for (const Case& c : {Case{0x10, 0x10, true}, Case{0x10, 0xFF, true}, Case{0x10, 0x11, false},
                          Case{0xFF, 0x11, true}, Case{0xFF, 0x00, true}}) {
        open(c.device_address);
        handler.frames.clear();
        ASSERT_TRUE(peer.send_to(device_port, {1, 2, c.dst, 9}));
        read_one();
        EXPECT_EQ(handler.frames.size(), c.delivered ? 1u : 0u)
            << "device " << int(c.device_address) << ", dst " << int(c.dst);
    }
}

TEST(UdpDeviceSocketFailure, LogsTheBindErrorAndRefusesToSend) {
    UdpEndpoint holder;
    const std::string address = holder.address();
    NetDeviceUDP udp(BUFFER_SIZE, DEVICE_ADDRESS);
    NetDeviceUDPSerial udpserial(BUFFER_SIZE, DEVICE_ADDRESS);

    testing::internal::CaptureStdout();
    EXPECT_FALSE(udp.create_socket(inet(address)));
    EXPECT_FALSE(udpserial.create_socket(inet(address)));
    const std::string expected = "NetDeviceUDP: ERROR binding to " + address + ": Address already in use\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + expected);

    const Bytes payload = {1};
    for (NetDeviceUDP* device : {static_cast<NetDeviceUDP*>(&udp), static_cast<NetDeviceUDP*>(&udpserial)}) {
        device->set_destination_address(inet(holder.address()));
        EXPECT_EQ(device->send_raw(make_frame(1, 2, 3, payload)), -1);
        fd_set watched, none;
        FD_ZERO(&watched);
        FD_ZERO(&none);
        device->register_fd(&watched, &watched, &watched);
        EXPECT_EQ(std::memcmp(&watched, &none, sizeof(fd_set)), 0);
    }
    EXPECT_FALSE(holder.receive(100).has_value());
}

TEST(UdpDeviceSocketFailure, UnopenedOrUnaddressedDeviceRefusesToSend) {
    const Bytes payload = {1};
    NetDeviceUDP udp(BUFFER_SIZE, DEVICE_ADDRESS);
    EXPECT_EQ(udp.get_socket(), -1);
    EXPECT_EQ(udp.send_raw(make_frame(1, 2, 3, payload)), -1);

    ASSERT_TRUE(udp.create_socket(inet("127.0.0.1:0")));
    testing::internal::CaptureStdout();
    EXPECT_EQ(udp.send_raw(make_frame(1, 2, 3, payload)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
