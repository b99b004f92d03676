// The configuration file as the real gate binary reads it: every error ends
// the process with its line and status 1, malformed text and wrong types end
// it abnormally, and good files leave it running.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"

using test_support::GateProcess;

namespace {

using namespace std::chrono_literals;

constexpr int EXIT_ABORTED = 128 + 6;  // SIGABRT of an uncaught exception

// Entries of "ifaces" up to the value of "id".
const test_support::PtyPair TTY;
const std::string UDP = R"({"iface": "udp://127.0.0.1:0", "id": )";
const std::string SERIAL = R"({"iface": "serial://)" + TTY.slave_path() + R"(:9600", "id": )";

std::string config(const std::string& ifaces, const std::string& rest = "") {
    return R"({"ifaces": [)" + ifaces + "]" + rest + "}";
}
std::string manet_peers(const std::string& peers) {
    return R"(, "manet_peers": [)" + peers + "]";
}

struct Case {
    std::string config;
    std::vector<std::string> log_tail;  // the last lines of the log, in order
};

// Starts one gate per case at once; they share the machine's cores better
// than one after the other.
std::vector<std::unique_ptr<GateProcess>> start_all(const std::vector<Case>& cases) {
    static test_support::TempDir dir;
    std::vector<std::unique_ptr<GateProcess>> gates;
    for (const Case& c : cases) {
        const std::string path = dir.write_file(std::to_string(gates.size()) + ".json", c.config);
        gates.push_back(std::make_unique<GateProcess>(std::vector<std::string>{"--config", path}));
    }
    return gates;
}

TEST(GateConfig, EveryConfigurationErrorPrintsItsLinesAndExitsOne) {
    const std::string local_peers = R"(, "local_peers": [{"iface_id": 1, "netdev_addr": "5")";
    const std::string manet_link = R"({"iface_id": 1, "netdev_addr": "5", "manet_addr": "7")";
    const std::vector<Case> cases = {
        {R"({"local_peers": []})", {"ERROR: missing \"ifaces\" entry in config file", "ERROR: parse config file"}},
        {R"({"ifaces": {}})", {"ERROR: \"ifaces\" node is not an array", "ERROR: parse config file"}},
        {config(R"({"id": 1})"), {"ERROR: missing \"iface\" field"}},
        {config(R"({"iface": "udp://127.0.0.1:0"})"), {"ERROR: missing \"id\" field"}},
        {config(R"({"iface": "tcp://a:1", "id": 1})"),
         {"ERROR: unsupported interface type \"tcp\", supported types: serial, can, udp, udpserial",
          "ERROR: parse \"iface\" field: tcp://a:1"}},
        {config(UDP + "4}, " + UDP + "4}"), {"ERROR: duplicate device id 4", "ERROR: parse config file"}},
        // The device is made before its id is checked.
        {config(UDP + R"(4}, {"iface": "udp://", "id": 4})"),
         {"ERROR: invalid interface description", "ERROR: parse \"iface\" field: udp://"}},
        {config(UDP + R"(1, "type": "manet"}, )" + UDP + R"(2, "type": "manet"})"),
         {"ERROR: only one MANET interface is supported"}},
        {config(UDP + "1}", R"(, "local_peers": [{"iface_id": 1}])"), {"ERROR: missing \"netdev_addr\" field"}},
        {config(UDP + "1}", R"(, "local_peers": [{"netdev_addr": "5", "iface_id": 9}])"),
         {"ERROR: iface with id 9 not found"}},
        {config(UDP + "1}", local_peers + "}]"), {"ERROR: missing \"inet_addr\" field"}},
        {config(UDP + "1}", local_peers + R"(, "inet_addr": "localhost:9"}])"),
         {"ERROR: failed to parse inet address: localhost:9"}},
        {config(SERIAL + "1}", R"(, "local_peers": [{"netdev_addr": "0x05", "iface_id": 1},)"
                               R"( {"netdev_addr": "5", "iface_id": 1}])"),
         {"add local peer on iface 1: 0x05", "ERROR: duplicate local peer: 0x05"}},
        {config(SERIAL + "1}", manet_peers(R"({"netdev_addr": "5", "iface_id": 1})")),
         {"ERROR: missing \"manet_addr\" field"}},
        {config(UDP + R"(1, "type": "manet"})", manet_peers(manet_link + "}")), {"ERROR: missing \"inet_addr\" field"}},
        {config(UDP + R"(1, "type": "manet"})", manet_peers(manet_link + R"(, "inet_addr": "gw"})")),
         {"ERROR: failed to parse inet address gw"}},
        {config(SERIAL + "1}", manet_peers(R"({"manet_addr": "0x0A000001", "netdev_addr": "5", "iface_id": 1},)"
                                           R"({"manet_addr": "167772161", "netdev_addr": "6", "iface_id": 1})")),
         {"add MANet peer on iface 1: 0x0A000001 / 0x05", "ERROR: duplicate MANet peer: 0x0A000001"}},
        {config(SERIAL + R"(1, "rfmodem_config": {"power": 1}})", manet_peers(manet_link + "}")),
         {"ERROR: missing \"channel\" field"}},
    };
    auto gates = start_all(cases);
    for (size_t i = 0; i < cases.size(); i++) {
        EXPECT_EQ(gates[i]->wait_exit(), 1) << cases[i].config << "\n" << gates[i]->log();
        const auto lines = gates[i]->lines();
        const size_t tail = std::min(lines.size(), cases[i].log_tail.size());
        EXPECT_EQ(std::vector<std::string>(lines.end() - tail, lines.end()), cases[i].log_tail) << cases[i].config;
    }
}

TEST(GateConfig, MalformedTextAndWrongTypesEndAbnormally) {
    const std::string manet_peer = R"({"netdev_addr": "5", "iface_id": 1, "manet_addr": )";
    const std::vector<Case> cases = {
        {R"({"ifaces": [})", {}},
        {R"({"ifaces": []} x)", {}},
        {config(UDP + R"("1"})"), {}},
        {config(R"({"iface": 5, "id": 1})"), {}},
        {config(UDP + "1}", manet_peers(manet_peer + R"("zz"})")), {}},
        {config(UDP + "1}", manet_peers(manet_peer + R"("0x1FFFFFFFFFFFFFFFF"})")), {}},
        {config(UDP + "1}", R"(, "local_peers": [{"netdev_addr": "n", "iface_id": 1}])"), {}},
    };
    auto gates = start_all(cases);
    for (size_t i = 0; i < cases.size(); i++) {
        EXPECT_EQ(gates[i]->wait_exit(), EXIT_ABORTED) << cases[i].config;
        EXPECT_EQ(gates[i]->lines(), cases[i].log_tail) << cases[i].config;
    }
}

TEST(GateConfig, GoodFilesKeepTheGatewayRunning) {
    std::string thirty_two = UDP + "1}";
    for (unsigned id = 2; id <= 32; id++) thirty_two += ", " + UDP + std::to_string(id) + "}";
    const std::string modem = SERIAL + R"(1, "rfmodem_config": {"channel": 300, "power": 20}})";
    auto manet_peer = [](const char* manet_addr, const char* netdev_addr) {
        return std::string(R"({"iface_id": 1, "manet_addr": ")") + manet_addr + R"(", "netdev_addr": ")" + netdev_addr +
               R"("})";
    };
    const std::vector<Case> cases = {
        {R"({"ifaces": [], "unknown": {"ignored": true}})", {}},
        {config(thirty_two), {}},
        // Only "manet" itself makes a MANet interface.
        {config(UDP + R"(1, "type": "manet"}, )" + UDP + R"(2, "type": "MANet"})"), {}},
        // On a serial interface "inet_addr" is not read; the address wraps to 8 bits.
        {config(SERIAL + "1}", R"(, "local_peers": [{"netdev_addr": "0x1FF", "iface_id": 1, "inet_addr": "x"}])"),
         {"add local peer on iface 1: 0xFF"}},
        // Without MANet peers the modem is not configured at all.
        {config(modem), {}},
        // Hex only with a leading "0x"; cut to 32 bits; the modem takes the
        // lowest MANet address and an 8-bit channel.
        {config(modem, manet_peers(manet_peer("0x0A000001", "0x10") + ", " + manet_peer("10x5", "7") + ", " +
                                   manet_peer("4294967297", "0x101"))),
         {"add MANet peer on iface 1: 0x0A000001 / 0x10", "add MANet peer on iface 1: 0x0000000A / 0x07",
          "add MANet peer on iface 1: 0x00000001 / 0x01", "RFModem on iface 1: addr=0x00000001 channel=44 power=20.0"}},
        // A 33rd interface is refused after the first 32 were built.
        {config(thirty_two + ", " + UDP + "33}"), {"ERROR: parse config file"}},
    };
    auto gates = start_all(cases);
    EXPECT_EQ(gates.back()->wait_exit(), 1);
    EXPECT_EQ(gates.back()->lines(), cases.back().log_tail);
    for (size_t i = 0; i + 1 < cases.size(); i++) {
        // Still running this long after start: the configuration was taken.
        EXPECT_EQ(gates[i]->wait_exit(500ms), std::nullopt) << cases[i].config << "\n" << gates[i]->log();
        EXPECT_EQ(gates[i]->lines(), cases[i].log_tail) << cases[i].config;
    }
}

}  // namespace
