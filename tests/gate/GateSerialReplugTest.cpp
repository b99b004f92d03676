// A serial adapter unplugged and plugged back while the real gate runs. The
// adapter is a pseudo-terminal behind a symlinked path, as udev gives a USB
// adapter a stable name: unplugging takes the permission bits off the old
// terminal's node (what the gate sees through its open descriptor) and
// removes the link; plugging back points the link at a new terminal.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/FreeUdpPort.h"
#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/UdpPoker.h"
#include "support/WireFrame.h"

using namespace test_support;
using namespace std::chrono_literals;

namespace {

std::optional<WireFrame> receive_serial(PtyPair& pty, SerialStreamDecoder& decoder) {
    const auto deadline = std::chrono::steady_clock::now() + 3s;
    while (std::chrono::steady_clock::now() < deadline) {
        auto frames = decoder.feed(pty.read_master(1, 100ms));
        if (!frames.empty()) return frames.front();
    }
    return std::nullopt;
}

std::optional<WireFrame> receive_udp(UdpEndpoint& endpoint) {
    auto datagram = endpoint.receive(3000);
    if (!datagram) return std::nullopt;
    auto frames = from_udp_datagram(*datagram);
    if (frames.empty()) return std::nullopt;
    return frames.front();
}

TEST(GateSerialReplug, PortIsClosedWhenUnpluggedAndReopenedWhenPluggedBack) {
    TempDir dir;
    auto first = std::make_unique<PtyPair>();
    ASSERT_TRUE(first->ok());
    const std::string link = dir.path() + "/ttyADAPTER";
    ASSERT_EQ(symlink(first->slave_path().c_str(), link.c_str()), 0);

    const uint16_t udp_port = free_udp_port();
    UdpEndpoint app;
    const std::string config = R"({"ifaces": [{"iface": "udp://127.0.0.1:)" + std::to_string(udp_port) +
                               R"(", "id": 1}, {"iface": "serial://)" + link + R"(:115200", "id": 2}]})";
    GateProcess gate({"--config", dir.write_file("gate.json", config)});
    ASSERT_TRUE(wait_until_udp_bound(udp_port)) << gate.log();

    // Once the gate has learned a UDP device it runs its loop, and the
    // serial line is in raw mode: only now may the far end talk.
    ASSERT_TRUE(app.send_to(udp_port, to_udp_datagram({7, 0x0A, 0xFF, {0}})));
    ASSERT_TRUE(gate.wait_for_line("add local peer on iface 1: 0x0A / " + app.address())) << gate.log();
    SerialStreamDecoder first_decoder;
    ASSERT_TRUE(first->write_master(to_serial_bytes({7, 0x0C, 0xFF, {1}})));
    ASSERT_TRUE(gate.wait_for_line("add local peer on iface 2: 0x0C")) << gate.log();
    ASSERT_EQ(receive_udp(app), (WireFrame{7, 0x0C, 0xFF, {1}}));
    const WireFrame before{7, 0x0A, 0x0C, {'b', 'e', 'f', 'o', 'r', 'e'}};
    ASSERT_TRUE(app.send_to(udp_port, to_udp_datagram(before)));
    ASSERT_EQ(receive_serial(*first, first_decoder), before);

    UdpPoker poker(udp_port);
    ASSERT_EQ(chmod(first->slave_path().c_str(), 0), 0);
    ASSERT_EQ(unlink(link.c_str()), 0);
    ASSERT_TRUE(gate.wait_for_line("Serial port " + link + " disconnected")) << gate.log();

    PtyPair second;
    ASSERT_TRUE(second.ok());
    ASSERT_EQ(symlink(second.slave_path().c_str(), link.c_str()), 0);
    ASSERT_TRUE(gate.wait_for_line("Serial port " + link + " connecting")) << gate.log();
    const auto& lines = gate.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Serial port " + link + " disconnected"), 1) << gate.log();

    SerialStreamDecoder second_decoder;
    const WireFrame after{7, 0x0A, 0x0C, {'a', 'f', 't', 'e', 'r'}};
    ASSERT_TRUE(app.send_to(udp_port, to_udp_datagram(after)));
    EXPECT_EQ(receive_serial(second, second_decoder), after);
    const WireFrame reply{7, 0x0C, 0x0A, {'o', 'k'}};
    ASSERT_TRUE(second.write_master(to_serial_bytes(reply)));
    EXPECT_EQ(receive_udp(app), reply);
}

}  // namespace
