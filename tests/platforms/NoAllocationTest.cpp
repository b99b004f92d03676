// The data paths must not touch the heap once a device is built. This binary
// replaces the global allocation functions with counting ones; only
// allocations made inside a measured region are counted.
#include <gtest/gtest.h>

#include "support/AllocationCounter.h"
#include "support/UdpEndpoint.h"
#include "support/can_test_device.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device/CanEncoder.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace vostrelka::net_device;
using test_support::AllocationCounter;
using test_support::Bytes;
using vostrelka::InetAddress;

namespace {

// Sums payload sizes instead of copying, so that delivery allocates nothing.
struct Counting : NetDeviceMessageHandlerI {
    void on_frame(NetDevice&, const Frame& frame) override { bytes += frame.payload.size; }
    uint64_t bytes = 0;
};

const Bytes PAYLOAD(CAN_MAX_PAYLOAD_BYTES, 0x42);

Frame frame_of(size_t size) {
    Frame frame;
    frame.proto_id = 10;
    frame.src = 0x10;
    frame.dst = 0xFF;
    frame.payload = vostrelka::ConstSlice<unsigned char>(PAYLOAD.data(), size);
    return frame;
}

}  // namespace

// Through the serial framing codec both ways.
TEST(NoAllocation, UdpSerialDeviceSendsAndReceivesInPlace) {
    NetDeviceUDPSerial sender(2048, 0x01), receiver(2048, 0x02);
    ASSERT_TRUE(sender.create_socket(InetAddress::from("127.0.0.1:0").value()));
    ASSERT_TRUE(receiver.create_socket(InetAddress::from("127.0.0.1:0").value()));
    const uint16_t port = test_support::bound_port_of(receiver.get_socket());
    sender.set_destination_address(InetAddress::from("127.0.0.1:" + std::to_string(port)).value());
    Counting handler;
    receiver.set_handler(&handler);
    // Two rounds: the first may warm up anything lazily set up by the system.
    for (int round = 0; round < 2; ++round) {
        AllocationCounter counter;
        const int sent = sender.send_raw(frame_of(1000));
        const bool arrived = test_support::wait_readable(receiver.get_socket());
        receiver.on_event(vostrelka::event_system::EVENT_READABLE);
        const uint64_t counted = counter.stop();
        EXPECT_EQ(sent, 0);
        EXPECT_TRUE(arrived);
        EXPECT_EQ(counted * round, 0u);
    }
    EXPECT_EQ(handler.bytes, 2000u);
}

TEST(NoAllocation, CanDeviceSendsAndReceivesInPlace) {
    test_support::CanTestDevice<16, 2048, 512> sender(0x10), receiver(0x20);
    Counting handler;
    receiver.set_handler(&handler);
    sender.written.reserve(4096);
    sender.write_calls.reserve(4096);
    int refused = 0;
    AllocationCounter counter;
    for (size_t size : {size_t{0}, size_t{8}, size_t{9}, size_t{20}, PAYLOAD.size()})
        refused += sender.send_raw(frame_of(size));
    for (const CanFrame& f : sender.written) receiver.handle_can_frame(f);
    EXPECT_EQ(counter.stop(), 0u);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(handler.bytes, 37u + PAYLOAD.size());
}
