// Frames through the real gate binary between "udp", "udpserial" and
// "serial" links, and MANet packets between a local link and a gateway.
#include <gtest/gtest.h>

#include "support/GateLink.h"
#include "support/GateProcess.h"
#include "support/TempDir.h"

using namespace test_support;
using Frame = RecordedFrame;
using std::chrono::milliseconds;

namespace {

// udp on iface 1, udpserial on iface 2, serial on iface 3, and the MANet
// interface 4 with gateway 0x0A000002 (local address 0x22) configured by
// its socket address.
class GateTrafficTest : public testing::Test {
protected:
    void SetUp() override {
        auto iface = [](const std::string& description, int id, const char* extra = "") {
            return R"({"iface": ")" + description + R"(", "id": )" + std::to_string(id) + extra + "}";
        };
        const std::string config =
            R"({"ifaces": [)" + iface("serial://" + line.slave_path() + ":115200", 3) + ", " +
            iface("udp://127.0.0.1:" + std::to_string(udp.gate_port), 1) + ", " +
            iface("udpserial://127.0.0.1:" + std::to_string(udpserial.gate_port), 2) + ", " +
            iface("udp://127.0.0.1:" + std::to_string(manet_port), 4, R"(, "type": "manet")") +
            R"(], "manet_peers": [{"manet_addr": "0x0A000002", "netdev_addr": "0x22", "iface_id": 4, "inet_addr": ")" +
            gateway.udp.address() + R"("}]})";
        gate = std::make_unique<GateProcess>(
            std::vector<std::string>{"--config", dir.write_file("gate.json", config), "--debug", "2"});
        // Peers are added once every interface is open.
        ASSERT_TRUE(gate->wait_for_line("add MANet peer on iface 4: 0x0A000002 / 0x22 / " + gateway.udp.address() +
                                        " / UNKNOWN INET ADDR"))
            << gate->log();
    }

    TempDir dir;
    PtyPair line;
    Link udp{free_udp_port(), false};
    Link udpserial{free_udp_port(), true};
    Link serial{0, true, &line};
    uint16_t manet_port = free_udp_port();
    Link gateway{manet_port, false};
    std::unique_ptr<GateProcess> gate;
};

TEST_F(GateTrafficTest, FramesCrossBetweenEveryPairOfLinksAndBroadcastsReachEveryOtherPeerOnce) {
    Link udp_too{udp.gate_port, false};
    const std::vector<std::tuple<Link*, uint8_t, std::string>> devices = {
        {&udp, 0x0A, "add local peer on iface 1: 0x0A / " + udp.udp.address()},
        {&udpserial, 0x0B, "add local peer on iface 2: 0x0B / " + udpserial.udp.address()},
        {&serial, 0x0C, "add local peer on iface 3: 0x0C"},
        {&serial, 0x0E, "add local peer on iface 3: 0x0E"},
        // Behind the same socket as 0x0A, told apart by its socket address.
        {&udp_too, 0x0D, "add local peer on iface 1: 0x0D / " + udp_too.udp.address()},
    };
    // Each device makes itself known with a broadcast, which reaches every
    // device learned before it once, and never goes back onto its own bus.
    for (size_t i = 0; i < devices.size(); i++) {
        const auto& [link, addr, learned] = devices[i];
        const Frame hello{7, addr, 0xFF, {uint8_t(i)}};
        link->send(hello);
        ASSERT_TRUE(gate->wait_for_line(learned)) << gate->log();
        for (size_t j = 0; j < i; j++) {
            Link* other = std::get<0>(devices[j]);
            if (other == link) continue;
            EXPECT_EQ(other->receive(), hello) << j;
        }
    }
    for (const auto& [from, src, ignored] : devices) {
        for (const auto& [to, dst, unused] : devices) {
            if (from == to) continue;  // the same serial bus, or the same device
            const Frame frame{9, src, dst, {src, 0x42, 0x55, dst}};
            from->send(frame);
            EXPECT_EQ(to->receive(), frame);
        }
    }
    // Nothing else arrived anywhere.
    for (Link* link : {&udp, &udpserial, &serial, &udp_too}) EXPECT_EQ(link->receive(200), std::nullopt);
    // At level 2 forwards are logged and receptions are not.
    EXPECT_TRUE(gate->wait_for_line("forw frame to iface 1: 0x0C -> 0x0A / " + udp.udp.address() + ", proto_id 9"));
    for (const auto& line : gate->lines()) EXPECT_NE(line.rfind("recv", 0), 0u) << line;
}

TEST_F(GateTrafficTest, ManetPacketsCrossBetweenALocalLinkAndTheGatewayLink) {
    const std::string gw = gateway.udp.address();
    // The finished lookup wakes the idle gate, well before its 5 s select()
    // time-out would have.
    const std::string resolved = "MANet peer on iface 4 retrieved addrinfo '" + gw + "': '" + gw + "'";
    ASSERT_TRUE(gate->wait_for_line(resolved, milliseconds(3000))) << gate->log();

    // Out from node 0x0A000005, dst rewritten to the gateway's local
    // address, the MANet header unchanged:
    //   src_addr (4, LE) | dst_addr (4, LE) | kind | flag | data
    const Bytes ping = {0x05, 0, 0, 0x0A, 0x02, 0, 0, 0x0A, 3, 1, 'p', 'i', 'n', 'g'};
    udp.send({10, 0x05, 0x99, ping});
    EXPECT_EQ(gateway.receive(), (Frame{10, 0x05, 0x22, ping}));
    const std::string node = "0x0A000005 / 0x05 / " + udp.udp.address();
    EXPECT_TRUE(gate->wait_for_line("add MANet peer on iface 1: " + node)) << gate->log();
    EXPECT_TRUE(gate->wait_for_line("forw MANet packet to iface 4: " + node + " -> 0x0A000002 / 0x22 / " + gw));
    // Back to the node, dst set to the node's address.
    const Bytes pong = {0x02, 0, 0, 0x0A, 0x05, 0, 0, 0x0A, 0, 0, 'p', 'o', 'n', 'g'};
    gateway.send({10, 0x22, 0x40, pong});
    EXPECT_EQ(udp.receive(), (Frame{10, 0x22, 0x05, pong}));
}

}  // namespace
