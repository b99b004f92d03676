// The configuration file as the real gate binary reads it: every error ends
// the process with its line and status 1, malformed text and wrong types end
// it abnormally, and good files leave it running.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/FreeUdpPort.h"
#include "support/GateProcess.h"
#include "support/TempDir.h"

using test_support::GateProcess;
using test_support::TempDir;

namespace {

using namespace std::chrono_literals;

constexpr int EXIT_ABORTED = 128 + 6;  // SIGABRT of an uncaught exception
// A gate still running this long after start has taken its configuration.
constexpr auto SETTLE_TIME = 500ms;

std::string udp_iface() {
    return "udp://127.0.0.1:" + std::to_string(test_support::free_udp_port());
}

std::string iface_entry(const std::string& description, unsigned id, const std::string& extra = "") {
    return R"({"iface": ")" + description + R"(", "id": )" + std::to_string(id) + extra + "}";
}

std::string config_with(const std::vector<std::string>& ifaces, const std::string& rest = "") {
    std::string text = R"({"ifaces": [)";
    for (size_t i = 0; i < ifaces.size(); i++) text += (i ? ", " : "") + ifaces[i];
    return text + "]" + rest + "}";
}

// `expected` must appear in the log in this order, the last of them as the
// log's last line.
void expect_log_ends_with(const GateProcess& gate, const std::vector<std::string>& expected, const std::string& name) {
    const auto& lines = gate.lines();
    size_t at = 0;
    for (const auto& want : expected) {
        while (at < lines.size() && lines[at] != want) at++;
        ASSERT_LT(at, lines.size()) << name << ": missing '" << want << "' in\n" << gate.log();
        at++;
    }
    EXPECT_EQ(at, lines.size()) << name << ": lines after '" << expected.back() << "' in\n" << gate.log();
}

struct Started {
    std::string name;
    std::unique_ptr<GateProcess> gate;
};

// Starts one gate per configuration at once; they share the machine's two
// cores better than one after the other.
std::vector<Started> start_all(const TempDir& dir, const std::vector<std::pair<std::string, std::string>>& configs,
                               const std::string& debug_level = "0") {
    std::vector<Started> started;
    for (size_t i = 0; i < configs.size(); i++) {
        const std::string path = dir.write_file("config" + std::to_string(i) + ".json", configs[i].second);
        started.push_back({configs[i].first, std::make_unique<GateProcess>(
                                                 std::vector<std::string>{"--config", path, "--debug", debug_level})});
    }
    return started;
}

struct ErrorCase {
    std::string name;
    std::string config;
    std::vector<std::string> expected;
};

TEST(GateConfig, EveryConfigurationErrorPrintsItsLineAndExitsOne) {
    TempDir dir;
    const std::string no_port = dir.path() + "/no-such-tty";
    const std::string udp1 = udp_iface();
    const std::string udp2 = udp_iface();
    const std::string serial = "serial://" + no_port + ":9600";
    const std::string local_peers = R"(, "local_peers": [)";
    const std::string manet_peers = R"(, "manet_peers": [)";

    const std::vector<ErrorCase> cases = {
        {"no ifaces",
         R"({"local_peers": []})",
         {"ERROR: missing \"ifaces\" entry in config file", "ERROR: parse config file"}},
        {"ifaces not an array",
         R"({"ifaces": {"iface": "x"}})",
         {"ERROR: \"ifaces\" node is not an array", "ERROR: parse config file"}},
        {"iface missing", config_with({R"({"id": 1})"}), {"ERROR: missing \"iface\" field"}},
        {"id missing", config_with({R"({"iface": ")" + udp1 + R"("})"}), {"ERROR: missing \"id\" field"}},
        {"unsupported type",
         config_with({iface_entry("tcp://a:1", 1)}),
         {"ERROR: unsupported interface type \"tcp\", supported types: serial, can, udp, udpserial",
          "ERROR: parse \"iface\" field: tcp://a:1"}},
        {"type is case-sensitive",
         config_with({iface_entry("UDP://127.0.0.1:1", 1)}),
         {"ERROR: unsupported interface type \"UDP\", supported types: serial, can, udp, udpserial",
          "ERROR: parse \"iface\" field: UDP://127.0.0.1:1"}},
        {"no type separator",
         config_with({iface_entry("udp:127.0.0.1:1", 1)}),
         {"ERROR: invalid interface description", "ERROR: parse \"iface\" field: udp:127.0.0.1:1"}},
        {"no parameters",
         config_with({iface_entry("udp://", 1)}),
         {"ERROR: invalid interface description", "ERROR: parse \"iface\" field: udp://"}},
        {"three udp parameters",
         config_with({iface_entry("udp://127.0.0.1:1:2", 1)}),
         {"ERROR: parse \"iface\" field: udp://127.0.0.1:1:2"}},
        {"listen port not a number",
         config_with({iface_entry("udp://127.0.0.1:abc", 1)}),
         {"ERROR: parse listen port abc: stoul", "ERROR: parse \"iface\" field: udp://127.0.0.1:abc"}},
        {"listen host not numeric",
         config_with({iface_entry("udpserial://localhost:7", 1)}),
         {"ERROR: failed to create inet address from host/port. localhost : 7",
          "ERROR: parse \"iface\" field: udpserial://localhost:7"}},
        {"listen address not local",
         config_with({iface_entry("udp://192.0.2.1:65541", 1)}),
         {"NetDeviceUDP: ERROR binding to 192.0.2.1:5: Cannot assign requested address",
          "ERROR: create socket on address 192.0.2.1:5", "ERROR: parse \"iface\" field: udp://192.0.2.1:65541"}},
        {"destination port not a number",
         config_with({iface_entry(udp1 + ":127.0.0.1:x9", 1)}),
         {"ERROR: parse destination port x9: stoul", "ERROR: parse \"iface\" field: " + udp1 + ":127.0.0.1:x9"}},
        {"destination host not numeric",
         config_with({iface_entry(udp1 + ":gw.invalid:9", 1)}),
         {"ERROR: failed to create destination address from gw.invalid : 9",
          "ERROR: parse \"iface\" field: " + udp1 + ":gw.invalid:9"}},
        {"serial baud rate not a number",
         config_with({iface_entry("serial://" + no_port + ":fast", 1)}),
         {"ERROR: parse serial baudrate: stol", "ERROR: parse \"iface\" field: serial://" + no_port + ":fast"}},
        {"serial stop bits not a number",
         config_with({iface_entry(serial + ":two", 1)}),
         {"ERROR: parse \"iface\" field: " + serial + ":two"}},
        {"can bus that does not exist",
         config_with({iface_entry("can://nosuchcan9", 1)}),
         {"ERROR: failed to open CAN device: nosuchcan9", "ERROR: parse \"iface\" field: can://nosuchcan9"}},
        {"duplicate id",
         config_with({iface_entry(udp1, 4), iface_entry(udp2, 4)}),
         {"ERROR: duplicate device id 4", "ERROR: parse config file"}},
        {"bad description wins over duplicate id",
         config_with({iface_entry(udp1, 4), iface_entry("udp://", 4)}),
         {"ERROR: invalid interface description", "ERROR: parse \"iface\" field: udp://"}},
        {"two manet interfaces",
         config_with({iface_entry(udp1, 1, R"(, "type": "manet")"), iface_entry(udp2, 2, R"(, "type": "manet")")}),
         {"ERROR: only one MANET interface is supported"}},
        {"local peer without address",
         config_with({iface_entry(udp1, 1)}, local_peers + R"({"iface_id": 1}])"),
         {"ERROR: missing \"netdev_addr\" field"}},
        {"local peer without iface",
         config_with({iface_entry(udp1, 1)}, local_peers + R"({"netdev_addr": "5"}])"),
         {"ERROR: missing \"iface_id\" field"}},
        {"local peer on unknown iface",
         config_with({iface_entry(udp1, 1)}, local_peers + R"({"netdev_addr": "5", "iface_id": 9}])"),
         {"ERROR: iface with id 9 not found"}},
        {"local udp peer without inet address",
         config_with({iface_entry(udp1, 1)}, local_peers + R"({"netdev_addr": "5", "iface_id": 1}])"),
         {"ERROR: missing \"inet_addr\" field"}},
        {"local udp peer with a host name",
         config_with({iface_entry(udp1, 1)},
                     local_peers + R"({"netdev_addr": "5", "iface_id": 1, "inet_addr": "localhost:9"}])"),
         {"ERROR: failed to parse inet address: localhost:9"}},
        {"duplicate local peer",
         config_with(
             {iface_entry(serial, 1), iface_entry(udp1, 2)},
             local_peers + R"({"netdev_addr": "0x05", "iface_id": 1},)" + R"({"netdev_addr": "5", "iface_id": 1}])"),
         {"add local peer on iface 1: 0x05", "ERROR: duplicate local peer: 0x05"}},
        {"manet peer without manet address",
         config_with({iface_entry(serial, 1)}, manet_peers + R"({"netdev_addr": "5", "iface_id": 1}])"),
         {"ERROR: missing \"manet_addr\" field"}},
        {"manet peer without local address",
         config_with({iface_entry(serial, 1)}, manet_peers + R"({"manet_addr": "7", "iface_id": 1}])"),
         {"ERROR: missing \"netdev_addr\" field"}},
        {"manet peer without iface",
         config_with({iface_entry(serial, 1)}, manet_peers + R"({"manet_addr": "7", "netdev_addr": "5"}])"),
         {"ERROR: missing \"iface_id\" field"}},
        {"manet peer on unknown iface",
         config_with({iface_entry(serial, 1)},
                     manet_peers + R"({"manet_addr": "7", "netdev_addr": "5", "iface_id": 3}])"),
         {"ERROR: iface with id 3 not found"}},
        {"manet udp peer without inet address",
         config_with({iface_entry(udp1, 1, R"(, "type": "manet")")},
                     manet_peers + R"({"manet_addr": "7", "netdev_addr": "5", "iface_id": 1}])"),
         {"ERROR: missing \"inet_addr\" field"}},
        {"manet udp peer without port",
         config_with({iface_entry(udp1, 1, R"(, "type": "manet")")},
                     manet_peers + R"({"manet_addr": "7", "netdev_addr": "5", "iface_id": 1, "inet_addr": "gw"}])"),
         {"ERROR: failed to parse inet address gw"}},
        {"duplicate manet peer",
         config_with({iface_entry(serial, 1)},
                     manet_peers + R"({"manet_addr": "0x0A000001", "netdev_addr": "5", "iface_id": 1},)" +
                         R"({"manet_addr": "167772161", "netdev_addr": "6", "iface_id": 1}])"),
         {"add MANet peer on iface 1: 0x0A000001 / 0x05", "ERROR: duplicate MANet peer: 0x0A000001"}},
        {"rf modem without channel",
         config_with({iface_entry(serial, 1, R"(, "rfmodem_config": {"power": 1})")},
                     manet_peers + R"({"manet_addr": "7", "netdev_addr": "5", "iface_id": 1}])"),
         {"ERROR: missing \"channel\" field"}},
    };

    std::vector<std::pair<std::string, std::string>> configs;
    for (const auto& c : cases) configs.emplace_back(c.name, c.config);
    auto started = start_all(dir, configs);
    for (size_t i = 0; i < cases.size(); i++) {
        GateProcess& gate = *started[i].gate;
        EXPECT_EQ(gate.wait_exit(), 1) << cases[i].name << "\n" << gate.log();
        expect_log_ends_with(gate, cases[i].expected, cases[i].name);
    }
}

TEST(GateConfig, MalformedTextAndWrongTypesEndAbnormally) {
    TempDir dir;
    const std::string serial = "serial://" + dir.path() + "/none:9600";
    const std::string manet_peer = R"(, "manet_peers": [{"netdev_addr": "5", "iface_id": 1, "manet_addr": )";
    auto started = start_all(
        dir, {
                 {"not json", R"({"ifaces": [})"},
                 {"trailing text", R"({"ifaces": []} x)"},
                 {"id as text", config_with({R"({"iface": ")" + serial + R"(", "id": "1"})"})},
                 {"iface as number", config_with({R"({"iface": 5, "id": 1})"})},
                 {"manet address not a number", config_with({iface_entry(serial, 1)}, manet_peer + R"("zz"}])")},
                 {"manet address too large",
                  config_with({iface_entry(serial, 1)}, manet_peer + R"("0x1FFFFFFFFFFFFFFFF"}])")},
                 {"local address not a number",
                  config_with({iface_entry(serial, 1)}, R"(, "local_peers": [{"netdev_addr": "n", "iface_id": 1}])")},
             });
    for (auto& s : started) {
        EXPECT_EQ(s.gate->wait_exit(), EXIT_ABORTED) << s.name << "\n" << s.gate->log();
        for (const auto& line : s.gate->lines()) EXPECT_NE(line, "ERROR: parse config file") << s.name;
    }
}

TEST(GateConfig, GoodFilesKeepTheGatewayRunning) {
    TempDir dir;
    const std::string serial = "serial://" + dir.path() + "/none:115200:2";
    std::vector<std::string> thirty_two;
    for (unsigned id = 1; id <= 32; id++) thirty_two.push_back(iface_entry(udp_iface(), id));
    std::vector<std::string> thirty_three = thirty_two;
    thirty_three.push_back(iface_entry(udp_iface(), 33));

    auto started = start_all(
        dir,
        {
            {"empty ifaces", R"({"ifaces": [], "unknown": {"ignored": true}})"},
            {"32 interfaces", config_with(thirty_two)},
            {"manet type in another letter case", config_with({iface_entry(udp_iface(), 1, R"(, "type": "manet")"),
                                                               iface_entry(udp_iface(), 2, R"(, "type": "MANet")")})},
            // On a serial interface "inet_addr" is not read at all.
            {"serial peers ignore inet_addr",
             config_with({iface_entry(serial, 1)},
                         R"(, "local_peers": [{"netdev_addr": "0x1FF", "iface_id": 1, "inet_addr": "junk"}])")},
            {"rf modem without manet peers",
             config_with({iface_entry(serial, 1, R"(, "rfmodem_config": {"channel": 3, "power": 1})")})},
            {"33 interfaces", config_with(thirty_three)},
        });

    // The 33rd interface is refused after the first 32 were built.
    GateProcess& too_many = *started.back().gate;
    EXPECT_EQ(too_many.wait_exit(), 1);
    EXPECT_EQ(too_many.lines(), std::vector<std::string>{"ERROR: parse config file"});
    started.pop_back();

    for (auto& s : started) EXPECT_EQ(s.gate->wait_exit(SETTLE_TIME), std::nullopt) << s.name << "\n" << s.gate->log();
    EXPECT_TRUE(started[0].gate->lines().empty()) << started[0].gate->log();
    EXPECT_TRUE(started[1].gate->lines().empty()) << started[1].gate->log();
    EXPECT_EQ(started[3].gate->lines().back(), "add local peer on iface 1: 0xFF") << started[3].gate->log();
    for (const auto& line : started[4].gate->lines()) EXPECT_EQ(line.find("RFModem"), std::string::npos) << line;
}

TEST(GateConfig, ManetAddressIsHexOnlyWithLeadingPrefix) {
    TempDir dir;
    const std::string serial = "serial://" + dir.path() + "/none:9600";
    auto peer = [](const char* manet_addr, const char* netdev_addr) {
        return std::string(R"({"iface_id": 1, "manet_addr": ")") + manet_addr + R"(", "netdev_addr": ")" + netdev_addr +
               R"("})";
    };
    const std::string config =
        config_with({iface_entry(serial, 1, R"(, "rfmodem_config": {"channel": 300, "power": 20})")},
                    R"(, "manet_peers": [)" + peer("0x0A000001", "0x10") + ", " + peer("10x5", "7") + ", " +
                        peer("4294967297", "0x101") + "]");
    auto started = start_all(dir, {{"manet addresses", config}});
    GateProcess& gate = *started[0].gate;
    EXPECT_TRUE(gate.wait_for_line("add MANet peer on iface 1: 0x0A000001 / 0x10")) << gate.log();
    EXPECT_TRUE(gate.wait_for_line("add MANet peer on iface 1: 0x0000000A / 0x07")) << gate.log();
    // Cut to 32 bits; the modem takes the lowest MANet address.
    EXPECT_TRUE(gate.wait_for_line("add MANet peer on iface 1: 0x00000001 / 0x01")) << gate.log();
    EXPECT_TRUE(gate.wait_for_line("RFModem on iface 1: addr=0x00000001 channel=44 power=20.0")) << gate.log();
}

}  // namespace
