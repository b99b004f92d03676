// Links that go away and come back under the real gate binary: serial
// lines hung up, unplugged or not openable. Each case looks at the log, at
// the gate's CPU while the link is broken, and at frames both ways, once
// each, after it is back.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>

#include "support/ControlClient.h"
#include "support/GateLink.h"
#include "support/GateProcess.h"
#include "support/ProcessCpu.h"
#include "support/TempDir.h"

using namespace test_support;
using std::chrono::milliseconds;

namespace {

// Loose enough for a loaded 2-core machine: a gate that spins uses a whole core.
constexpr double BROKEN_LINK_CPU_LIMIT_PERCENT = 1.0;
const milliseconds CPU_SAMPLE(3000);

std::string iface(const std::string& description, int id) {
    return R"({"iface": ")" + description + R"(", "id": )" + std::to_string(id) + "}";
}

// A serial link on iface 1 reached through `path`, a "udp" link on iface 2.
class GateLinksTest : public testing::Test {
protected:
    void start(const std::string& serial_path) {
        const std::string config = R"({"ifaces": [)" + iface("serial://" + serial_path + ":115200", 1) + ", " +
                                   iface("udp://127.0.0.1:" + std::to_string(udp.gate_port), 2) +
                                   R"(], "control": {"path": ")" + dir.path() + R"(/control.sock"}})";
        gate = std::make_unique<GateProcess>(
            std::vector<std::string>{"--config", dir.write_file("gate.json", config), "--debug", "1"});
    }
    void plug(const PtyPair& pty) {
        unlink(path.c_str());
        ASSERT_EQ(symlink(pty.slave_path().c_str(), path.c_str()), 0);
    }
    // Time from now until `line` is logged, after plugging the line back.
    milliseconds recovery(const std::string& line) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(gate->wait_for_line(line)) << gate->log();
        return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
    }
    // Devices 0x0C on the serial line and 0x0B behind the UDP socket talk
    // both ways; each frame arrives once.
    void frames_cross(uint8_t tag) {
        const RecordedFrame to_udp{9, 0x0C, 0x0B, {tag, 0x42}}, to_serial{9, 0x0B, 0x0C, {tag, 0x55}};
        serial.send(to_udp);
        EXPECT_EQ(udp.receive(), to_udp);
        udp.send(to_serial);
        EXPECT_EQ(serial.receive(), to_serial);
        EXPECT_EQ(udp.receive(200), std::nullopt);
        EXPECT_EQ(serial.receive(200), std::nullopt);
    }
    // Both devices say hello, 0x0B first until the gate, just started, has
    // it; 0x0C's broadcast then reaches 0x0B.
    void introduce() {
        const std::string learned = "add local peer on iface 2: 0x0B / " + udp.udp.address();
        bool seen = false;
        for (int i = 0; i < 50 && !seen; i++) {
            udp.send({9, 0x0B, 0xFF, {0}});
            seen = gate->wait_for_line(learned, milliseconds(100));
        }
        ASSERT_TRUE(seen) << gate->log();
        serial.send({9, 0x0C, 0xFF, {0}});
        ASSERT_TRUE(gate->wait_for_line("add local peer on iface 1: 0x0C")) << gate->log();
        EXPECT_EQ(udp.receive(), (RecordedFrame{9, 0x0C, 0xFF, {0}}));
    }
    // Whether the control socket's stats call each link up, by id.
    std::vector<bool> links_up() {
        ControlClient client(dir.path() + "/control.sock");
        const auto stats = client.ask("stats");
        std::vector<bool> up;
        for (const auto& entry : stats["interfaces"]) up.push_back(entry["link_up"].get<bool>());
        return up;
    }
    size_t count(const std::string& line) {
        const auto lines = gate->lines();
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
    }

    TempDir dir;
    const std::string path = dir.path() + "/ttyADAPTER";
    Link udp{free_udp_port(), false};
    Link serial{0, true};
    std::unique_ptr<GateProcess> gate;
};

}  // namespace

// The far end hangs up: the terminal stays readable for ever and its path goes.
// The gate says so once, sleeps, and takes the new terminal that appears
// under the same name, whose traffic then flows both ways.
TEST_F(GateLinksTest, HungUpSerialLineIsClosedOnceAndTheNewLineUnderItsNameCarriesFrames) {
    PtyPair first, second;
    plug(first);
    start(path);
    serial.pty = &first;
    introduce();
    frames_cross(1);

    // udev removes an adapter's link with it; a dangling one could meet
    // another test's terminal under the recycled number.
    first.hang_up();
    unlink(path.c_str());
    ASSERT_TRUE(gate->wait_for_line("Serial port " + path + " disconnected")) << gate->log();
    const double cpu = cpu_percent_of(gate->pid(), CPU_SAMPLE);
    EXPECT_LT(cpu, BROKEN_LINK_CPU_LIMIT_PERCENT);
    EXPECT_EQ(links_up(), (std::vector<bool>{false, true}));

    plug(second);
    serial.pty = &second;
    const milliseconds recovered = recovery("Serial port " + path + " connecting");
    frames_cross(2);
    EXPECT_EQ(links_up(), (std::vector<bool>{true, true}));
    EXPECT_EQ(count("Serial port " + path + " disconnected"), 1u) << gate->log();
    std::printf("serial hang-up: %.2f%% CPU while broken, back %lld ms after the new line appeared\n", cpu,
                static_cast<long long>(recovered.count()));
}

// A path that is there but cannot be opened is retried quietly; the missing
// path that follows it is waited for without a word; the line that finally
// appears is taken.
TEST_F(GateLinksTest, SerialPathThatCannotBeOpenedIsLoggedOnceAndRetriedQuietly) {
    ASSERT_EQ(symlink(dir.write_file("not-a-tty", "").c_str(), path.c_str()), 0);
    start(path);
    ASSERT_TRUE(gate->wait_for_line("ERROR: open serial port: " + path)) << gate->log();
    const double cpu = cpu_percent_of(gate->pid(), CPU_SAMPLE);
    EXPECT_LT(cpu, BROKEN_LINK_CPU_LIMIT_PERCENT);
    unlink(path.c_str());
    std::this_thread::sleep_for(milliseconds(1500));  // a retry or so without the path

    PtyPair pty;
    plug(pty);
    serial.pty = &pty;
    const milliseconds recovered = recovery("Serial port " + path + " connecting");
    introduce();
    frames_cross(3);
    EXPECT_EQ(gate->lines(),
              (std::vector<std::string>{
                  "SerialPort: ERROR: tcgetattr: Inappropriate ioctl for device",
                  "SerialPort: ERROR: setting default port configuration: Inappropriate ioctl for device",
                  "ERROR: open serial port: " + path, "Serial port " + path + " connecting",
                  "add local peer on iface 2: 0x0B / " + udp.udp.address(), "add local peer on iface 1: 0x0C"}));
    std::printf("serial failing open: %.2f%% CPU while broken, back %lld ms after the line appeared\n", cpu,
                static_cast<long long>(recovered.count()));
}
