// gatecat against the real gate binary and against itself: frames typed on
// one side arrive byte for byte on the other over udp, udpserial and a
// serial line, and what a dump prints replays through send.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/paths.h"

using namespace test_support;

namespace {

// The largest payload a "udpserial" device receives.
constexpr size_t MAX_UDPSERIAL_PAYLOAD = 2040;

std::string port_text(uint16_t port) {
    return std::to_string(port);
}

// A running `gatecat dump`, its frames and messages read through one pipe.
class Dump {
public:
    explicit Dump(const std::string& iface, const std::vector<std::string>& options = {}) {
        std::vector<std::string> args = {"dump", iface};
        args.insert(args.end(), options.begin(), options.end());
        process = std::make_unique<GateProcess>(gatecat_binary(), args, true);
    }
    bool listening() { return process->wait_for_prefix("gatecat: listening on ").has_value(); }
    // The frame field of the next frame line, empty at the timeout.
    std::string next_frame() {
        const auto line = process->wait_for([](const std::string& l) { return !l.empty() && l[0] == '('; });
        if (!line) return std::string();
        const size_t start = line->find(' ') + 1;
        return line->substr(start, line->find(' ', start) - start);
    }
    std::vector<std::string> frame_lines() const {
        std::vector<std::string> frames;
        for (const auto& line : process->lines()) {
            if (!line.empty() && line[0] == '(') frames.push_back(line);
        }
        return frames;
    }
    GateProcess& output() { return *process; }

private:
    std::unique_ptr<GateProcess> process;
};

void send(const std::string& iface, const std::vector<std::string>& frames) {
    std::vector<std::string> args = {"send", iface};
    args.insert(args.end(), frames.begin(), frames.end());
    const ProcessResult result = run_process(gatecat_binary(), args);
    ASSERT_EQ(result.exit_status, 0) << result.err;
    ASSERT_EQ(result.err, "");
}

// A gate with one link of each kind, and one device known on each:
//   iface 1  udp        0x10 behind gatecat's port udp_device
//   iface 2  udpserial  0x20 behind gatecat's port udpserial_device
//   iface 3  serial     0x30 at the far end of a null-modem line
class GatecatGateTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(line.ok());
        const std::string config = R"({"ifaces": [
              {"iface": "udp://127.0.0.1:)" +
                                   port_text(gate_udp) + R"(", "id": 1},
              {"iface": "udpserial://127.0.0.1:)" +
                                   port_text(gate_udpserial) + R"(", "id": 2},
              {"iface": "serial://)" +
                                   line.path_a() + R"(:115200", "id": 3}],
            "local_peers": [
              {"netdev_addr": "0x10", "iface_id": 1, "inet_addr": "127.0.0.1:)" +
                                   port_text(udp_device) + R"("},
              {"netdev_addr": "0x20", "iface_id": 2, "inet_addr": "127.0.0.1:)" +
                                   port_text(udpserial_device) + R"("},
              {"netdev_addr": "0x30", "iface_id": 3}]})";
        gate = std::make_unique<GateProcess>(
            std::vector<std::string>{"--config", dir.write_file("gate.json", config), "--debug", "2"});
        // The peers are added once every interface is open.
        ASSERT_TRUE(gate->wait_for_line("add local peer on iface 3: 0x30")) << gate->log();
    }

    // gatecat's own end of each link: listening where the gate sends, and
    // sending to the gate.
    std::string udp_end() const {
        return "udp://127.0.0.1:" + port_text(udp_device) + ":127.0.0.1:" + port_text(gate_udp);
    }
    std::string udpserial_end() const {
        return "udpserial://127.0.0.1:" + port_text(udpserial_device) + ":127.0.0.1:" + port_text(gate_udpserial);
    }
    std::string serial_end() const { return "serial://" + line.path_b() + ":115200"; }

    TempDir dir;
    PtyNullModem line;
    uint16_t gate_udp = free_udp_port();
    uint16_t gate_udpserial = free_udp_port();
    uint16_t udp_device = free_udp_port();
    uint16_t udpserial_device = free_udp_port();
    std::unique_ptr<GateProcess> gate;
};

TEST_F(GatecatGateTest, FramesCrossTheGateBetweenEveryKindOfLink) {
    struct Hop {
        std::string from;
        std::string to;
        std::string frame;
    };
    const std::vector<Hop> hops = {
        {udp_end(), udpserial_end(), "07:10>20#DEADBEEF"},
        {udpserial_end(), serial_end(), "09:20>30#4255AA"},  // bytes the serial framing escapes
        {serial_end(), udp_end(), "0B:30>10#0102"},
        // Serial lines and udpserial carry empty payloads ("udp" datagrams cannot).
        {serial_end(), udpserial_end(), "05:30>20#"},
    };
    for (const Hop& hop : hops) {
        Dump dump(hop.to, {"--count", "1"});
        ASSERT_TRUE(dump.listening()) << dump.output().log();
        send(hop.from, {hop.frame});
        EXPECT_EQ(dump.next_frame(), hop.frame) << hop.from << " -> " << hop.to << "\n" << gate->log();
        EXPECT_EQ(dump.output().wait_exit(), 0);
    }
}

TEST_F(GatecatGateTest, DecodedDumpShowsWhatTheGatewayForwards) {
    Dump dump(udp_end(), {"--decode", "--count", "2"});
    ASSERT_TRUE(dump.listening());
    send(serial_end(), {"0E:30>10#0109000000050000000000803F03", "08:30-10#010000000001050000000100000A01"});
    ASSERT_EQ(dump.output().wait_exit(), 0) << dump.output().log();
    const auto lines = dump.frame_lines();
    ASSERT_EQ(lines.size(), 2u) << dump.output().log();
    EXPECT_NE(lines[0].find(") 0E:30>10#0109000000050000000000803F03  proto_id 14  0x30 -> 0x10  len 14  "
                            "base_config{addr=5 power=1 channel=3}"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find(") 08:30>10#010000000001050000000100000A01  proto_id 8  0x30 -> 0x10  len 15  "
                            "seq=1 type=data utm_status{manet_addr=167772161 online=1}"),
              std::string::npos)
        << lines[1];
}

// Two gatecats back to back over udpserial (which, unlike udp, carries
// empty payloads): a dump's output sent again arrives unchanged.
TEST(GatecatReplay, DumpOutputReplaysThroughSendUnchanged) {
    const uint16_t a = free_udp_port();
    const uint16_t b = free_udp_port();
    const uint16_t c = free_udp_port();
    const std::vector<std::string> frames = {"07:01>02#DEADBEEF", "0A:FF>00#", "08:10>FF#4242555500FF",
                                             "FF:00>FF#" + std::string(2 * MAX_UDPSERIAL_PAYLOAD, 'A')};

    Dump first("udpserial://127.0.0.1:" + port_text(b), {"--count", std::to_string(frames.size())});
    ASSERT_TRUE(first.listening());
    send("udpserial://127.0.0.1:" + port_text(a) + ":127.0.0.1:" + port_text(b), frames);
    ASSERT_EQ(first.output().wait_exit(), 0) << first.output().log();
    std::string recorded;
    for (const auto& line : first.frame_lines()) recorded += line + "\n";

    Dump second("udpserial://127.0.0.1:" + port_text(c), {"--count", std::to_string(frames.size())});
    ASSERT_TRUE(second.listening());
    const ProcessResult replay = run_process_with_input(
        gatecat_binary(), {"send", "udpserial://127.0.0.1:" + port_text(a) + ":127.0.0.1:" + port_text(c)}, recorded);
    ASSERT_EQ(replay.exit_status, 0) << replay.err;
    ASSERT_EQ(second.output().wait_exit(), 0) << second.output().log();

    std::vector<std::string> replayed;
    for (size_t i = 0; i < frames.size(); i++) replayed.push_back(second.next_frame());
    EXPECT_EQ(replayed, frames);
}

}  // namespace
