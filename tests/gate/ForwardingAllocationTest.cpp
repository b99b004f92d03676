// Once a sender is known, a pass of the main loop that reads datagrams,
// routes their frames and sends them on must not touch the heap, on "udp"
// and on "udpserial" devices, one datagram per pass or a batch of them.
// Real devices on loopback, a gate in this process at debug level 0.
#include <gtest/gtest.h>

#include "support/AllocationCounter.h"
#include "support/GateLink.h"
#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace test_support;
using vostrelka::Gate;
using vostrelka::InetAddress;
using vostrelka::net_device::NetDeviceUDP;
using vostrelka::net_device::NetDeviceUDPSerial;

namespace {

// Interface 1 (local) takes frames from `node`; `sink` is local peer 0x02 on
// interface 2 and MANet gateway 0x0A000002 (local address 0x20) on the MANet
// interface 3. The parameter: serial framing ("udpserial") or not ("udp").
class ForwardingAllocationTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        for (uint32_t id : {1, 2, 3}) {
            // As built for use: a 2048-byte buffer, every destination accepted.
            std::shared_ptr<NetDeviceUDP> device =
                framed ? std::make_shared<NetDeviceUDPSerial>(2048, 0xFF) : std::make_shared<NetDeviceUDP>(2048, 0xFF);
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

    Bytes wire(const RecordedFrame& frame) const { return framed ? to_serial_bytes(frame) : datagram(frame); }

    // Sends `count` datagrams of `frame` to interface 1 and runs one pass of
    // the loop over them; returns the allocations made by that pass.
    uint64_t forward(const RecordedFrame& frame, int count = 1) {
        for (int i = 0; i < count; ++i) EXPECT_TRUE(node.send_to(bound_port_of(in_socket), wire(frame)));
        EXPECT_TRUE(wait_readable(in_socket));
        AllocationCounter counter;
        gate.run_once(1000000);
        return counter.stop();
    }

    const bool framed = GetParam();
    InProcessGate bench;
    Gate& gate = bench.gate;
    int in_socket = -1;
    UdpEndpoint node;
    UdpEndpoint sink;
};

TEST_P(ForwardingAllocationTest, ForwardsEveryKindOfFrameWithoutTouchingTheHeap) {
    const RecordedFrame cases[] = {
        {7, 0x01, 0x02, {0x42, 0x55, 1, 2, 3}},
        {7, 0x01, 0xFF, Bytes(200, 0x55)},
        {vostrelka::MANET_PROTO_ID, 0x01, 0xFF, manet_payload(0x0A000001, 0x0A000002, Bytes(40, 0x42))},
    };
    for (const RecordedFrame& frame : cases) {
        RecordedFrame out = frame;
        out.dst = frame.proto_id == vostrelka::MANET_PROTO_ID ? 0x20 : frame.dst;
        const Bytes expected = wire(out);
        // The first frame teaches the gate where 0x01 (and the node) lives;
        // that grows the peer tables, which the counter must see.
        uint64_t learning = 0;
        log_lines_of([&] { learning = forward(frame); });
        EXPECT_TRUE(&frame != cases || learning > 0);
        ASSERT_EQ(sink.receive(), expected);
        for (int count : {1, 1, 5, int(NetDeviceUDP::READ_BATCH)}) {
            ASSERT_EQ(forward(frame, count), 0u) << count << " datagrams of " << out;
            for (int i = 0; i < count; ++i) ASSERT_EQ(sink.receive(), expected) << i << " of " << count;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(UdpKinds, ForwardingAllocationTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "udpserial" : "udp"; });

}  // namespace
