// The MANet side of the real gate binary: packets between a local link and
// the MANet interface, peers named by a device's configuration message and
// resolved by name, learned links ageing out, and the RF modem's periodic
// configuration.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/FreeUdpPort.h"
#include "support/GateProcess.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/UdpPoker.h"
#include "support/WireFrame.h"

using namespace test_support;
using namespace std::chrono_literals;

namespace {

constexpr uint8_t SERVICE_PROTO_ID = 8;
constexpr uint8_t MANET_PROTO_ID = 10;
constexpr uint8_t RFMODEM_PROTO_ID = 14;
constexpr int RECEIVE_TIMEOUT_MS = 3000;

void put_le(Bytes& out, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; i++) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// MANet packet header:
//   offset size field
//   0      4    src_addr
//   4      4    dst_addr
//   8      1    kind
//   9      1    flag
//   10     n    data
Bytes manet_packet(uint32_t src_addr, uint32_t dst_addr, const std::string& data) {
    Bytes packet;
    put_le(packet, src_addr, 4);
    put_le(packet, dst_addr, 4);
    packet.push_back(3);  // kind, carried through
    packet.push_back(1);  // flag, carried through
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

// A guarantor-framed device_config record naming a UTM server: seq, type,
// message id 4, body size, then the 111-byte body with an empty
// generic_config_json.
Bytes device_config(uint32_t utm_manet_addr, const std::string& utm_host, uint16_t utm_port) {
    Bytes record;
    put_le(record, 77, 4);  // seq
    record.push_back(1);    // request
    record.push_back(4);    // device_config
    put_le(record, 111, 4);
    record.insert(record.end(), 32, 'S');  // device_serial
    record.insert(record.end(), 16, 'H');  // hash
    record.push_back(2);                   // cfg_id
    put_le(record, 0x0A000005, 4);         // node_manet_addr
    put_le(record, utm_manet_addr, 4);
    put_le(record, utm_port, 2);
    record.insert(record.end(), 16, 'K');  // node_manet_key
    Bytes host(32, 0);
    std::memcpy(host.data(), utm_host.data(), utm_host.size());
    record.insert(record.end(), host.begin(), host.end());
    put_le(record, 0, 4);  // generic_config_json length
    return record;
}

std::optional<WireFrame> receive_frame(UdpEndpoint& endpoint, int timeout_ms = RECEIVE_TIMEOUT_MS) {
    auto datagram = endpoint.receive(timeout_ms);
    if (!datagram) return std::nullopt;
    auto frames = from_udp_datagram(*datagram);
    if (frames.empty()) return std::nullopt;
    return frames.front();
}

std::string iface_entry(uint16_t port, unsigned id, const std::string& extra = "") {
    return R"({"iface": "udp://127.0.0.1:)" + std::to_string(port) + R"(", "id": )" + std::to_string(id) + extra + "}";
}

std::unique_ptr<GateProcess> start_gate(const TempDir& dir, const std::string& config, const std::string& level) {
    return std::make_unique<GateProcess>(
        std::vector<std::string>{"--config", dir.write_file("gate.json", config), "--debug", level});
}

// iface 1: local link with node 0x05 (MANet 0x0A000005); iface 2: MANet
// link with gateway 0x0A000002, local address 0x22, configured by address.
TEST(GateManet, PacketsCrossBetweenLocalLinkAndManetAndLearnedLinksAgeOut) {
    TempDir dir;
    const uint16_t local_port = free_udp_port();
    const uint16_t manet_port = free_udp_port();
    UdpEndpoint node;
    UdpEndpoint gateway;
    const std::string config =
        R"({"ifaces": [)" + iface_entry(local_port, 1) + ", " + iface_entry(manet_port, 2, R"(, "type": "manet")") +
        R"(], "manet_peers": [{"manet_addr": "0x0A000002", "netdev_addr": "0x22", "iface_id": 2, "inet_addr": ")" +
        gateway.address() + R"("}]})";
    auto gate = start_gate(dir, config, "2");
    UdpPoker poker(local_port);

    ASSERT_TRUE(gate->wait_for_line("add MANet peer on iface 2: 0x0A000002 / 0x22 / " + gateway.address() +
                                    " / UNKNOWN INET ADDR"))
        << gate->log();
    ASSERT_TRUE(gate->wait_for_line("MANet peer on iface 2 retrieved addrinfo '" + gateway.address() + "': '" +
                                    gateway.address() + "'"))
        << gate->log();

    const Bytes outbound = manet_packet(0x0A000005, 0x0A000002, "ping");
    ASSERT_TRUE(node.send_to(local_port, to_udp_datagram({MANET_PROTO_ID, 0x05, 0x99, outbound})));
    EXPECT_EQ(receive_frame(gateway), (WireFrame{MANET_PROTO_ID, 0x05, 0x22, outbound}));
    const std::string node_text = "0x0A000005 / 0x05 / " + node.address();
    EXPECT_TRUE(gate->wait_for_line("add MANet peer on iface 1: " + node_text)) << gate->log();
    EXPECT_TRUE(gate->wait_for_line("forw MANet packet to iface 2: " + node_text + " -> 0x0A000002 / 0x22 / " +
                                    gateway.address()))
        << gate->log();

    // From an unknown gateway nothing passes; from a known one the packet
    // goes to the node's link with dst set to the node's address.
    ASSERT_TRUE(gateway.send_to(
        manet_port, to_udp_datagram({MANET_PROTO_ID, 0x23, 0x05, manet_packet(0x0A000003, 0x0A000005, "x")})));
    const Bytes inbound = manet_packet(0x0A000002, 0x0A000005, "pong");
    ASSERT_TRUE(gateway.send_to(manet_port, to_udp_datagram({MANET_PROTO_ID, 0x22, 0x40, inbound})));
    EXPECT_EQ(receive_frame(node), (WireFrame{MANET_PROTO_ID, 0x22, 0x05, inbound}));

    // Ten seconds after the node was last heard, its link goes; the
    // configured one stays.
    const auto removed = gate->wait_for_prefix("Remove MANet peer on iface 1, last seen ", 20s);
    ASSERT_TRUE(removed) << gate->log();
    EXPECT_NE(removed->find(": " + node_text), std::string::npos) << *removed;
    ASSERT_TRUE(node.send_to(local_port, to_udp_datagram({MANET_PROTO_ID, 0x05, 0x99, outbound})));
    EXPECT_EQ(receive_frame(gateway), (WireFrame{MANET_PROTO_ID, 0x05, 0x22, outbound}));
    EXPECT_TRUE(gate->wait_for_line("add MANet peer on iface 1: " + node_text)) << gate->log();
    for (const auto& line : gate->lines()) EXPECT_EQ(line.find("Remove MANet peer on iface 2"), std::string::npos);
}

// A device's configuration message names its UTM server; the gate adds it
// as a MANet peer on the MANet interface and resolves it in the background.
TEST(GateManet, DeviceConfigAddsUtmPeerThatResolves) {
    TempDir dir;
    const uint16_t local_port = free_udp_port();
    const uint16_t manet_port = free_udp_port();
    UdpEndpoint node;
    UdpEndpoint utm_by_address;
    UdpEndpoint utm_by_name;
    const std::string config = R"({"ifaces": [)" + iface_entry(local_port, 1) + ", " +
                               iface_entry(manet_port, 2, R"(, "type": "manet")") + "]}";
    auto gate = start_gate(dir, config, "0");
    ASSERT_TRUE(wait_until_udp_bound(manet_port)) << gate->log();
    UdpPoker poker(local_port);

    const std::string first = "127.0.0.1:" + std::to_string(utm_by_address.port());
    ASSERT_TRUE(
        node.send_to(local_port, to_udp_datagram({SERVICE_PROTO_ID, 0x05, 0x01,
                                                  device_config(0x0B000001, "127.0.0.1", utm_by_address.port())})));
    ASSERT_TRUE(gate->wait_for_line("add MANet peer on iface 2: 0x0B000001 / 0xFF / " + first + " / UNKNOWN INET ADDR"))
        << gate->log();
    ASSERT_TRUE(gate->wait_for_line("MANet peer on iface 2 retrieved addrinfo '" + first + "': '" + first + "'"))
        << gate->log();
    const Bytes packet = manet_packet(0x0A000005, 0x0B000001, "status");
    ASSERT_TRUE(node.send_to(local_port, to_udp_datagram({MANET_PROTO_ID, 0x05, 0x01, packet})));
    EXPECT_EQ(receive_frame(utm_by_address), (WireFrame{MANET_PROTO_ID, 0x05, 0xFF, packet}));

    // The same UTM again changes nothing; another host replaces the link.
    const std::string by_name = "localhost:" + std::to_string(utm_by_name.port());
    const std::string resolved = "127.0.0.1:" + std::to_string(utm_by_name.port());
    ASSERT_TRUE(node.send_to(
        local_port,
        to_udp_datagram({SERVICE_PROTO_ID, 0x05, 0x01, device_config(0x0B000001, "localhost", utm_by_name.port())})));
    ASSERT_TRUE(gate->wait_for_line("Replace MANet peer on iface 2: 0x0B000001 / 0xFF / " + first + " / " + first))
        << gate->log();
    ASSERT_TRUE(
        gate->wait_for_line("add MANet peer on iface 2: 0x0B000001 / 0xFF / " + by_name + " / UNKNOWN INET ADDR"))
        << gate->log();
    ASSERT_TRUE(gate->wait_for_line("MANet peer on iface 2 retrieved addrinfo '" + by_name + "': '" + resolved + "'"))
        << gate->log();
    ASSERT_TRUE(node.send_to(local_port, to_udp_datagram({MANET_PROTO_ID, 0x05, 0x01, packet})));
    EXPECT_EQ(receive_frame(utm_by_name), (WireFrame{MANET_PROTO_ID, 0x05, 0xFF, packet}));
    EXPECT_EQ(utm_by_address.receive(100), std::nullopt);
}

TEST(GateManet, RfModemGetsBaseConfigAboutOnceASecond) {
    TempDir dir;
    const uint16_t port = free_udp_port();
    UdpEndpoint modem;
    const std::string config =
        R"({"ifaces": [{"iface": "udp://127.0.0.1:)" + std::to_string(port) + ":" + modem.address() +
        R"(", "id": 1, "rfmodem_config": {"channel": 7, "power": 1.5}}],)" +
        R"( "manet_peers": [{"manet_addr": "0x00000009", "netdev_addr": "3", "iface_id": 1, "inet_addr": "127.0.0.1:9"},)" +
        R"( {"manet_addr": "5", "netdev_addr": "4", "iface_id": 1, "inet_addr": "127.0.0.1:9"}]})";
    auto gate = start_gate(dir, config, "0");
    ASSERT_TRUE(gate->wait_for_line("RFModem on iface 1: addr=0x00000005 channel=7 power=1.5")) << gate->log();
    UdpPoker poker(port);

    // id 1, size 9, addr 5, power 1.5f, channel 7, from the device's own
    // address 0xFF to the modem at 9.
    const WireFrame expected{
        RFMODEM_PROTO_ID, 0xFF, 9, {0x01, 0x09, 0, 0, 0, 0x05, 0, 0, 0, 0x00, 0x00, 0xC0, 0x3F, 0x07}};
    std::vector<std::chrono::steady_clock::time_point> arrivals;
    for (int i = 0; i < 4; i++) {
        ASSERT_EQ(receive_frame(modem), expected) << gate->log();
        arrivals.push_back(std::chrono::steady_clock::now());
    }
    for (size_t i = 1; i < arrivals.size(); i++) {
        const auto gap = arrivals[i] - arrivals[i - 1];
        EXPECT_GT(gap, 900ms) << i;
        EXPECT_LT(gap, 2500ms) << i;
    }
}

}  // namespace
