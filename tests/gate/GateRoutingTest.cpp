#include <gtest/gtest.h>

#include "support/InProcessGate.h"

using test_support::log_lines_of;
using test_support::make_frame;
using test_support::manet_payload;
using test_support::RecordingNetDevice;
using vostrelka::Gate;
using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint8_t OPAQUE_PROTO = 7;

class GateRoutingTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
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
};

TEST_F(GateRoutingTest, UnicastReachesAPeerOnAnotherInterfaceUnchangedAndTheReplyFindsTheSender) {
    know_local(2, 0x03);
    const Bytes payload{1, 2, 3};
    log_lines_of([&] { serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0x03, payload)); });
    ASSERT_EQ(serial2->sent.size(), 1u);
    EXPECT_EQ(serial2->sent[0].proto_id, OPAQUE_PROTO);
    EXPECT_EQ(serial2->sent[0].src, 0x01);
    EXPECT_EQ(serial2->sent[0].dst, 0x03);
    EXPECT_EQ(serial2->sent[0].payload, payload);
    EXPECT_TRUE(serial1->sent.empty());

    serial2->receive(make_frame(OPAQUE_PROTO, 0x03, 0x01, payload));
    ASSERT_EQ(serial1->sent.size(), 1u);
    EXPECT_EQ(serial1->sent[0].dst, 0x01);
}

TEST_F(GateRoutingTest, BroadcastGoesOncePerPeerAndNeverBackOntoTheSendingBus) {
    for (uint8_t addr : {0x01, 0x02}) know_local(1, addr);
    for (uint8_t addr : {0x03, 0x04, 0x05}) know_local(2, addr);
    const Bytes payload{9};
    log_lines_of([&] { serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0xFF, payload)); });
    EXPECT_EQ(serial2->sent.size(), 3u);
    EXPECT_TRUE(serial1->sent.empty());
    for (const auto& sent : serial2->sent) EXPECT_EQ(sent.dst, 0xFF);
}

TEST_F(GateRoutingTest, UnicastBetweenPeersOnOneBusIsNotForwarded) {
    know_local(1, 0x02);
    const Bytes payload{1};
    EXPECT_EQ(log_lines_of([&] { serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0x02, payload)); }),
              Lines{"add local peer on iface 1: 0x01"});
    EXPECT_TRUE(serial1->sent.empty());
}

TEST_F(GateRoutingTest, LocalFrameLinesAppearAtTheirLevels) {
    know_local(1, 0x01);
    know_local(2, 0x03);
    const Bytes payload{1, 2, 3, 4};
    const std::string recv = "recv frame on iface 1: 0x01 -> 0x03, size=4, proto_id 7";
    const std::string forw = "forw frame to iface 2: 0x01 -> 0x03, proto_id 7";
    const std::string lost = "WARNING: local peer not found to route 0x01 -> 0x09, proto_id 7";
    const std::vector<std::pair<int, Lines>> cases = {{0, {}}, {1, {lost}}, {2, {forw, lost}}, {3, {recv, forw, lost}}};
    for (const auto& [level, expected] : cases) {
        gate.debug_level = level;
        const Lines lines = log_lines_of([&] {
            serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0x03, payload));
            serial1->receive(make_frame(OPAQUE_PROTO, 0x01, 0x09, payload));
        });
        Lines without_recv_of_lost;
        for (const auto& line : lines) {
            if (line.rfind("recv frame on iface 1: 0x01 -> 0x09", 0) != 0) without_recv_of_lost.push_back(line);
        }
        EXPECT_EQ(without_recv_of_lost, expected) << "level " << level;
    }
}

TEST_F(GateRoutingTest, FrameFromADeviceOutsideTheTablesIsAnError) {
    RecordingNetDevice stranger;
    const Bytes payload{1};
    EXPECT_EQ(log_lines_of([&] { gate.on_frame(stranger, make_frame(OPAQUE_PROTO, 0x01, 0xFF, payload)); }),
              Lines{"ERROR: device is not in list"});
    EXPECT_TRUE(gate.local_peers.empty());
}

TEST_F(GateRoutingTest, NonManetFrameOnManetInterfaceIsDroppedWithAWarning) {
    know_local(1, 0x05);
    gate.debug_level = 1;
    const Bytes payload{1};
    EXPECT_EQ(log_lines_of([&] { manet3->receive(make_frame(OPAQUE_PROTO, 0x20, 0x05, payload)); }),
              Lines{"WARNING: non-MANet protocol on MANet interface, iface 3: 0x20 -> 0x05, proto_id 7"});
    EXPECT_TRUE(serial1->sent.empty());
    EXPECT_EQ(gate.local_peers.count(0x20), 0u);
}

TEST_F(GateRoutingTest, ManetPacketFromLocalLinkLeavesOnTheGatewayLinkAddressedToItsLocalAddress) {
    know_manet(3, 0x0A000002, 0x42);
    gate.debug_level = 3;
    const Bytes payload = manet_payload(0x0B000001, 0x0A000002, {0xDE, 0xAD}, 5, 1);
    const Lines lines = log_lines_of([&] { serial1->receive(make_frame(Gate::MANET_PROTO_ID, 0x01, 0xFF, payload)); });
    EXPECT_EQ(lines, (Lines{"recv MANet frame on iface 1: 0x0B000001 / 0x01 -> 0x0A000002 / 0xFF, size=12",
                            "add local peer on iface 1: 0x01", "add MANet peer on iface 1: 0x0B000001 / 0x01",
                            "forw MANet packet to iface 3: 0x0B000001 / 0x01 -> 0x0A000002 / 0x42"}));
    ASSERT_EQ(manet3->sent.size(), 1u);
    EXPECT_EQ(manet3->sent[0].proto_id, Gate::MANET_PROTO_ID);
    EXPECT_EQ(manet3->sent[0].src, 0x01);
    EXPECT_EQ(manet3->sent[0].dst, 0x42);
    EXPECT_EQ(manet3->sent[0].payload, payload);
}

TEST_F(GateRoutingTest, ManetPacketFromGatewayLinkReachesTheNodeLearnedOnALocalLink) {
    know_manet(3, 0x0A000002, 0x42);
    const Bytes from_node = manet_payload(0x0B000001, 0x0A000002);
    log_lines_of([&] { serial2->receive(make_frame(Gate::MANET_PROTO_ID, 0x07, 0xFF, from_node)); });

    const Bytes reply = manet_payload(0x0A000002, 0x0B000001, {1, 2, 3});
    EXPECT_EQ(log_lines_of([&] { manet3->receive(make_frame(Gate::MANET_PROTO_ID, 0x42, 0xFF, reply)); }), Lines{});
    ASSERT_EQ(serial2->sent.size(), 1u);
    EXPECT_EQ(serial2->sent[0].dst, 0x07);
    EXPECT_EQ(serial2->sent[0].payload, reply);
    // Nothing is learned on the gateway link.
    EXPECT_EQ(gate.local_peers.count(0x42), 0u);
    EXPECT_EQ(gate.manet_peers.at(0x0A000002).size(), 1u);
}

TEST_F(GateRoutingTest, ManetPacketFromUnknownGatewayIsDroppedSilently) {
    know_manet(1, 0x0B000001, 0x07);
    gate.debug_level = 2;
    const Bytes payload = manet_payload(0x0A000009, 0x0B000001);
    EXPECT_EQ(log_lines_of([&] { manet3->receive(make_frame(Gate::MANET_PROTO_ID, 0x42, 0xFF, payload)); }), Lines{});
    EXPECT_TRUE(serial1->sent.empty());
    EXPECT_EQ(gate.manet_peers.count(0x0A000009), 0u);
}

TEST_F(GateRoutingTest, ManetPacketIsNeverRelayedBetweenInterfacesOfOneType) {
    know_manet(2, 0x0B000002, 0x08);
    gate.debug_level = 1;
    const Bytes payload = manet_payload(0x0B000001, 0x0B000002);
    EXPECT_EQ(log_lines_of([&] { serial1->receive(make_frame(Gate::MANET_PROTO_ID, 0x07, 0x55, payload)); }).back(),
              "WARNING: not forwarding MANet packet to interface of the same type as source (1): "
              "0x0B000001 / 0x07 -> 0x0B000002 / 0x55");
    EXPECT_TRUE(serial2->sent.empty());
}

TEST_F(GateRoutingTest, ManetPacketForUnknownGatewayWarns) {
    gate.debug_level = 1;
    const Bytes payload = manet_payload(0x0B000001, 0x0A000009);
    EXPECT_EQ(log_lines_of([&] { serial1->receive(make_frame(Gate::MANET_PROTO_ID, 0x07, 0x55, payload)); }).back(),
              "WARNING: MANet peer not found for: 0x0B000001 / 0x07 -> 0x0A000009 / 0x55");
}

TEST_F(GateRoutingTest, ManetPayloadShorterThanItsHeaderIsDroppedUnreadButItsSenderLearned) {
    know_manet(3, 0x0A000002, 0x42);
    gate.debug_level = 3;
    // Nine bytes of a would-be header, from a heap block of exactly that
    // size, so that a read past the end shows under the address sanitizer.
    const Bytes whole = manet_payload(0x0B000001, 0x0A000002);
    auto short_payload = std::make_unique<uint8_t[]>(9);
    std::copy(whole.begin(), whole.begin() + 9, short_payload.get());
    vostrelka::net_device::Frame frame = make_frame(Gate::MANET_PROTO_ID, 0x01, 0xFF, whole);
    frame.payload = vostrelka::ConstSlice<unsigned char>(short_payload.get(), 9);
    EXPECT_EQ(log_lines_of([&] { serial1->receive(frame); }), Lines{"add local peer on iface 1: 0x01"});
    EXPECT_TRUE(manet3->sent.empty());
    EXPECT_EQ(gate.manet_peers.count(0x0B000001), 0u);
}

}  // namespace
