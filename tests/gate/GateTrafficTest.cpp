// Frames through the real gate binary: learned senders, unicast and
// broadcast between "udp", "udpserial" and "serial" links, and MANet packets
// between a local link and a configured gateway.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"

using namespace test_support;
using Frame = RecordedFrame;

namespace {

constexpr uint8_t MANET_PROTO_ID = 10;

Bytes bytes_of(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes datagram(const Frame& frame) {
    Bytes bytes(3 + frame.payload.size());
    bytes[0] = frame.proto_id;
    bytes[1] = frame.src;
    bytes[2] = frame.dst;
    std::copy(frame.payload.begin(), frame.payload.end(), bytes.begin() + 3);
    return bytes;
}

std::vector<Frame> from_datagram(const Bytes& bytes) {
    if (bytes.size() < 3) return {};
    return {{bytes[0], bytes[1], bytes[2], Bytes(bytes.begin() + 3, bytes.end())}};
}

// One device on a link of the gate, played by the test: behind a UDP socket
// ("udp" or, with serial framing, "udpserial") or at the far end of a serial
// line.
class Link {
public:
    Link(uint16_t gate_port_, bool serial_framing_) : gate_port(gate_port_), serial_framing(serial_framing_) {}
    explicit Link(PtyPair& pty_) : pty(&pty_) {}

    void send(const Frame& frame) {
        if (pty) {
            ASSERT_TRUE(pty->write_master(to_serial_bytes(frame)));
        } else {
            ASSERT_TRUE(udp.send_to(gate_port, serial_framing ? to_serial_bytes(frame) : datagram(frame)));
        }
    }
    // The next frame the gate sent here; empty after the timeout.
    std::optional<Frame> receive(int timeout_ms = 3000) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (pending.empty() && std::chrono::steady_clock::now() < deadline) {
            if (pty) {
                pending = framing.feed(pty->read_master(4096, std::chrono::milliseconds(20)));
            } else if (auto bytes = udp.receive(20)) {
                pending = serial_framing ? framing.feed(*bytes) : from_datagram(*bytes);
            }
        }
        if (pending.empty()) return std::nullopt;
        const Frame frame = pending.front();
        pending.erase(pending.begin());
        return frame;
    }

    UdpEndpoint udp;

private:
    PtyPair* pty = nullptr;
    uint16_t gate_port = 0;
    bool serial_framing = false;
    SerialFraming framing;
    std::vector<Frame> pending;
};

// udp on iface 1, udpserial on iface 2, serial on iface 3, and the MANet
// interface 4 with gateway 0x0A000002 (local address 0x22) configured by
// its socket address.
class GateTrafficTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(line.ok());
        auto iface = [](const std::string& description, int id, const char* extra = "") {
            return R"({"iface": ")" + description + R"(", "id": )" + std::to_string(id) + extra + "}";
        };
        const std::string config =
            R"({"ifaces": [)" + iface("serial://" + line.slave_path() + ":115200", 3) + ", " +
            iface("udp://127.0.0.1:" + std::to_string(udp_port), 1) + ", " +
            iface("udpserial://127.0.0.1:" + std::to_string(udpserial_port), 2) + ", " +
            iface("udp://127.0.0.1:" + std::to_string(manet_port), 4, R"(, "type": "manet")") +
            R"(], "manet_peers": [{"manet_addr": "0x0A000002", "netdev_addr": "0x22", "iface_id": 4, "inet_addr": ")" +
            gateway.address() + R"("}]})";
        gate = std::make_unique<GateProcess>(
            std::vector<std::string>{"--config", dir.write_file("gate.json", config), "--debug", "2"});
        // Peers are added once every interface is open.
        ASSERT_TRUE(gate->wait_for_line("add MANet peer on iface 4: 0x0A000002 / 0x22 / " + gateway.address() +
                                        " / UNKNOWN INET ADDR"))
            << gate->log();
    }

    TempDir dir;
    PtyPair line;
    uint16_t udp_port = free_udp_port();
    uint16_t udpserial_port = free_udp_port();
    uint16_t manet_port = free_udp_port();
    Link udp{udp_port, false};
    Link udpserial{udpserial_port, true};
    Link serial{line};
    UdpEndpoint gateway;
    std::unique_ptr<GateProcess> gate;
};

TEST_F(GateTrafficTest, FramesCrossBetweenEveryPairOfLinkTypes) {
    struct Device {
        Link* link;
        uint8_t addr;
        std::string learned;
    };
    const std::vector<Device> devices = {
        {&udp, 0x0A, "add local peer on iface 1: 0x0A / " + udp.udp.address()},
        // A "udpserial" device keeps the sender's socket address but not its text.
        {&udpserial, 0x0B, "add local peer on iface 2: 0x0B / :"},
        {&serial, 0x0C, "add local peer on iface 3: 0x0C"},
    };
    // Each device makes itself known with a broadcast, which reaches every
    // device learned before it.
    for (size_t i = 0; i < devices.size(); i++) {
        const Frame hello{7, devices[i].addr, 0xFF, bytes_of("hello " + std::to_string(i))};
        devices[i].link->send(hello);
        ASSERT_TRUE(gate->wait_for_line(devices[i].learned)) << gate->log();
        for (size_t j = 0; j < i; j++) EXPECT_EQ(devices[j].link->receive(), hello) << "to device " << j;
    }
    for (const auto& from : devices) {
        for (const auto& to : devices) {
            if (from.addr == to.addr) continue;
            const Frame frame{9, from.addr, to.addr, {from.addr, 0x42, 0x55, to.addr}};
            from.link->send(frame);
            EXPECT_EQ(to.link->receive(), frame);
        }
    }
    // Nothing else arrived anywhere: no broadcast went back to its sender.
    for (const auto& device : devices) EXPECT_EQ(device.link->receive(200), std::nullopt);
    // At level 2 forwards are logged and receptions are not.
    EXPECT_TRUE(gate->wait_for_line("forw frame to iface 1: 0x0C -> 0x0A / " + udp.udp.address() + ", proto_id 9"));
    for (const auto& line : gate->lines()) EXPECT_NE(line.rfind("recv", 0), 0u) << line;
}

TEST_F(GateTrafficTest, BroadcastGoesOncePerPeerAndNeverBackOntoItsBus) {
    // Two devices behind the UDP socket, two behind the serial line.
    Link other_udp{udp_port, false};
    udp.send({5, 0x41, 0xFF, {1}});
    ASSERT_TRUE(gate->wait_for_line("add local peer on iface 1: 0x41 / " + udp.udp.address()));
    other_udp.send({5, 0x42, 0xFF, {2}});
    ASSERT_EQ(udp.receive(), (Frame{5, 0x42, 0xFF, {2}}));
    for (uint8_t addr : {0x21, 0x22}) {
        serial.send({7, addr, 0x41, {3}});
        ASSERT_EQ(udp.receive(), (Frame{7, addr, 0x41, {3}}));
    }
    // Peers behind one socket are told apart by their socket addresses.
    const Frame from_udp{5, 0x41, 0xFF, bytes_of("to all")};
    udp.send(from_udp);
    EXPECT_EQ(serial.receive(), from_udp);
    EXPECT_EQ(serial.receive(), from_udp);  // once for 0x21, once for 0x22
    EXPECT_EQ(other_udp.receive(), from_udp);

    const Frame from_serial{5, 0x22, 0xFF, bytes_of("bus")};
    serial.send(from_serial);
    EXPECT_EQ(udp.receive(), from_serial);
    EXPECT_EQ(other_udp.receive(), from_serial);
    EXPECT_EQ(serial.receive(300), std::nullopt);
    EXPECT_EQ(udp.receive(100), std::nullopt);
}

TEST_F(GateTrafficTest, DeviceFollowsTheLinkItWasLastHeardOn) {
    udp.send({7, 0x0A, 0xFF, bytes_of("here")});
    ASSERT_TRUE(gate->wait_for_line("add local peer on iface 1: 0x0A / " + udp.udp.address()));
    serial.send({7, 0x0A, 0xFF, bytes_of("now here")});
    ASSERT_TRUE(gate->wait_for_line("remove old local peer on iface 1: 0x0A / " + udp.udp.address())) << gate->log();
    ASSERT_TRUE(gate->wait_for_line("add local peer on iface 3: 0x0A")) << gate->log();
    const Frame frame{7, 0x0B, 0x0A, bytes_of("where are you")};
    udpserial.send(frame);
    EXPECT_EQ(serial.receive(), frame);
}

TEST_F(GateTrafficTest, ManetPacketsCrossBetweenALocalLinkAndTheGatewayLink) {
    const std::string gw = gateway.address();
    // The gate looks at the resolver once per pass of its loop; datagrams
    // too short to be frames make it pass.
    const std::string resolved = "MANet peer on iface 4 retrieved addrinfo '" + gw + "': '" + gw + "'";
    bool seen = false;
    for (int i = 0; i < 100 && !(seen = gate->wait_for_line(resolved, std::chrono::milliseconds(50))); i++) {
        udp.udp.send_to(udp_port, {0});
    }
    ASSERT_TRUE(seen) << gate->log();

    // Out from node 0x0A000005 on the local link, dst rewritten to the
    // gateway's local address, the MANet header unchanged:
    //   src_addr (4, LE) | dst_addr (4, LE) | kind | flag | data
    const Bytes ping = {0x05, 0, 0, 0x0A, 0x02, 0, 0, 0x0A, 3, 1, 'p', 'i', 'n', 'g'};
    udp.send({MANET_PROTO_ID, 0x05, 0x99, ping});
    EXPECT_EQ(gateway.receive(), datagram({MANET_PROTO_ID, 0x05, 0x22, ping}));
    const std::string node = "0x0A000005 / 0x05 / " + udp.udp.address();
    EXPECT_TRUE(gate->wait_for_line("add MANet peer on iface 1: " + node)) << gate->log();
    EXPECT_TRUE(gate->wait_for_line("forw MANet packet to iface 4: " + node + " -> 0x0A000002 / 0x22 / " + gw));

    // From an unknown gateway nothing passes; from the known one the packet
    // reaches the node with dst set to the node's address.
    const Bytes stranger = {0x03, 0, 0, 0x0A, 0x05, 0, 0, 0x0A, 0, 0, 'x'};
    ASSERT_TRUE(gateway.send_to(manet_port, datagram({MANET_PROTO_ID, 0x23, 0x05, stranger})));
    const Bytes pong = {0x02, 0, 0, 0x0A, 0x05, 0, 0, 0x0A, 0, 0, 'p', 'o', 'n', 'g'};
    ASSERT_TRUE(gateway.send_to(manet_port, datagram({MANET_PROTO_ID, 0x22, 0x40, pong})));
    EXPECT_EQ(udp.receive(), (Frame{MANET_PROTO_ID, 0x22, 0x05, pong}));
    EXPECT_EQ(udp.receive(100), std::nullopt);
}

}  // namespace
