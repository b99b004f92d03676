#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace test_support;
using vostrelka::InetAddress;
using vostrelka::net_device::NetDeviceUDP;
using vostrelka::net_device::NetDeviceUDPSerial;
using Frames = std::vector<RecordedFrame>;

namespace {

// proto 8, 1 -> 2, payload 3E 42 55, in serial framing.
const Bytes SMALL_PAYLOAD = {0x3E, 0x42, 0x55};
const Bytes SMALL_WIRE = {0x42, 0x73, 0x7D, 0x55, 0xBD, 0xB4, 0x08, 0x01, 0x02, 0x3E, 0x55, 0xBD, 0x55, 0xAA, 0x42};

InetAddress inet(const std::string& text) {
    return InetAddress::from(text).value();
}

std::string output_of(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

// A device of address 2 with a 2048-byte buffer on a loopback port, sending to `peer`.
template <typename Device>
struct Link {
    Link() {
        EXPECT_TRUE(device.create_socket(inet("127.0.0.1:0")));
        device.set_destination_address(inet(peer.address()));
        device.set_handler(&handler);
    }
    // Sends each datagram and lets the device read it, as the main loop would.
    void feed(std::initializer_list<Bytes> datagrams, UdpEndpoint* from = nullptr) {
        for (const Bytes& datagram : datagrams) {
            ASSERT_TRUE((from ? *from : peer).send_to(bound_port_of(device.get_socket()), datagram));
            ASSERT_TRUE(wait_readable(device.get_socket()));
            device.on_event(vostrelka::event_system::EVENT_READABLE);
        }
    }
    UdpEndpoint peer;
    FrameRecorder handler;
    Device device{2048, 2};
};

}  // namespace

TEST(NetDeviceUDP, SendsHeaderThenPayloadUpToTheBufferSizeAndRefusesTheRestSilently) {
    Link<NetDeviceUDP> link;
    EXPECT_EQ(link.device.send_raw(make_frame(7, 1, 2, {})), 0);
    EXPECT_EQ(link.peer.receive(), (Bytes{7, 1, 2}));
    // Refused silently: too long, no socket, no destination.
    NetDeviceUDP closed(2048, 2), unaddressed(2048, 2);
    ASSERT_TRUE(unaddressed.create_socket(inet("127.0.0.1:0")));
    EXPECT_EQ(output_of([&] {
                  EXPECT_EQ(link.device.send_raw(make_frame(1, 2, 3, Bytes(2048, 0x33))), 0);
                  EXPECT_EQ(link.device.send_raw(make_frame(1, 2, 3, Bytes(2049, 0x33))), -1);
                  EXPECT_EQ(closed.send_raw(make_frame(1, 2, 3, {1})), -1);
                  EXPECT_EQ(unaddressed.send_raw(make_frame(1, 2, 3, {1})), -1);
              }),
              "");
    EXPECT_EQ(link.peer.receive().value_or(Bytes{}).size(), 2051u);
    // Pointed elsewhere by other text, it follows.
    UdpEndpoint other;
    link.device.set_destination_address(inet("127.1:" + std::to_string(other.port())));
    ASSERT_EQ(link.device.send_raw(make_frame(7, 1, 2, {3})), 0);
    EXPECT_EQ(other.receive(), (Bytes{7, 1, 2, 3}));
    EXPECT_FALSE(link.peer.receive(100).has_value());
}

// A datagram of the header alone cannot be received, though one is sent.
TEST(NetDeviceUDP, DeliversDatagramsWithAPayloadAndRemembersTheSender) {
    Link<NetDeviceUDP> link;
    EXPECT_EQ(link.device.get_sender_inet_addr().to_s(), ":");
    link.feed({{}, {5}, {5, 9, 2}, {5, 9, 0x11, 1}, {5, 9, 2, 0x42}, {5, 9, 0xFF, 1, 2}});
    EXPECT_EQ(link.handler.frames, (Frames{{5, 9, 2, {0x42}}, {5, 9, 0xFF, {1, 2}}}));
    EXPECT_EQ(link.handler.last_device, &link.device);
    UdpEndpoint other;
    link.feed({{1, 2, 2, 4}}, &other);
    EXPECT_EQ(link.device.get_sender_inet_addr().to_s(), other.address());
}

// What reaches the handler, with the device's sender text as it stood for
// each frame.
struct SenderRecorder : FrameRecorder {
    void on_frame(vostrelka::net_device::NetDevice& device, const NetFrame& frame) override {
        FrameRecorder::on_frame(device, frame);
        senders.push_back(static_cast<NetDeviceUDP&>(device).get_sender_inet_addr().to_s());
    }
    std::vector<std::string> senders;
};

// Datagrams waiting together are taken in one readable event, up to
// READ_BATCH of them, and come out as if read one by one: in arrival order,
// each with its own sender, the too long and the header-only ones dropped
// in their places. The rest waits for the next event.
template <typename Device>
void expect_batch_read_in_arrival_order(const std::function<Bytes(const RecordedFrame&)>& wire, size_t too_long,
                                        const Bytes& no_frame) {
    Link<Device> link;
    SenderRecorder recorder;
    link.device.set_handler(&recorder);
    UdpEndpoint other;
    const unsigned count = Device::READ_BATCH + 4;
    Frames sent;
    std::vector<std::string> senders;
    for (unsigned i = 0; i < count; ++i) {
        UdpEndpoint& from = i % 3 == 0 ? other : link.peer;
        Bytes datagram;
        if (i == 5) {
            datagram = Bytes(too_long, 0x42);
        } else if (i == 9) {
            datagram = no_frame;
        } else {
            sent.push_back({7, static_cast<uint8_t>(i), 2, {static_cast<uint8_t>(i), 0x42, 0x55}});
            senders.push_back(from.address());
            datagram = wire(sent.back());
        }
        ASSERT_TRUE(from.send_to(bound_port_of(link.device.get_socket()), datagram));
    }
    ASSERT_TRUE(wait_readable(link.device.get_socket()));
    const std::string output = output_of([&] { link.device.on_event(vostrelka::event_system::EVENT_READABLE); });
    EXPECT_EQ(output, "WARNING: dropped 1 datagram(s) longer than the " + std::to_string(too_long - 1) +
                          "-byte receive buffer, the last of " + std::to_string(too_long) + " bytes from " +
                          link.peer.address() + "\n");
    const size_t first_batch = Device::READ_BATCH - 2;  // two of the batch carry no frame
    ASSERT_EQ(recorder.frames, Frames(sent.begin(), sent.begin() + first_batch));
    EXPECT_EQ(recorder.senders, std::vector<std::string>(senders.begin(), senders.begin() + first_batch));
    ASSERT_TRUE(wait_readable(link.device.get_socket()));
    link.device.on_event(vostrelka::event_system::EVENT_READABLE);
    EXPECT_EQ(recorder.frames, sent);
    EXPECT_EQ(recorder.senders, senders);
    EXPECT_EQ(link.device.counters().drops.truncated, 1u);
}

TEST(NetDeviceUDP, TakesWaitingDatagramsInBatchesInArrivalOrderEachWithItsSender) {
    auto datagram = [](const RecordedFrame& frame) {
        Bytes bytes{frame.proto_id, frame.src, frame.dst};
        bytes.insert(bytes.end(), frame.payload.begin(), frame.payload.end());
        return bytes;
    };
    expect_batch_read_in_arrival_order<NetDeviceUDP>(datagram, 2052, {9, 1, 2});
    expect_batch_read_in_arrival_order<NetDeviceUDPSerial>(to_serial_bytes, 4100, {});
}

TEST(NetDeviceUDPSerial, SendsOneEncodedFramePerDatagramWhileItFits) {
    Link<NetDeviceUDPSerial> link;
    ASSERT_EQ(link.device.send_raw(make_frame(8, 1, 2, SMALL_PAYLOAD)), 0);
    EXPECT_EQ(link.peer.receive(), SMALL_WIRE);
    ASSERT_EQ(link.device.send_raw(make_frame(1, 2, 3, Bytes(2040, 0x42))), 0);
    EXPECT_GE(link.peer.receive().value_or(Bytes{}).size(), 2 * 2040u + 9);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(link.device.send_raw(make_frame(1, 2, 3, Bytes(2048, 0x42))), -1); }),
              "NetDeviceUDPSerial: ERROR: encoding frame, payload_size=2048, buffer+size=4099\n");
    EXPECT_EQ(link.device.counters().serial.encode_errors, 1u);

    NetDeviceUDPSerial unaddressed(2048, 2);
    ASSERT_TRUE(unaddressed.create_socket(inet("127.0.0.1:0")));
    EXPECT_EQ(output_of([&] { EXPECT_EQ(unaddressed.send_raw(make_frame(8, 1, 2, SMALL_PAYLOAD)), -1); }),
              "NetDeviceUDPSerial: ERROR: sendto, size=15, sent=15\n");
}

TEST(NetDeviceUDPSerial, DecodesFramesSplitAcrossOrPackedIntoDatagramsUpTo2040BytesAndTakesTheSender) {
    Link<NetDeviceUDPSerial> link;
    UdpEndpoint other;
    // The first datagram ends inside an escaped CRC byte.
    link.feed({Bytes(SMALL_WIRE.begin(), SMALL_WIRE.begin() + 4), Bytes(SMALL_WIRE.begin() + 4, SMALL_WIRE.end())});
    Bytes packed = SMALL_WIRE;
    for (const Bytes& part : {to_serial_bytes({9, 1, 0x11, {}}), to_serial_bytes({9, 1, 0xFF, {}}), SMALL_WIRE})
        packed.insert(packed.end(), part.begin(), part.end());
    link.feed({packed, to_serial_bytes({1, 2, 2, Bytes(2040, 0x42)})});
    link.feed({to_serial_bytes({1, 2, 2, Bytes(2041, 0x01)})}, &other);
    const RecordedFrame small = {8, 1, 2, SMALL_PAYLOAD};
    EXPECT_EQ(link.handler.frames, (Frames{small, small, {9, 1, 0xFF, {}}, small, {1, 2, 2, Bytes(2040, 0x42)}}));
    EXPECT_EQ(link.device.counters().serial.rx_overflows, 1u);
    EXPECT_EQ(link.device.get_sender_inet_addr().addr.sin_port, htons(other.port()));
}

// A datagram longer than the receive buffer (2051 bytes on "udp", 4099 on
// "udpserial") is never cut and delivered: it is counted and dropped whole,
// with a summary line at most once per period whoever sends them. The next
// datagram that fits goes through, and the sender's text is current.
TEST(NetDeviceUDP, DatagramsLongerThanTheBufferAreDroppedAndSummarisedNotCut) {
    Link<NetDeviceUDP> udp;
    Link<NetDeviceUDPSerial> udpserial;
    const std::string from = udp.peer.address();
    Bytes fits(2051, 0x42), too_long(2052, 0x42);
    fits[0] = 7, fits[1] = 1, fits[2] = 2, too_long[0] = 7, too_long[1] = 1, too_long[2] = 2;
    EXPECT_EQ(output_of([&] {
                  udp.feed({too_long, too_long, fits});
              }),
              "WARNING: dropped 1 datagram(s) longer than the 2051-byte receive buffer, the last of 2052 bytes from " +
                  from + "\n");
    EXPECT_EQ(udp.handler.frames, (Frames{{7, 1, 2, Bytes(2048, 0x42)}}));
    EXPECT_EQ(udp.device.counters().drops.truncated, 2u);

    const Bytes framed = to_serial_bytes({8, 1, 2, SMALL_PAYLOAD});
    Bytes stream(4100, 0x42);
    std::copy(framed.begin(), framed.end(), stream.begin());
    EXPECT_EQ(output_of([&] {
                  udpserial.feed({stream, SMALL_WIRE});
              }),
              "WARNING: dropped 1 datagram(s) longer than the 4099-byte receive buffer, the last of 4100 bytes from " +
                  udpserial.peer.address() + "\n");
    EXPECT_EQ(udpserial.handler.frames, (Frames{{8, 1, 2, SMALL_PAYLOAD}}));
    EXPECT_EQ(udpserial.device.counters().drops.truncated, 1u);
    EXPECT_EQ(udpserial.device.get_sender_inet_addr().to_s(), udpserial.peer.address());
}

// Our own sockets share an address by design (SO_REUSEPORT); a socket that
// was there first, ours or anyone's, is named once. Port 0 never is.
TEST(NetDeviceUDP, BindingAnAddressAnotherSocketHoldsSaysSoOnceAndStillBinds) {
    const std::string address = "127.0.0.1:" + std::to_string(free_udp_port());
    NetDeviceUDP first(2048, 2), second(2048, 2), any_port(2048, 2);
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(first.create_socket(inet(address))); }), "");
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(second.create_socket(inet(address))); }),
              "WARNING: " + address + " is already bound by another socket; the two will share its datagrams\n");
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(any_port.create_socket(inet("127.0.0.1:0"))); }), "");
}
