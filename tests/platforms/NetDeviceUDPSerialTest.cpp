#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace test_support;
using vostrelka::InetAddress;
using vostrelka::event_system::EVENT_READABLE;
using vostrelka::net_device::NetDeviceUDPSerial;

namespace {

constexpr unsigned long BUFFER_SIZE = 2048;
constexpr uint8_t DEVICE_ADDRESS = 0x02;

// proto 8, 1 -> 2, payload 3E 42 55, in serial framing.
const Bytes SMALL_PAYLOAD = {0x3E, 0x42, 0x55};
const Bytes SMALL_WIRE = {0x42, 0x73, 0x7D, 0x55, 0xBD, 0xB4, 0x08, 0x01, 0x02, 0x3E, 0x55, 0xBD, 0x55, 0xAA, 0x42};
const RecordedFrame SMALL_FRAME = {0x08, 0x01, 0x02, SMALL_PAYLOAD};

InetAddress inet(const std::string& text) {
    return InetAddress::from(text).value();
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

struct UdpSerialDeviceTest : ::testing::Test {
    void SetUp() override { open(DEVICE_ADDRESS); }

    void open(uint8_t address) {
        device = std::make_unique<NetDeviceUDPSerial>(BUFFER_SIZE, address);
        ASSERT_TRUE(device->create_socket(inet("127.0.0.1:0")));
        device_port = bound_port_of(device->get_socket());
        device->set_destination_address(inet(peer.address()));
        device->set_handler(&handler);
    }

    // Sends datagrams from the peer and lets the device read each one.
    void feed(std::initializer_list<Bytes> datagrams) {
        for (const Bytes& datagram : datagrams) {
            ASSERT_TRUE(peer.send_to(device_port, datagram));
            ASSERT_TRUE(wait_readable(device->get_socket()));
            device->on_event(EVENT_READABLE);
        }
    }

    // What the device puts on the wire for `frame`, as seen by the peer.
    Bytes encoded(uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
        EXPECT_EQ(device->send_raw(make_frame(proto_id, src, dst, payload)), 0);
        return peer.receive().value_or(Bytes{});
    }

    UdpEndpoint peer;
    FrameRecorder handler;
    std::unique_ptr<NetDeviceUDPSerial> device;
    uint16_t device_port = 0;
};

}  // namespace

TEST_F(UdpSerialDeviceTest, SendsOneEncodedFramePerDatagram) {
    EXPECT_EQ(encoded(0x08, 0x01, 0x02, SMALL_PAYLOAD), SMALL_WIRE);
    EXPECT_EQ(encoded(1, 2, 3, {}), (Bytes{0x42, 0x51, 0x69, 0x0D, 0x1B, 0x01, 0x02, 0x03, 0x42}));
}

TEST_F(UdpSerialDeviceTest, DecodesFrameSplitAcrossDatagrams) {
    for (size_t split = 1; split < SMALL_WIRE.size(); ++split) {
        handler.frames.clear();
        feed({Bytes(SMALL_WIRE.begin(), SMALL_WIRE.begin() + split),
              Bytes(SMALL_WIRE.begin() + split, SMALL_WIRE.end())});
        ASSERT_EQ(handler.frames.size(), 1u) << "split at " << split;
        EXPECT_EQ(handler.frames[0], SMALL_FRAME);
        EXPECT_EQ(handler.last_device, device.get());
    }
    EXPECT_EQ(device->get_error_stats().crc_errors + device->get_error_stats().short_messages, 0u);
}

TEST_F(UdpSerialDeviceTest, DecodesEveryFrameOfOneDatagram) {
    const Bytes empty = encoded(9, 1, 0xFF, {});
    feed({concat({SMALL_WIRE, empty, SMALL_WIRE})});
    ASSERT_EQ(handler.frames.size(), 3u);
    EXPECT_EQ(handler.frames[0], SMALL_FRAME);
    EXPECT_EQ(handler.frames[1], (RecordedFrame{9, 1, 0xFF, {}}));
    EXPECT_EQ(handler.frames[2], SMALL_FRAME);
}

TEST_F(UdpSerialDeviceTest, FitsAFullyEscapedFrameOfHalfItsSendBuffer) {
    const Bytes fits(2040, 0x42);
    const Bytes wire = encoded(1, 2, 3, fits);
    EXPECT_GE(wire.size(), 2 * fits.size() + 9);

    const Bytes too_long(BUFFER_SIZE, 0x42);
    testing::internal::CaptureStdout();
    EXPECT_EQ(device->send_raw(make_frame(1, 2, 3, too_long)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "NetDeviceUDPSerial: ERROR: encoding frame, payload_size=2048, buffer+size=4099\n");
    EXPECT_EQ(device->get_error_stats().encode_errors, 1u);
    EXPECT_FALSE(peer.receive(100).has_value());
}

TEST_F(UdpSerialDeviceTest, ReceivesPayloadsUpTo2040Bytes) {
    const Bytes largest = encoded(1, 2, DEVICE_ADDRESS, Bytes(2040, 0x42));
    const Bytes too_long = encoded(1, 2, DEVICE_ADDRESS, Bytes(2041, 0x01));
    feed({largest, too_long});
    ASSERT_EQ(handler.frames.size(), 1u);
    EXPECT_EQ(handler.frames[0].payload, Bytes(2040, 0x42));
    EXPECT_EQ(device->get_error_stats().rx_overflows, 1u);
}

TEST_F(UdpSerialDeviceTest, DeliversOnlyFramesForItsAddressOrBroadcast) {
    struct Case {
        uint8_t device_address, dst;
        bool delivered;
    };
    for (const Case& c : {Case{0x10, 0xFF, true}, Case{0x10, 0x11, false}, Case{0xFF, 0x11, true}}) {
        open(c.device_address);
        handler.frames.clear();
        feed({encoded(1, 2, c.dst, {9})});
        EXPECT_EQ(handler.frames.size(), c.delivered ? 1u : 0u)
            << "device " << int(c.device_address) << ", dst " << int(c.dst);
    }
}

TEST_F(UdpSerialDeviceTest, TakesTheSenderSocketAddressOfEachDatagram) {
    UdpEndpoint other;
    for (UdpEndpoint* sender : {&peer, &other}) {
        ASSERT_TRUE(sender->send_to(device_port, SMALL_WIRE));
        ASSERT_TRUE(wait_readable(device->get_socket()));
        device->on_event(EVENT_READABLE);
        const sockaddr_in& from = device->get_sender_inet_addr().addr;
        EXPECT_EQ(from.sin_family, AF_INET);
        EXPECT_EQ(from.sin_port, htons(sender->port()));
        EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    }
    EXPECT_EQ(handler.frames.size(), 2u);
}

TEST_F(UdpSerialDeviceTest, LogsAFailedSendWithTheEncodedSize) {
    NetDeviceUDPSerial unaddressed(BUFFER_SIZE, DEVICE_ADDRESS);
    ASSERT_TRUE(unaddressed.create_socket(inet("127.0.0.1:0")));
    testing::internal::CaptureStdout();
    EXPECT_EQ(unaddressed.send_raw(make_frame(0x08, 0x01, 0x02, SMALL_PAYLOAD)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "NetDeviceUDPSerial: ERROR: sendto, size=15, sent=15\n");
}
