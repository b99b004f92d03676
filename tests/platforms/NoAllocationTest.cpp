// The data path must not touch the heap once a device is built. This binary
// replaces the global allocation functions with counting ones; only
// allocations made inside a measured region are counted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device/SerialEncoder.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using test_support::AllocationCounter;
using test_support::Bytes;
using vostrelka::ConstSlice;
using vostrelka::InetAddress;
using vostrelka::Slice;
using vostrelka::net_device::Frame;
using vostrelka::net_device::NetDevice;
using vostrelka::net_device::NetDeviceMessageHandlerI;
using vostrelka::net_device::NetDeviceUDPSerial;
using vostrelka::net_device::SerialEncoder;
using vostrelka::net_device::SerialEncoderErrorStats;
using vostrelka::net_device::SerialEncoderHandlerI;

namespace {

struct CountingCodecHandler : SerialEncoderHandlerI {
    void on_frame(const Frame& frame) override { payload_bytes += frame.payload.size; }
    uint64_t payload_bytes = 0;
};

struct CountingDeviceHandler : NetDeviceMessageHandlerI {
    void on_frame(NetDevice&, const Frame& frame) override { payload_bytes += frame.payload.size; }
    uint64_t payload_bytes = 0;
};

Frame frame_over(const Bytes& payload) {
    Frame frame;
    frame.proto_id = 10;
    frame.src = 1;
    frame.dst = 0xFF;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

}  // namespace

TEST(NoAllocation, CounterSeesAllocations) {
    AllocationCounter counter;
    auto* probe = new std::vector<int>(10);
    const uint64_t counted = counter.stop();
    delete probe;
    EXPECT_EQ(counted, 2u);
}

TEST(NoAllocation, CodecEncodesAndDecodesInPlace) {
    Bytes tx_storage(4096), rx_storage(2048);
    Slice<unsigned char> tx(tx_storage.data(), 0, tx_storage.size());
    Slice<unsigned char> rx(rx_storage.data(), 0, rx_storage.size());
    CountingCodecHandler handler;
    SerialEncoder encoder(tx, rx, handler);
    SerialEncoderErrorStats stats;
    Bytes payload(1500);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    const Frame frame = frame_over(payload);

    AllocationCounter counter;
    const uint64_t encoded = encoder.encode(frame, stats);
    const uint64_t decoded = encoder.decode(ConstSlice<unsigned char>(tx), stats);
    const uint64_t counted = counter.stop();

    EXPECT_EQ(counted, 0u);
    EXPECT_GT(encoded, payload.size());
    EXPECT_EQ(decoded, 1u);
    EXPECT_EQ(handler.payload_bytes, payload.size());
}

TEST(NoAllocation, UdpSerialDeviceSendsAndReceivesInPlace) {
    NetDeviceUDPSerial sender(2048, 0x01), receiver(2048, 0x02);
    ASSERT_TRUE(sender.create_socket(InetAddress::from("127.0.0.1:0").value()));
    ASSERT_TRUE(receiver.create_socket(InetAddress::from("127.0.0.1:0").value()));
    const uint16_t receiver_port = test_support::bound_port_of(receiver.get_socket());
    sender.set_destination_address(InetAddress::from("127.0.0.1:" + std::to_string(receiver_port)).value());
    CountingDeviceHandler handler;
    receiver.set_handler(&handler);
    Bytes payload(1000, 0x42);
    const Frame frame = frame_over(payload);

    // Two rounds: the first may warm up anything lazily set up by the system.
    int sent = 0;
    bool arrived = false;
    uint64_t counted = 0;
    for (int round = 0; round < 2; ++round) {
        AllocationCounter counter;
        sent = sender.send_raw(frame);
        arrived = test_support::wait_readable(receiver.get_socket());
        receiver.on_event(vostrelka::event_system::EVENT_READABLE);
        counted = counter.stop();
    }

    EXPECT_EQ(counted, 0u);
    EXPECT_EQ(sent, 0);
    EXPECT_TRUE(arrived);
    EXPECT_EQ(handler.payload_bytes, 2 * payload.size());
}
