// Once a sender is known, forwarding a frame between "udpserial" interfaces
// must not touch the heap: a pass of the main loop reads the datagram,
// routes the frame and sends it with memory set up before. Real devices on
// loopback, a gate in this process at debug level 0.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device/SerialEncoder.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using test_support::AllocationCounter;
using test_support::Bytes;
using test_support::UdpEndpoint;
using vostrelka::ConstSlice;
using vostrelka::Gate;
using vostrelka::InetAddress;
using vostrelka::Slice;
using vostrelka::net_device::Frame;
using vostrelka::net_device::NetDeviceUDPSerial;
using vostrelka::net_device::SerialEncoder;
using vostrelka::net_device::SerialEncoderErrorStats;
using vostrelka::net_device::SerialEncoderHandlerI;

namespace {

constexpr unsigned long DEVICE_BUFFER_SIZE = 2048;  // as the device factory builds them
constexpr int64_t PASS_WAIT_US = 1000000;
constexpr int MEASURED_FRAMES = 50;
constexpr uint32_t NODE_MANET_ADDR = 0x0A000001;
constexpr uint32_t GATEWAY_MANET_ADDR = 0x0A000002;
constexpr uint8_t GATEWAY_LOCAL_ADDR = 0x20;

// The serial framing of one frame, as a "udpserial" datagram.
Bytes encoded(uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
    struct NoFrames : SerialEncoderHandlerI {
        void on_frame(const Frame&) override {}
    } no_frames;
    Bytes wire(2 * payload.size() + 16);
    Slice<unsigned char> tx(wire.data(), 0, wire.size());
    Slice<unsigned char> rx;
    SerialEncoder encoder(tx, rx, no_frames);
    SerialEncoderErrorStats stats;
    Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    wire.resize(encoder.encode(frame, stats));
    return wire;
}

// Interface 1 (local) takes frames from `node`; the sink is local peer 0x02
// on interface 2 and, as MANet gateway GATEWAY_MANET_ADDR, is reached through
// interface 3 (MANet).
class ForwardingAllocationTest : public ::testing::Test {
protected:
    void SetUp() override {
        gate.debug_level = 0;
        in = add_udpserial_iface(1, Gate::LOCAL);
        add_udpserial_iface(2, Gate::LOCAL);
        add_udpserial_iface(3, Gate::MANET);
        const std::optional<InetAddress> sink_address = InetAddress::from(sink.address());
        ASSERT_TRUE(sink_address);
        test_support::log_lines_of([&] {
            gate.add_local_peer(bench.iface(2), 0x02, sink_address);
            gate.add_manet_peer(bench.iface(3), GATEWAY_MANET_ADDR, GATEWAY_LOCAL_ADDR, nullptr, sink_address);
        });
    }

    std::shared_ptr<NetDeviceUDPSerial> add_udpserial_iface(uint32_t id, uint8_t type) {
        auto device = std::make_shared<NetDeviceUDPSerial>(DEVICE_BUFFER_SIZE, 0xFF);
        EXPECT_TRUE(device->create_socket(InetAddress::from("127.0.0.1:0").value()));
        bench.add_iface(id, type, device);
        EXPECT_TRUE(gate.event_loop_entries.push_back(device.get()));
        return device;
    }

    // Sends `datagram` to interface 1 and runs one pass of the loop over it;
    // returns the allocations made by that pass.
    uint64_t forward(const Bytes& datagram) {
        EXPECT_TRUE(node.send_to(test_support::bound_port_of(in->get_socket()), datagram));
        EXPECT_TRUE(test_support::wait_readable(in->get_socket()));
        AllocationCounter counter;
        gate.run_once(PASS_WAIT_US);
        return counter.stop();
    }

    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<NetDeviceUDPSerial> in;
    UdpEndpoint node;
    UdpEndpoint sink;
};

struct Case {
    const char* name;
    uint8_t proto_id;
    uint8_t dst;
    Bytes payload;
    uint8_t dst_at_sink;
};

Bytes manet_packet() {
    return test_support::manet_payload(NODE_MANET_ADDR, GATEWAY_MANET_ADDR, Bytes(40, 0x42));
}

}  // namespace

TEST_F(ForwardingAllocationTest, ForwardsEveryKindOfFrameWithoutTouchingTheHeap) {
    const Case cases[] = {
        {"local unicast", 7, 0x02, Bytes{0x42, 0x55, 1, 2, 3}, 0x02},
        {"local broadcast", 7, 0xFF, Bytes(200, 0x55), 0xFF},
        {"MANet packet to the MANet interface", Gate::MANET_PROTO_ID, GATEWAY_LOCAL_ADDR, manet_packet(),
         GATEWAY_LOCAL_ADDR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes datagram = encoded(c.proto_id, 0x01, c.dst, c.payload);
        const Bytes expected = encoded(c.proto_id, 0x01, c.dst_at_sink, c.payload);

        // The first frame teaches the gate where 0x01 (and the node) lives.
        test_support::log_lines_of([&] { forward(datagram); });
        ASSERT_EQ(sink.receive(), expected);

        for (int i = 0; i < MEASURED_FRAMES; ++i) {
            ASSERT_EQ(forward(datagram), 0u) << "frame " << i;
            ASSERT_EQ(sink.receive(), expected) << "frame " << i;
        }
    }
}

TEST_F(ForwardingAllocationTest, CounterSeesThePeerTableGrowInsideAPass) {
    // Learning a new sender adds a node to the peer table: proof that the
    // counter watches the pass at all.
    uint64_t counted = 0;
    const auto lines = test_support::log_lines_of([&] { counted = forward(encoded(7, 0x01, 0x02, Bytes{1, 2})); });
    EXPECT_EQ(lines.size(), 1u);
    EXPECT_GT(counted, 0u);
    EXPECT_EQ(gate.local_peers.count(0x01), 1u);
}
