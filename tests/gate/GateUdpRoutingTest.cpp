// Routing through real UDP devices on 127.0.0.1, where peers behind one
// socket are told apart by their socket addresses.
#include <gtest/gtest.h>

#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

using test_support::log_lines_of;
using test_support::manet_payload;
using test_support::RecordingNetDevice;
using test_support::UdpEndpoint;
using vostrelka::Gate;
using vostrelka::InetAddress;
using vostrelka::net_device::NetDeviceUDP;
using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr int QUIET_MS = 100;
constexpr uint8_t OPAQUE_PROTO = 7;

Bytes datagram(uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
    Bytes bytes{proto_id, src, dst};
    for (uint8_t byte : payload) bytes.push_back(byte);
    return bytes;
}

class GateUdpRoutingTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<NetDeviceUDP> udp1 = open_udp_iface(1, Gate::LOCAL);
    std::shared_ptr<RecordingNetDevice> serial2 = bench.add_recording_iface(2);
    UdpEndpoint node_a;
    UdpEndpoint node_b;
    // A "udp" device drops datagrams without payload, so every one has some.

    std::shared_ptr<NetDeviceUDP> open_udp_iface(uint32_t id, uint8_t type) {
        auto device = std::make_shared<NetDeviceUDP>(2048, 0xFF);
        EXPECT_TRUE(device->create_socket(*InetAddress::from(std::string("127.0.0.1:0"))));
        bench.add_iface(id, type, device);
        gate.event_loop_entries.push_back(device.get());
        return device;
    }
    uint16_t port_of(const NetDeviceUDP& device) { return test_support::bound_port_of(device.get_socket()); }

    // Sends one datagram from `from` to `to` and runs loop passes until the
    // device has read it.
    Lines send(UdpEndpoint& from, const NetDeviceUDP& to, const Bytes& bytes) {
        EXPECT_TRUE(from.send_to(port_of(to), bytes));
        EXPECT_TRUE(test_support::wait_readable(to.get_socket()));
        return log_lines_of([&] { gate.run_once(0); });
    }
};

TEST_F(GateUdpRoutingTest, SendersAreLearnedWithTheirSocketAddress) {
    EXPECT_EQ(send(node_a, *udp1, datagram(OPAQUE_PROTO, 0x01, 0x33, {1})),
              Lines{"add local peer on iface 1: 0x01 / " + node_a.address()});
    EXPECT_EQ(gate.local_peers.at(0x01).inet_addr->to_s(), node_a.address());
}

TEST_F(GateUdpRoutingTest, BroadcastReachesOtherEndpointsOfTheSameSocketAndEveryOtherPeer) {
    send(node_a, *udp1, datagram(OPAQUE_PROTO, 0x01, 0x33, {0}));
    send(node_b, *udp1, datagram(OPAQUE_PROTO, 0x02, 0x33, {0}));
    log_lines_of([&] {
        gate.add_local_peer(bench.iface(2), 0x03, std::nullopt);
        gate.add_local_peer(bench.iface(2), 0x04, std::nullopt);
    });

    const Bytes broadcast = datagram(OPAQUE_PROTO, 0x01, 0xFF, {0xAB, 0xCD});
    send(node_a, *udp1, broadcast);
    EXPECT_EQ(node_b.receive(), broadcast);
    EXPECT_EQ(node_b.receive(QUIET_MS), std::nullopt);
    EXPECT_EQ(node_a.receive(QUIET_MS), std::nullopt);
    EXPECT_EQ(serial2->sent.size(), 2u);
}

TEST_F(GateUdpRoutingTest, UdpPeerWithoutSocketAddressIsNotSentTo) {
    send(node_a, *udp1, datagram(OPAQUE_PROTO, 0x01, 0x33, {0}));
    log_lines_of([&] { gate.add_local_peer(bench.iface(1), 0x09, std::nullopt); });
    gate.debug_level = 2;
    const Bytes payload{5};

    // The device now points at node A; a send for 0x09 would land there.
    log_lines_of([&] { serial2->receive(test_support::make_frame(OPAQUE_PROTO, 0x03, 0x01, payload)); });
    EXPECT_EQ(node_a.receive(), datagram(OPAQUE_PROTO, 0x03, 0x01, payload));

    EXPECT_EQ(log_lines_of([&] { serial2->receive(test_support::make_frame(OPAQUE_PROTO, 0x03, 0x09, payload)); }),
              Lines{"forw frame to iface 1: 0x03 -> 0x09, proto_id 7"});
    EXPECT_EQ(node_a.receive(QUIET_MS), std::nullopt);
}

TEST_F(GateUdpRoutingTest, ManetPacketsCrossBetweenALocalLinkAndGatewaysOverUdp) {
    auto manet3 = open_udp_iface(3, Gate::MANET);
    UdpEndpoint gateway;
    UdpEndpoint unresolved_gateway;
    log_lines_of([&] {
        gate.add_manet_peer(bench.iface(3), 0x0A000001, 0x42, nullptr, InetAddress::from(gateway.address()));
        gate.add_manet_peer(bench.iface(3), 0x0A000002, 0x43, nullptr, std::nullopt);
    });
    gate.debug_level = 2;

    // Out from the local link, onto the gateway link, dst rewritten.
    const Bytes to_gateway = manet_payload(0x0B000001, 0x0A000001, {1, 2, 3}, 9, 1);
    const Lines lines = send(node_a, *udp1, datagram(Gate::MANET_PROTO_ID, 0x01, 0xFF, to_gateway));
    EXPECT_EQ(lines.back(), "forw MANet packet to iface 3: 0x0B000001 / 0x01 / " + node_a.address() +
                                " -> 0x0A000001 / 0x42 / " + gateway.address());
    EXPECT_EQ(gateway.receive(), datagram(Gate::MANET_PROTO_ID, 0x01, 0x42, to_gateway));

    // A gateway link without socket address on a UDP device gets nothing.
    send(node_a, *udp1, datagram(Gate::MANET_PROTO_ID, 0x01, 0xFF, manet_payload(0x0B000001, 0x0A000002)));
    EXPECT_EQ(gateway.receive(QUIET_MS), std::nullopt);

    // Back in from the gateway to the node learned on the local link.
    const Bytes to_node = manet_payload(0x0A000001, 0x0B000001, {4});
    send(gateway, *manet3, datagram(Gate::MANET_PROTO_ID, 0x42, 0xFF, to_node));
    EXPECT_EQ(node_a.receive(), datagram(Gate::MANET_PROTO_ID, 0x42, 0x01, to_node));
}

}  // namespace
