// Once a sender is known, a pass of the main loop that reads a "udpserial"
// datagram, routes its frame and sends it on must not touch the heap. Real
// devices on loopback, a gate in this process at debug level 0.
#include <gtest/gtest.h>

#include "support/AllocationCounter.h"
#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace test_support;
using vostrelka::Gate;
using vostrelka::InetAddress;

namespace {

// Interface 1 (local) takes frames from `node`; `sink` is local peer 0x02 on
// interface 2 and MANet gateway 0x0A000002 (local address 0x20) on the MANet
// interface 3.
class ForwardingAllocationTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (uint32_t id : {1, 2, 3}) {
            auto device = std::make_shared<vostrelka::net_device::NetDeviceUDPSerial>(2048, 0xFF);  // as built for use
            ASSERT_TRUE(device->create_socket(*InetAddress::from("127.0.0.1:0")));
            bench.add_iface(id, id == 3 ? Gate::MANET : Gate::LOCAL, device);
            in_socket = id == 1 ? device->get_socket() : in_socket;
        }
        log_lines_of([&] {
            gate.add_local_peer(bench.iface(2), 0x02, InetAddress::from(sink.address()));
            gate.add_manet_peer(bench.iface(3), 0x0A000002, 0x20, nullptr, InetAddress::from(sink.address()),
                                Gate::Origin::CONFIGURED);
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
    const RecordedFrame cases[] = {
        {7, 0x01, 0x02, {0x42, 0x55, 1, 2, 3}},
        {7, 0x01, 0xFF, Bytes(200, 0x55)},
        {vostrelka::MANET_PROTO_ID, 0x01, 0xFF, manet_payload(0x0A000001, 0x0A000002, Bytes(40, 0x42))},
    };
    for (const RecordedFrame& frame : cases) {
        RecordedFrame out = frame;
        out.dst = frame.proto_id == vostrelka::MANET_PROTO_ID ? 0x20 : frame.dst;
        const Bytes expected = to_serial_bytes(out);
        // The first frame teaches the gate where 0x01 (and the node) lives;
        // that grows the peer tables, which the counter must see.
        uint64_t learning = 0;
        log_lines_of([&] { learning = forward(to_serial_bytes(frame)); });
        EXPECT_TRUE(&frame != cases || learning > 0);
        ASSERT_EQ(sink.receive(), expected);
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ(forward(to_serial_bytes(frame)), 0u) << "frame " << i << " of " << out;
            ASSERT_EQ(sink.receive(), expected);
        }
    }
}

}  // namespace
