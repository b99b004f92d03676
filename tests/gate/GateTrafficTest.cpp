// Local frames through the real gate binary: learned senders, unicast and
// broadcast between "udp", "udpserial" and "serial" links, and what each
// debug level prints about them.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/FreeUdpPort.h"
#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/WireFrame.h"

using namespace test_support;

namespace {

constexpr int RECEIVE_TIMEOUT_MS = 3000;

Bytes bytes_of(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

std::string hex2(unsigned value) {
    char buf[8];
    snprintf(buf, sizeof(buf), "0x%02X", value);
    return buf;
}

// One device on a link of the gate, played by the test.
class Link {
public:
    virtual ~Link() = default;
    virtual void send(const WireFrame& frame) = 0;
    // The next frame the gate sent here; empty after the timeout.
    std::optional<WireFrame> receive(int timeout_ms = RECEIVE_TIMEOUT_MS) { return receive_within(timeout_ms); }

protected:
    virtual std::optional<WireFrame> receive_within(int timeout_ms) = 0;
};

class UdpLink : public Link {
public:
    UdpLink(uint16_t gate_port_, bool serial_framing_) : gate_port(gate_port_), serial_framing(serial_framing_) {}
    void send(const WireFrame& frame) override {
        ASSERT_TRUE(endpoint.send_to(gate_port, serial_framing ? to_serial_bytes(frame) : to_udp_datagram(frame)));
    }
    std::optional<WireFrame> receive_within(int timeout_ms) override {
        while (pending.empty()) {
            auto datagram = endpoint.receive(timeout_ms);
            if (!datagram) return std::nullopt;
            pending = serial_framing ? decoder.feed(*datagram) : from_udp_datagram(*datagram);
        }
        WireFrame frame = pending.front();
        pending.erase(pending.begin());
        return frame;
    }
    std::string address() const { return endpoint.address(); }

    UdpEndpoint endpoint;

private:
    uint16_t gate_port;
    bool serial_framing;
    SerialStreamDecoder decoder;
    std::vector<WireFrame> pending;
};

class SerialLink : public Link {
public:
    void send(const WireFrame& frame) override { ASSERT_TRUE(pty.write_master(to_serial_bytes(frame))); }
    std::optional<WireFrame> receive_within(int timeout_ms) override {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (pending.empty()) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pending = decoder.feed(pty.read_master(1, left));
        }
        WireFrame frame = pending.front();
        pending.erase(pending.begin());
        return frame;
    }

    PtyPair pty;

private:
    SerialStreamDecoder decoder;
    std::vector<WireFrame> pending;
};

std::string iface_entry(const std::string& description, unsigned id) {
    return R"({"iface": ")" + description + R"(", "id": )" + std::to_string(id) + "}";
}

// udp on iface 1, udpserial on iface 2, serial on iface 3.
class GateTrafficTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(serial.pty.ok());
        // Built in file order: once the last socket is bound, the serial
        // line is in raw mode and every datagram will be read.
        const std::string config = R"({"ifaces": [)" +
                                   iface_entry("serial://" + serial.pty.slave_path() + ":115200", 3) + ", " +
                                   iface_entry("udp://127.0.0.1:" + std::to_string(udp_port), 1) + ", " +
                                   iface_entry("udpserial://127.0.0.1:" + std::to_string(udpserial_port), 2) + "]}";
        gate = std::make_unique<GateProcess>(
            std::vector<std::string>{"--config", dir.write_file("gate.json", config), "--debug", "3"});
        ASSERT_TRUE(wait_until_udp_bound(udpserial_port)) << gate->log();
    }

    TempDir dir;
    uint16_t udp_port = free_udp_port();
    uint16_t udpserial_port = free_udp_port();
    UdpLink udp{udp_port, false};
    UdpLink udpserial{udpserial_port, true};
    SerialLink serial;
    std::unique_ptr<GateProcess> gate;
};

TEST_F(GateTrafficTest, FramesCrossBetweenEveryPairOfLinkTypes) {
    struct Device {
        Link* link;
        uint8_t addr;
        std::string learned;
    };
    const std::vector<Device> devices = {
        {&udp, 0x0A, "add local peer on iface 1: 0x0A / " + udp.address()},
        // A "udpserial" device keeps the sender's socket address but not its text.
        {&udpserial, 0x0B, "add local peer on iface 2: 0x0B / :"},
        {&serial, 0x0C, "add local peer on iface 3: 0x0C"},
    };

    // Each device makes itself known with a broadcast, which reaches every
    // device learned before it.
    for (size_t i = 0; i < devices.size(); i++) {
        const WireFrame hello{7, devices[i].addr, 0xFF, bytes_of("hello " + std::to_string(i))};
        devices[i].link->send(hello);
        ASSERT_TRUE(gate->wait_for_line(devices[i].learned)) << gate->log();
        for (size_t j = 0; j < i; j++) EXPECT_EQ(devices[j].link->receive(), hello) << "to device " << j;
    }

    for (const auto& from : devices) {
        for (const auto& to : devices) {
            if (from.addr == to.addr) continue;
            const WireFrame frame{9, from.addr, to.addr, bytes_of(hex2(from.addr) + " to " + hex2(to.addr))};
            from.link->send(frame);
            EXPECT_EQ(to.link->receive(), frame);
        }
    }
    // Nothing else arrived anywhere: no broadcast went back to its sender.
    for (const auto& device : devices) EXPECT_EQ(device.link->receive(200), std::nullopt);
}

TEST_F(GateTrafficTest, BroadcastGoesOncePerPeerAndNeverBackOntoItsBus) {
    // One device behind each UDP socket, two behind the serial line.
    udp.send({5, 0x41, 0xFF, bytes_of("start")});
    ASSERT_TRUE(gate->wait_for_line("add local peer on iface 1: 0x41 / " + udp.address()));
    udpserial.send({5, 0x31, 0xFF, bytes_of("start")});
    ASSERT_TRUE(udp.receive());
    for (uint8_t addr : {0x21, 0x22}) {
        serial.send({7, addr, 0x41, bytes_of("hello")});
        ASSERT_EQ(udp.receive(), (WireFrame{7, addr, 0x41, bytes_of("hello")}));
    }

    const WireFrame broadcast{5, 0x41, 0xFF, bytes_of("to all")};
    udp.send(broadcast);
    EXPECT_EQ(serial.receive(), broadcast);
    EXPECT_EQ(serial.receive(), broadcast);  // once for 0x21, once for 0x22
    EXPECT_EQ(udpserial.receive(), broadcast);

    const WireFrame from_serial{5, 0x22, 0xFF, bytes_of("bus")};
    serial.send(from_serial);
    EXPECT_EQ(udp.receive(), from_serial);
    EXPECT_EQ(udpserial.receive(), from_serial);
    EXPECT_EQ(serial.receive(300), std::nullopt);
    EXPECT_EQ(udp.receive(100), std::nullopt);
}

TEST_F(GateTrafficTest, DeviceFollowsTheLinkItWasLastHeardOn) {
    udp.send({7, 0x0A, 0xFF, bytes_of("here")});
    ASSERT_TRUE(gate->wait_for_line("add local peer on iface 1: 0x0A / " + udp.address()));
    serial.send({7, 0x0A, 0xFF, bytes_of("now here")});
    ASSERT_TRUE(gate->wait_for_line("remove old local peer on iface 1: 0x0A / " + udp.address())) << gate->log();
    ASSERT_TRUE(gate->wait_for_line("add local peer on iface 3: 0x0A")) << gate->log();
    const WireFrame frame{7, 0x0B, 0x0A, bytes_of("where are you")};
    udpserial.send(frame);
    EXPECT_EQ(serial.receive(), frame);
}

// One gate per level, all driven through the same exchange: 0x0A on iface 1
// broadcasts, 0x0B on iface 2 answers it, 0x0A writes to an unknown device,
// and a last frame from 0x0D marks the end.
TEST(GateDebugLevels, EachLevelAddsItsLines) {
    TempDir dir;
    struct Run {
        uint16_t port1 = free_udp_port();
        uint16_t port2 = free_udp_port();
        UdpLink a{port1, false};
        UdpLink b{port2, false};
        std::unique_ptr<GateProcess> gate;
    };
    std::vector<std::unique_ptr<Run>> runs;
    for (int level = 0; level <= 3; level++) {
        auto run = std::make_unique<Run>();
        const std::string config = R"({"ifaces": [)" + iface_entry("udp://127.0.0.1:" + std::to_string(run->port1), 1) +
                                   ", " + iface_entry("udp://127.0.0.1:" + std::to_string(run->port2), 2) + "]}";
        run->gate = std::make_unique<GateProcess>(
            std::vector<std::string>{"--config", dir.write_file("gate" + std::to_string(level) + ".json", config),
                                     "--debug", std::to_string(level)});
        runs.push_back(std::move(run));
    }
    for (auto& run : runs) ASSERT_TRUE(wait_until_udp_bound(run->port2)) << run->gate->log();

    for (int level = 0; level <= 3; level++) {
        Run& run = *runs[level];
        const std::string a = run.a.address();
        const std::string b = run.b.address();
        run.a.send({7, 0x0A, 0xFF, bytes_of("abc")});
        ASSERT_TRUE(run.gate->wait_for_line("add local peer on iface 1: 0x0A / " + a)) << run.gate->log();
        run.b.send({7, 0x0B, 0x0A, bytes_of("hello")});
        ASSERT_EQ(run.a.receive(), (WireFrame{7, 0x0B, 0x0A, bytes_of("hello")}));
        run.a.send({7, 0x0A, 0x77, bytes_of("x")});
        run.a.send({3, 0x0D, 0xFF, bytes_of("end")});
        ASSERT_TRUE(run.gate->wait_for_line("add local peer on iface 1: 0x0D / " + a)) << run.gate->log();

        const std::vector<std::pair<int, std::string>> script = {
            {3, "recv frame on iface 1: 0x0A / " + a + " -> 0xFF, size=3, proto_id 7"},
            {0, "add local peer on iface 1: 0x0A / " + a},
            {3, "recv frame on iface 2: 0x0B / " + b + " -> 0x0A, size=5, proto_id 7"},
            {0, "add local peer on iface 2: 0x0B / " + b},
            {2, "forw frame to iface 1: 0x0B -> 0x0A / " + a + ", proto_id 7"},
            {3, "recv frame on iface 1: 0x0A / " + a + " -> 0x77, size=1, proto_id 7"},
            {1, "WARNING: local peer not found to route 0x0A -> 0x77, proto_id 7"},
            {3, "recv frame on iface 1: 0x0D / " + a + " -> 0xFF, size=3, proto_id 3"},
            {0, "add local peer on iface 1: 0x0D / " + a},
            {2, "forw frame to iface 2: 0x0D -> 0xFF / " + b + ", proto_id 3"},
        };
        std::vector<std::string> expected;
        for (const auto& [min_level, line] : script) {
            if (level >= min_level) expected.push_back(line);
        }
        // The end marker's forward line follows its add line at levels 2 and 3.
        if (level >= 2) {
            ASSERT_TRUE(run.gate->wait_for_line(expected.back())) << run.gate->log();
        }
        EXPECT_EQ(run.gate->lines(), expected) << "level " << level;
    }
}

}  // namespace
