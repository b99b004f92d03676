// The gate binary's start: what its command line and its configuration file
// make it print, and how it ends.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/version.h"

using test_support::GateProcess;
using Lines = std::vector<std::string>;

namespace {

using namespace std::chrono_literals;

constexpr int EXIT_ABORTED = 128 + 6;  // SIGABRT of an uncaught exception
constexpr int RUNNING = -1;
constexpr size_t MAX_CONFIG_FILE_BYTES = 1024 * 1024;
const std::string EMPTY_CONFIG = R"({"ifaces": []})";

TEST(GateCommandLine, EachCommandLinePrintsItsLinesAndEndsWithItsStatus) {
    const std::string absent = "/nonexistent/gate.json";
    // Only a regular file up to the size cap is read: nothing that never ends
    // or never starts (a FIFO without a writer).
    test_support::TempDir dir;
    const std::string fifo = dir.path() + "/fifo.json";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string too_big =
        dir.write_file("big.json", EMPTY_CONFIG + std::string(MAX_CONFIG_FILE_BYTES + 1 - EMPTY_CONFIG.size(), ' '));
    // Arguments, exit status, the log (only its first lines for the help).
    const std::tuple<Lines, int, Lines> cases[] = {
        {{"--help"}, 0, {"Net device gateway", "Usage:", "  gate [OPTION...]", ""}},
        {{"--version", "--help"}, 0, {"Net device gateway"}},
        {{"--version"}, 0, {vostrelka::version::SOFTWARE}},
        {{"--debug", "2"}, 1, {"ERROR: mission --config argument"}},
        {{"-c", absent}, 1, {"ERROR: open config file: " + absent}},
        {{"-c", dir.path()}, 1, {"ERROR: open config file: " + dir.path()}},
        {{"-c", "/dev/zero"}, 1, {"ERROR: open config file: /dev/zero"}},
        {{"-c", fifo}, 1, {"ERROR: open config file: " + fifo}},
        {{"-c", too_big}, 1, {"ERROR: open config file: " + too_big}},
        {{"--no-such-option"}, EXIT_ABORTED, {}},
        {{"-d"}, EXIT_ABORTED, {}},
        {{"-d", "high"}, EXIT_ABORTED, {}},
    };
    for (const auto& [args, status, log] : cases) {
        GateProcess gate(args);
        EXPECT_EQ(gate.wait_exit(), status) << args[0];
        Lines lines = gate.lines();
        if (status == 0 && log[0] != vostrelka::version::SOFTWARE) lines.resize(std::min(lines.size(), log.size()));
        EXPECT_EQ(lines, log) << args[0];
    }
}

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
std::string manet_peer(const char* manet_addr, const char* netdev_addr) {
    return std::string(R"({"iface_id": 1, "manet_addr": ")") + manet_addr + R"(", "netdev_addr": ")" + netdev_addr +
           R"("})";
}

// The example the package installs in /etc/gate, on ports of the system's
// choosing and with its control socket in a folder of the test's instead of
// the unit's /run/gate/example/, so that it runs beside anything else.
std::string shipped_example() {
    static const test_support::TempDir run_dir;
    std::ifstream file(TEST_SOURCE_DIR "/../packaging/etc/example.json");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    for (const std::string port : {"127.0.0.1:7001\"", "127.0.0.1:7002\"", "\"/run/gate/example"}) {
        const size_t at = text.find(port);
        if (at != std::string::npos)
            text.replace(at, port.size(), port[0] == '"' ? "\"" + run_dir.path() : "127.0.0.1:0\"");
    }
    return text;
}

// A configuration file and what the gate prints reading it.
using Cases = std::vector<std::pair<std::string, Lines>>;

// Every error ends the process with its line and status 1; malformed text
// and wrong types end it abnormally; good files leave it running. One gate
// per file, all at once: they share the machine's cores better than one
// after the other.
TEST(GateConfig, EveryFileEndsWithItsStatusAndLines) {
    const std::string local_peer = R"(, "local_peers": [{"iface_id": 1, "netdev_addr": "5")";
    const std::string manet_link = R"({"iface_id": 1, "netdev_addr": "5", "manet_addr": "7")";
    const std::string manet_udp = UDP + R"(1, "type": "manet"})";
    const std::string taken_port = std::to_string(test_support::free_udp_port());
    const std::string taken = R"({"iface": "udp://127.0.0.1:)" + taken_port + R"(")";
    const Cases errors = {
        // the last lines of the log
        {R"({"local_peers": []})", {"ERROR: missing \"ifaces\" entry in config file", "ERROR: parse config file"}},
        {R"({"ifaces": {}})", {"ERROR: \"ifaces\" node is not an array", "ERROR: parse config file"}},
        {config(R"({"id": 1})"), {"ERROR: missing \"iface\" field"}},
        {config(R"({"iface": "udp://127.0.0.1:0"})"), {"ERROR: missing \"id\" field"}},
        {config(R"({"iface": "tcp://a:1", "id": 1})"), {"ERROR: parse \"iface\" field: tcp://a:1"}},
        {config(UDP + "4}, " + UDP + "4}"), {"ERROR: duplicate device id 4", "ERROR: parse config file"}},
        // One fixed local address on two interfaces, whatever their types; port 0 above is no such case.
        {config(taken + R"(, "id": 1}, )" + R"({"iface": "udpserial://127.0.0.1:)" + taken_port + R"(", "id": 2})"),
         {"ERROR: local address 127.0.0.1:" + taken_port + " is configured on two interfaces"}},
        // The device is made before its id is checked.
        {config(UDP + R"(4}, {"iface": "udp://", "id": 4})"), {"ERROR: parse \"iface\" field: udp://"}},
        {config(manet_udp + ", " + UDP + R"(2, "type": "manet"})"), {"ERROR: only one MANET interface is supported"}},
        {config(UDP + "1}", R"(, "local_peers": [{"iface_id": 1}])"), {"ERROR: missing \"netdev_addr\" field"}},
        {config(UDP + "1}", R"(, "local_peers": [{"netdev_addr": "5", "iface_id": 9}])"),
         {"ERROR: iface with id 9 not found"}},
        {config(UDP + "1}", local_peer + "}]"), {"ERROR: missing \"inet_addr\" field"}},
        {config(UDP + "1}", local_peer + R"(, "inet_addr": "localhost:9"}])"),
         {"ERROR: failed to parse inet address: localhost:9"}},
        {config(SERIAL + "1}", R"(, "local_peers": [{"netdev_addr": "0x05", "iface_id": 1},)"
                               R"( {"netdev_addr": "5", "iface_id": 1}])"),
         {"add local peer on iface 1: 0x05", "ERROR: duplicate local peer: 0x05"}},
        {config(SERIAL + "1}", manet_peers(R"({"netdev_addr": "5", "iface_id": 1})")),
         {"ERROR: missing \"manet_addr\" field"}},
        {config(manet_udp, manet_peers(manet_link + "}")), {"ERROR: missing \"inet_addr\" field"}},
        {config(manet_udp, manet_peers(manet_link + R"(, "inet_addr": "gw"})")),
         {"ERROR: failed to parse inet address gw"}},
        {config(SERIAL + "1}", manet_peers(manet_peer("0x0A000001", "5") + "," + manet_peer("167772161", "6"))),
         {"add MANet peer on iface 1: 0x0A000001 / 0x05", "ERROR: duplicate MANet peer: 0x0A000001"}},
        {config(SERIAL + R"(1, "rfmodem_config": {"power": 1}})", manet_peers(manet_link + "}")),
         {"ERROR: missing \"channel\" field"}},
    };
    const Cases aborts = {
        {R"({"ifaces": [})", {}},
        {R"({"ifaces": []} x)", {}},
        {config(UDP + R"("1"})"), {}},
        {config(R"({"iface": 5, "id": 1})"), {}},
        {config(UDP + "1}", manet_peers(manet_peer("zz", "5"))), {}},
        {config(UDP + "1}", manet_peers(manet_peer("0x1FFFFFFFFFFFFFFFF", "5"))), {}},
        {config(UDP + "1}", R"(, "local_peers": [{"netdev_addr": "n", "iface_id": 1}])"), {}},
        // A boolean, or a fraction whose conversion would be undefined, where a number belongs.
        {config(UDP + "true}"), {}},
        {config(SERIAL + "1}", R"(, "local_peers": [{"netdev_addr": "5", "iface_id": false}])"), {}},
        {config(UDP + "-1.5}"), {}},
        {config(UDP + "4294967296.0}"), {}},
        {config(SERIAL + R"(1, "rfmodem_config": {"channel": 1e300, "power": 1}})", manet_peers(manet_link + "}")),
         {"add MANet peer on iface 1: 0x00000007 / 0x05"}},
        {config(SERIAL + R"(1, "rfmodem_config": {"channel": 1, "power": -1e300}})", manet_peers(manet_link + "}")),
         {"add MANet peer on iface 1: 0x00000007 / 0x05"}},
    };
    std::string thirty_two = UDP + "1}";
    for (unsigned id = 2; id <= 32; id++) thirty_two += ", " + UDP + std::to_string(id) + "}";
    const std::string modem = SERIAL + R"(1, "rfmodem_config": {"channel": 300, "power": 20}})";
    const Cases running = {
        {R"({"ifaces": [], "unknown": {"ignored": true}})", {}},
        {shipped_example(),
         {"add local peer on iface 1: 0x10 / 127.0.0.1:7101", "add local peer on iface 2: 0x20 / 127.0.0.1:7102"}},
        // Exactly at the size cap.
        {EMPTY_CONFIG + std::string(MAX_CONFIG_FILE_BYTES - EMPTY_CONFIG.size(), ' '), {}},
        {config(thirty_two), {}},
        // Fractions are truncated toward zero: -0.9 is 0; the largest id fits.
        {config(SERIAL + "-0.9}, " + UDP + "4294967295.9}",
                R"(, "local_peers": [{"netdev_addr": "5", "iface_id": 0}])"),
         {"add local peer on iface 0: 0x05"}},
        // Only "manet" itself makes a MANet interface.
        {config(manet_udp + ", " + UDP + R"(2, "type": "MANet"})"), {}},
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
    };
    // A 33rd interface is refused after the first 32 were built.
    const Cases refused = {{config(thirty_two + ", " + UDP + "33}"), {"ERROR: parse config file"}}};

    test_support::TempDir dir;
    std::vector<std::tuple<int, const Cases::value_type*, std::unique_ptr<GateProcess>>> gates;
    const std::pair<int, const Cases*> statuses[] = {
        {1, &errors}, {EXIT_ABORTED, &aborts}, {RUNNING, &running}, {1, &refused}};
    for (const auto& [status, cases] : statuses) {
        for (const auto& c : *cases) {
            const std::string path = dir.write_file(std::to_string(gates.size()) + ".json", c.first);
            gates.emplace_back(status, &c, std::make_unique<GateProcess>(Lines{"--config", path}));
        }
    }
    for (auto& [status, c, gate] : gates) {
        // Still running half a second after its last line: the configuration was taken.
        if (status == RUNNING && !c->second.empty()) gate->wait_for_line(c->second.back(), 10s);
        EXPECT_EQ(gate->wait_exit(status == RUNNING ? 500ms : 10s).value_or(RUNNING), status) << c->first;
        Lines lines = gate->lines();
        if (status == 1) lines.erase(lines.begin(), lines.end() - std::min(lines.size(), c->second.size()));
        EXPECT_EQ(lines, c->second) << c->first;
    }
}

}  // namespace
