// A Gate in this process, on devices that record what they are asked to
// send: routing, and service frames naming a UTM server.
#include <gtest/gtest.h>

#include "support/InProcessGate.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/Time.h"

using namespace test_support;
using vostrelka::AddressResolver;
using vostrelka::Gate;
using vostrelka::InetAddress;
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

    Lines local(uint32_t iface, uint8_t addr, const char* address = nullptr) {
        return log_lines_of([&] {
            gate.add_local_peer(bench.iface(iface), addr, address ? InetAddress::from(address) : std::nullopt);
        });
    }
    Lines link(uint32_t iface, uint32_t manet_addr, uint8_t local_addr,
               std::unique_ptr<AddressResolver> by_name = nullptr, const char* address = nullptr,
               Gate::Origin origin = Gate::Origin::LEARNED) {
        return log_lines_of([&] {
            gate.add_manet_peer(bench.iface(iface), manet_addr, local_addr, std::move(by_name),
                                address ? InetAddress::from(address) : std::nullopt, origin);
        });
    }
    Lines receive(RecordingNetDevice& device, uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
        return log_lines_of([&] { device.receive(make_frame(proto_id, src, dst, payload)); });
    }
};

// 0x01 sends to 0x03 on the other interface, to unknown 0x09, and to 0x02
// on its own bus, which is not forwarded.
TEST_F(GateRoutingTest, LocalFrameLinesAppearAtTheirLevels) {
    local(1, 0x01);
    local(1, 0x02);
    local(2, 0x03);
    auto recv = [](int dst) {
        return "recv frame on iface 1: 0x01 -> 0x0" + std::to_string(dst) + ", size=1, proto_id 7";
    };
    const std::string forw = "forw frame to iface 2: 0x01 -> 0x03, proto_id 7";
    const std::string lost = "WARNING: local peer not found to route 0x01 -> 0x09, proto_id 7";
    const std::vector<std::pair<int, Lines>> cases = {
        {0, {}}, {1, {lost}}, {2, {forw, lost}}, {3, {recv(3), forw, recv(9), lost, recv(2)}}};
    for (const auto& [level, expected] : cases) {
        gate.set_debug_level(level);
        const Lines lines = log_lines_of([&] {
            for (uint8_t dst : {0x03, 0x09, 0x02}) serial1->receive(make_frame(OPAQUE_PROTO, 0x01, dst, {1}));
        });
        EXPECT_EQ(lines, expected) << "level " << level;
    }
    EXPECT_EQ(serial2->sent.size(), 4u);
    EXPECT_TRUE(serial1->sent.empty());
    // Only the unknown destination counts; 0x02 had it on the bus already.
    EXPECT_EQ(serial1->counters().drops.unroutable, 4u);
}

TEST_F(GateRoutingTest, FrameFromADeviceOutsideTheTablesIsAnError) {
    RecordingNetDevice stranger;
    EXPECT_EQ(log_lines_of([&] { gate.on_frame(stranger, make_frame(OPAQUE_PROTO, 0x01, 0xFF, {1})); }),
              Lines{"ERROR: device is not in list"});
    EXPECT_TRUE(gate.local_peer_table().empty());
}

TEST_F(GateRoutingTest, ManetPacketCrossesFromALocalLinkToTheGatewayLinkAndBack) {
    link(3, 0x0A000002, 0x42);
    gate.set_debug_level(3);
    const Bytes out = manet_payload(0x0B000001, 0x0A000002, {0xDE, 0xAD}, 5, 1);
    EXPECT_EQ(receive(*serial1, vostrelka::MANET_PROTO_ID, 0x01, 0xFF, out),
              (Lines{"recv MANet frame on iface 1: 0x0B000001 / 0x01 -> 0x0A000002 / 0xFF, size=12",
                     "add local peer on iface 1: 0x01", "add MANet peer on iface 1: 0x0B000001 / 0x01",
                     "forw MANet packet to iface 3: 0x0B000001 / 0x01 -> 0x0A000002 / 0x42"}));
    EXPECT_EQ(manet3->sent, (Frames{{vostrelka::MANET_PROTO_ID, 0x01, 0x42, out}}));

    const Bytes back = manet_payload(0x0A000002, 0x0B000001, {1, 2, 3});
    gate.set_debug_level(0);
    EXPECT_EQ(receive(*manet3, vostrelka::MANET_PROTO_ID, 0x42, 0xFF, back), Lines{});
    EXPECT_EQ(serial1->sent, (Frames{{vostrelka::MANET_PROTO_ID, 0x42, 0x01, back}}));
    // Nothing is learned on the gateway link.
    EXPECT_EQ(gate.local_peer_table().count(0x42), 0u);
    EXPECT_EQ(gate.manet_peer_table().at(0x0A000002).size(), 1u);
}

TEST_F(GateRoutingTest, FramesThatLeadNowhereAreDroppedWithTheirLines) {
    local(1, 0x05);
    link(3, 0x0A000002, 0x42);
    link(2, 0x0B000002, 0x08);
    const Lines non_manet = {"WARNING: non-MANet protocol on MANet interface, iface 3: 0x20 -> 0x05, proto_id 7"};
    const Lines same_type = {"add local peer on iface 1: 0x20", "add MANet peer on iface 1: 0x0B000001 / 0x20",
                             "WARNING: not forwarding MANet packet to interface of the same type as source (1): "
                             "0x0B000001 / 0x20 -> 0x0B000002 / 0x05"};
    const Lines no_peer = {"WARNING: MANet peer not found for: 0x0B000001 / 0x20 -> 0x0A000009 / 0x05"};
    const Bytes header = manet_payload(0x0C000001, 0x0A000002);
    const std::tuple<RecordingNetDevice*, uint8_t, Bytes, int, Lines> cases[] = {
        {manet3.get(), OPAQUE_PROTO, {1}, 1, non_manet},
        // A gateway link accepts MANet traffic only from known gateways.
        {manet3.get(), vostrelka::MANET_PROTO_ID, manet_payload(0x0A000009, 0x0B000001), 2, {}},
        {serial1.get(), vostrelka::MANET_PROTO_ID, manet_payload(0x0B000001, 0x0B000002), 1, same_type},
        {serial1.get(), vostrelka::MANET_PROTO_ID, manet_payload(0x0B000001, 0x0A000009), 1, no_peer},
        // Shorter than its header: not read (a heap block of exactly nine
        // bytes shows a read past it under the address sanitizer).
        {serial1.get(), vostrelka::MANET_PROTO_ID, Bytes(header.begin(), header.begin() + 9), 3, {}},
    };
    for (const auto& [from, proto_id, payload, level, expected] : cases) {
        gate.set_debug_level(level);
        EXPECT_EQ(receive(*from, proto_id, 0x20, 0x05, payload), expected);
        EXPECT_TRUE(serial1->sent.empty() && serial2->sent.empty() && manet3->sent.empty());
    }
    EXPECT_EQ(gate.manet_peer_table().count(0x0C000001), 0u);
    EXPECT_EQ(manet3->counters().drops.unroutable, 2u);
    EXPECT_EQ(serial1->counters().drops.unroutable, 3u);
}

TEST_F(GateRoutingTest, DeviceConfigIsForwardedThenAddsItsUtmOnceOnEveryManetInterface) {
    bench.add_recording_iface(4, Gate::MANET);
    local(2, 0x05);
    const Bytes config = device_config(0x0A000001);
    EXPECT_EQ(receive(*serial1, vostrelka::SERVICE_PROTO_ID, 0x01, 0xFF, config),
              (Lines{"add local peer on iface 1: 0x01",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR",
                     "add MANet peer on iface 4: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR"}));
    EXPECT_EQ(serial2->sent, (Frames{{vostrelka::SERVICE_PROTO_ID, 0x01, 0xFF, config}}));
    EXPECT_EQ(receive(*serial1, vostrelka::SERVICE_PROTO_ID, 0x01, 0xFF, config), Lines{});
    EXPECT_EQ(gate.manet_peer_table().at(0x0A000001).size(), 2u);
}

// A device may announce a host name of any bytes; the control socket's
// answer must still be JSON (the library throws on bytes that are not text).
TEST_F(GateRoutingTest, PeersAnswerShowsAnAnnouncedHostThatIsNotText) {
    receive(*serial1, vostrelka::SERVICE_PROTO_ID, 0x01, 0xFF, device_config(0x0A000001, "h\xFF\xFE"));
    ASSERT_EQ(gate.manet_peer_table().count(0x0A000001), 1u);
    const std::optional<std::string> peers = gate.answer_control_request("peers");
    ASSERT_TRUE(peers);
    // Each stray byte becomes U+FFFD.
    EXPECT_NE(peers->find("\"resolver\":\"h\xEF\xBF\xBD\xEF\xBF\xBD:5000\""), std::string::npos) << *peers;
    EXPECT_NE(peers->find(R"("origin":"announced")"), std::string::npos);
}

TEST_F(GateRoutingTest, MalformedUnusableOrOtherServiceMessagesChangeNothing) {
    local(1, 0x01);
    const Lines parse_error = {"ERROR: failed to parse device config message"};
    auto cut = [](size_t size) { return device_config(0x0A000001, "127.0.0.1", "", size); };
    const std::tuple<Bytes, uint8_t, Lines> cases[] = {
        {cut(48), 8, parse_error},   // inside the fixed fields
        {cut(106), 8, parse_error},  // inside manet_config
        {cut(110), 8, parse_error},
        {device_config(0x0A000001, "127.0.0.1", "{"), 8, parse_error},  // configuration text is refused
        {device_config(0), 8, {}},                                      // no UTM
        {device_config(0x0A000001, ""), 8, {"ERROR: failed to parse UTM host and port. :5000"}},
        {device_config(0x0A000001, "127.0.0.1", "", 200, 5), 8, {}},  // another message
        {device_config(0x0A000001), OPAQUE_PROTO, {}},
    };
    for (const auto& [payload, proto_id, expected] : cases) {
        EXPECT_EQ(receive(*serial1, proto_id, 0x01, 0xFF, payload), expected);
        EXPECT_TRUE(gate.manet_peer_table().empty());
    }
}

}  // namespace
