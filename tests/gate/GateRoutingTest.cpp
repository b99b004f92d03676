// Routing decisions of a Gate in this process, on devices that record what
// they are asked to send.
#include <gtest/gtest.h>

#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

using namespace test_support;
using vostrelka::Gate;
using Frames = std::vector<RecordedFrame>;

namespace {

constexpr uint8_t OPAQUE_PROTO = 7;

class GateRoutingTest : public ::testing::Test {
protected:
    InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<RecordingNetDevice> serial1 = bench.add_recording_iface(1);
    std::shared_ptr<RecordingNetDevice> serial2 = bench.add_recording_iface(2);
    std::shared_ptr<RecordingNetDevice> manet3 = bench.add_recording_iface(3, Gate::MANET);

    // Peers learned quietly, so that tests see only their own lines.
    void know_local(uint32_t iface, uint8_t addr) {
        log_lines_of([&] { gate.add_local_peer(bench.iface(iface), addr, std::nullopt); });
    }
    void know_manet(uint32_t iface, uint32_t manet_addr, uint8_t local_addr) {
        log_lines_of([&] { gate.add_manet_peer(bench.iface(iface), manet_addr, local_addr, nullptr, {}); });
    }
    Lines receive(RecordingNetDevice& device, uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
        return log_lines_of([&] { device.receive(make_frame(proto_id, src, dst, payload)); });
    }
};

TEST_F(GateRoutingTest, UnicastReachesAPeerOnAnotherInterfaceUnchangedAndTheReplyFindsTheSender) {
    know_local(2, 0x03);
    receive(*serial1, OPAQUE_PROTO, 0x01, 0x03, {1, 2, 3});
    EXPECT_EQ(serial2->sent, (Frames{{OPAQUE_PROTO, 0x01, 0x03, {1, 2, 3}}}));
    receive(*serial2, OPAQUE_PROTO, 0x03, 0x01, {4});
    EXPECT_EQ(serial1->sent, (Frames{{OPAQUE_PROTO, 0x03, 0x01, {4}}}));
}

TEST_F(GateRoutingTest, UnicastBetweenPeersOnOneBusIsNotForwarded) {
    know_local(1, 0x02);
    gate.debug_level = 3;
    EXPECT_EQ(receive(*serial1, OPAQUE_PROTO, 0x01, 0x02, {1}),
              (Lines{"recv frame on iface 1: 0x01 -> 0x02, size=1, proto_id 7", "add local peer on iface 1: 0x01"}));
    EXPECT_TRUE(serial1->sent.empty());
}

TEST_F(GateRoutingTest, LocalFrameLinesAppearAtTheirLevels) {
    know_local(1, 0x01);
    know_local(2, 0x03);
    const std::string recv = "recv frame on iface 1: 0x01 -> 0x03, size=4, proto_id 7";
    const std::string forw = "forw frame to iface 2: 0x01 -> 0x03, proto_id 7";
    const std::string recv_lost = "recv frame on iface 1: 0x01 -> 0x09, size=4, proto_id 7";
    const std::string lost = "WARNING: local peer not found to route 0x01 -> 0x09, proto_id 7";
    const std::vector<std::pair<int, Lines>> cases = {
        {0, {}}, {1, {lost}}, {2, {forw, lost}}, {3, {recv, forw, recv_lost, lost}}};
    for (const auto& [level, expected] : cases) {
        gate.debug_level = level;
        const Lines lines = log_lines_of([&] {
            const Bytes payload{1, 2, 3, 4};
            serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0x03, payload));
            serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0x09, payload));
        });
        EXPECT_EQ(lines, expected) << "level " << level;
    }
}

TEST_F(GateRoutingTest, FrameFromADeviceOutsideTheTablesIsAnError) {
    RecordingNetDevice stranger;
    EXPECT_EQ(log_lines_of([&] { gate.on_frame(stranger, make_frame(OPAQUE_PROTO, 0x01, 0xFF, {1})); }),
              Lines{"ERROR: device is not in list"});
    EXPECT_TRUE(gate.local_peers.empty());
}

TEST_F(GateRoutingTest, ManetPacketCrossesFromALocalLinkToTheGatewayLinkAndBack) {
    know_manet(3, 0x0A000002, 0x42);
    gate.debug_level = 3;
    const Bytes out = manet_payload(0x0B000001, 0x0A000002, {0xDE, 0xAD}, 5, 1);
    EXPECT_EQ(receive(*serial1, Gate::MANET_PROTO_ID, 0x01, 0xFF, out),
              (Lines{"recv MANet frame on iface 1: 0x0B000001 / 0x01 -> 0x0A000002 / 0xFF, size=12",
                     "add local peer on iface 1: 0x01", "add MANet peer on iface 1: 0x0B000001 / 0x01",
                     "forw MANet packet to iface 3: 0x0B000001 / 0x01 -> 0x0A000002 / 0x42"}));
    EXPECT_EQ(manet3->sent, (Frames{{Gate::MANET_PROTO_ID, 0x01, 0x42, out}}));

    const Bytes back = manet_payload(0x0A000002, 0x0B000001, {1, 2, 3});
    gate.debug_level = 0;
    EXPECT_EQ(receive(*manet3, Gate::MANET_PROTO_ID, 0x42, 0xFF, back), Lines{});
    EXPECT_EQ(serial1->sent, (Frames{{Gate::MANET_PROTO_ID, 0x42, 0x01, back}}));
    // Nothing is learned on the gateway link.
    EXPECT_EQ(gate.local_peers.count(0x42), 0u);
    EXPECT_EQ(gate.manet_peers.at(0x0A000002).size(), 1u);
}

TEST_F(GateRoutingTest, FramesThatLeadNowhereAreDroppedWithTheirLines) {
    know_local(1, 0x05);
    know_manet(3, 0x0A000002, 0x42);
    know_manet(2, 0x0B000002, 0x08);
    const Bytes header = manet_payload(0x0C000001, 0x0A000002);
    struct Case {
        RecordingNetDevice* from;
        uint8_t proto_id;
        Bytes payload;
        int level;
        Lines expected;
    };
    const Case cases[] = {
        {manet3.get(),
         OPAQUE_PROTO,
         {1},
         1,
         {"WARNING: non-MANet protocol on MANet interface, iface 3: 0x20 -> 0x05, proto_id 7"}},
        // A gateway link accepts MANet traffic only from known gateways.
        {manet3.get(), Gate::MANET_PROTO_ID, manet_payload(0x0A000009, 0x0B000001), 2, {}},
        {serial1.get(),
         Gate::MANET_PROTO_ID,
         manet_payload(0x0B000001, 0x0B000002),
         1,
         {"add local peer on iface 1: 0x20", "add MANet peer on iface 1: 0x0B000001 / 0x20",
          "WARNING: not forwarding MANet packet to interface of the same type as source (1): "
          "0x0B000001 / 0x20 -> 0x0B000002 / 0x05"}},
        {serial1.get(),
         Gate::MANET_PROTO_ID,
         manet_payload(0x0B000001, 0x0A000009),
         1,
         {"WARNING: MANet peer not found for: 0x0B000001 / 0x20 -> 0x0A000009 / 0x05"}},
        // Shorter than its header: not read (a heap block of exactly nine
        // bytes shows a read past it under the address sanitizer).
        {serial1.get(), Gate::MANET_PROTO_ID, Bytes(header.begin(), header.begin() + 9), 3, {}},
    };
    for (const Case& c : cases) {
        gate.debug_level = c.level;
        EXPECT_EQ(receive(*c.from, c.proto_id, 0x20, 0x05, c.payload), c.expected);
        EXPECT_TRUE(serial1->sent.empty() && serial2->sent.empty() && manet3->sent.empty());
    }
    EXPECT_EQ(gate.manet_peers.count(0x0C000001), 0u);
}

TEST_F(GateRoutingTest, UdpPeerWithoutSocketAddressIsNotSentTo) {
    auto udp = std::make_shared<vostrelka::net_device::NetDeviceUDP>(2048, 0xFF);
    ASSERT_TRUE(udp->create_socket(*vostrelka::InetAddress::from(std::string("127.0.0.1:0"))));
    Gate::Interface& iface4 = bench.add_iface(4, Gate::LOCAL, udp);
    UdpEndpoint node;
    log_lines_of([&] {
        gate.add_local_peer(iface4, 0x01, vostrelka::InetAddress::from(node.address()));
        gate.add_local_peer(iface4, 0x09, std::nullopt);
    });
    // The device now points at the node; a send for 0x09 would land there.
    receive(*serial2, OPAQUE_PROTO, 0x03, 0x01, {5});
    EXPECT_EQ(node.receive(), (Bytes{OPAQUE_PROTO, 0x03, 0x01, 5}));
    gate.debug_level = 2;
    EXPECT_EQ(receive(*serial2, OPAQUE_PROTO, 0x03, 0x09, {5}),
              Lines{"forw frame to iface 4: 0x03 -> 0x09, proto_id 7"});
    EXPECT_EQ(node.receive(100), std::nullopt);
}

}  // namespace
