// Once a sender is known, forwarding a frame between "udpserial" interfaces
// must not touch the heap: a pass of the main loop reads the datagram,
// routes the frame and sends it with memory set up before. Real devices on
// loopback, a gate in this process at debug level 0.
#include <gtest/gtest.h>

#include "support/AllocationCounter.h"
#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace test_support;
using vostrelka::Gate;
using vostrelka::InetAddress;

namespace {

constexpr int MEASURED_FRAMES = 50;
constexpr uint32_t GATEWAY_MANET_ADDR = 0x0A000002;
constexpr uint8_t GATEWAY_LOCAL_ADDR = 0x20;

// Interface 1 (local) takes frames from `node`; the sink is local peer 0x02
// on interface 2 and, as MANet gateway GATEWAY_MANET_ADDR, is reached through
// interface 3 (MANet).
class ForwardingAllocationTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (uint32_t id : {1, 2, 3}) {
            // Buffers as the device factory builds them.
            auto device = std::make_shared<vostrelka::net_device::NetDeviceUDPSerial>(2048, 0xFF);
            ASSERT_TRUE(device->create_socket(*InetAddress::from("127.0.0.1:0")));
            bench.add_iface(id, id == 3 ? Gate::MANET : Gate::LOCAL, device);
            ASSERT_TRUE(gate.event_loop_entries.push_back(device.get()));
            if (id == 1) in_socket = device->get_socket();
        }
        log_lines_of([&] {
            gate.add_local_peer(bench.iface(2), 0x02, InetAddress::from(sink.address()));
            gate.add_manet_peer(bench.iface(3), GATEWAY_MANET_ADDR, GATEWAY_LOCAL_ADDR, nullptr,
                                InetAddress::from(sink.address()));
        });
    }

    // Sends `datagram` to interface 1 and runs one pass of the loop over it;
    // returns the allocations made by that pass.
    uint64_t forward(const Bytes& datagram) {
        EXPECT_TRUE(node.send_to(bound_port_of(in_socket), datagram));
        EXPECT_TRUE(wait_readable(in_socket));
        AllocationCounter counter;
        gate.run_once(1000000);
        return counter.stop();
    }

    InProcessGate bench;
    Gate& gate = bench.gate;
    int in_socket = -1;
    UdpEndpoint node;
    UdpEndpoint sink;
};

TEST_F(ForwardingAllocationTest, ForwardsEveryKindOfFrameWithoutTouchingTheHeap) {
    struct Case {
        const char* name;
        RecordedFrame in;
        uint8_t dst_at_sink;
    };
    const Case cases[] = {
        {"local unicast", {7, 0x01, 0x02, {0x42, 0x55, 1, 2, 3}}, 0x02},
        {"local broadcast", {7, 0x01, 0xFF, Bytes(200, 0x55)}, 0xFF},
        {"MANet packet",
         {Gate::MANET_PROTO_ID, 0x01, GATEWAY_LOCAL_ADDR,
          manet_payload(0x0A000001, GATEWAY_MANET_ADDR, Bytes(40, 0x42))},
         GATEWAY_LOCAL_ADDR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes datagram = to_serial_bytes(c.in);
        RecordedFrame out = c.in;
        out.dst = c.dst_at_sink;
        const Bytes expected = to_serial_bytes(out);

        // The first frame teaches the gate where 0x01 (and the node) lives;
        // learning adds to the peer tables, which the counter must see.
        uint64_t learning = 0;
        log_lines_of([&] { learning = forward(datagram); });
        if (&c == &cases[0]) {
            EXPECT_GT(learning, 0u);
        }
        ASSERT_EQ(sink.receive(), expected);
        for (int i = 0; i < MEASURED_FRAMES; ++i) {
            ASSERT_EQ(forward(datagram), 0u) << "frame " << i;
            ASSERT_EQ(sink.receive(), expected) << "frame " << i;
        }
    }
}

}  // namespace
