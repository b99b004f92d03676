// The gate-check binary: what it prints for good and broken configuration
// files, and that a file it refuses is one the gateway refuses, in the
// gateway's own words.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/paths.h"

using namespace test_support;

namespace {

using namespace std::chrono_literals;

constexpr int EXIT_ABORTED = 128 + 6;  // the gateway's uncaught exception

// "FILE" in `text` stands for the file's path.
std::string with_path(std::string text, const std::string& path) {
    for (size_t at = text.find("FILE"); at != std::string::npos; at = text.find("FILE", at + path.size())) {
        text.replace(at, 4, path);
    }
    return text;
}

struct CheckRun {
    std::vector<std::string> options;
    std::optional<std::string> file;  // none: a path where nothing is
    int status;
    std::string out, err;
};

TEST(GateCheck, PrintsWhatAFileConfiguresOrWhatIsWrongWithIt) {
    const PtyPair tty;
    const UdpEndpoint holder;
    const std::string held = "127.0.0.1:" + std::to_string(holder.port());
    const std::string serial = "serial://" + tty.slave_path() + ":9600";
    const std::string good = R"({
  "_comment": "notes are not keys",
  "ifaces": [
    {"iface": ")" + serial + R"(", "id": 1, "rfmodem_config": {"channel": 300, "power": 20}},
    {"iface": "udp://127.0.0.1:0", "id": 7, "type": "manet"}
  ],
  "local_peers": [{"netdev_addr": "0x10", "iface_id": 1}],
  "manet_peers": [{"manet_addr": "0x0A000002", "netdev_addr": "2", "iface_id": 7, "inet_addr": "gw.example:6000"}],
  "control": {"path": "/run/gate/site.sock"}
})";
    const std::string summary =
        "FILE: 2 interfaces, 1 local peer, 1 MANet peer, 1 RF modem, a control socket\n"
        "  iface 1: serial local " +
        serial +
        "\n"
        "  iface 7: udp manet udp://127.0.0.1:0\n"
        "  local peer 0x10 on iface 1\n"
        "  MANet peer 0x0A000002 / 0x02 / gw.example:6000 on iface 7\n"
        "  RF modem on iface 1: addr=0x0A000002 channel=44 power=20.0\n"
        "  control socket /run/gate/site.sock mode 0660\n";
    const std::string one_iface = "FILE: 1 interface, 0 local peers, 0 MANet peers, 0 RF modems, no control socket\n";
    const CheckRun runs[] = {
        {{}, good, 0, summary, ""},
        {{"--quiet"}, good, 0, "", ""},
        {{}, std::nullopt, 1, "", "FILE: error: cannot read: No such file or directory\n"},
        {{},
         "{\n  \"ifaces\": [\n    {\"id\": 1,}\n  ]\n}",
         1,
         "",
         "FILE:3:14: error: syntax error while parsing object key - unexpected '}'; expected string literal\n"},
        {{"-q"},
         R"({"ifaces": [{"iface": "udp://127.0.0.1:0", "id": "1"}]})",
         1,
         "",
         "FILE: ifaces[0].id: error: must be a number, not string\n"},
        {{"-q"},
         R"({"ifaces": [{"iface": "udp://127.0.0.1:0", "id": 1}],
             "local_peers": [{"netdev_addr": "1", "iface_id": 1, "inet_addr": "127.0.0.1:9"}, {"iface_id": 1}]})",
         1,
         "",
         "FILE: local_peers[1].netdev_addr: error: missing \"netdev_addr\" field\n"},
        {{"-q"},
         R"({"ifaces": [{"iface": "tcp://a:1", "id": 1}]})",
         1,
         "",
         "FILE: ifaces[0].iface: error: parse \"iface\" field: tcp://a:1: unsupported interface type 'tcp'; "
         "supported types: serial, can, udp, udpserial\n"},
        // Warnings leave the file good: unknown keys, and what the machine will do at start.
        {{},
         R"({"ifaces": [{"iface": "udp://127.0.0.1:0", "id": 1, "typ": "manet", "ID": 2}], "peers": []})",
         0,
         one_iface + "  iface 1: udp local udp://127.0.0.1:0\n",
         "FILE: peers: warning: unknown key \"peers\" is ignored\n"
         "FILE: ifaces[0].ID: warning: unknown key \"ID\" is ignored; keys are case-sensitive: \"id\"\n"
         "FILE: ifaces[0].typ: warning: unknown key \"typ\" is ignored\n"},
        {{"-q"},
         R"({"ifaces": [{"iface": "serial:///dev/gate-test-absent:9600", "id": 1},
                        {"iface": "udpserial://)" +
             held + R"(", "id": 2, "type": "MANet"}]})",
         0,
         "",
         "FILE: ifaces[1].type: warning: \"MANet\" makes a local interface; only \"manet\" makes the MANet one\n"
         "FILE: ifaces[0].iface: warning: serial port /dev/gate-test-absent does not exist; the gateway starts "
         "without it and opens it when it appears\n"
         "FILE: ifaces[1].iface: warning: " +
             held +
             " is already bound by another socket; the two will share its "
             "datagrams\n"},
    };
    TempDir dir;
    for (const CheckRun& run : runs) {
        const std::string path = run.file ? dir.write_file("c.json", *run.file) : dir.path() + "/absent.json";
        std::vector<std::string> args = run.options;
        args.push_back(path);
        const ProcessResult result = run_process_with_input(gate_check_binary(), args, "");
        EXPECT_EQ(result.exit_status, run.status) << run.file.value_or(path);
        EXPECT_EQ(result.out, with_path(run.out, path)) << run.file.value_or(path);
        EXPECT_EQ(result.err, with_path(run.err, path)) << run.file.value_or(path);
    }
}

TEST(GateCheck, CommandLine) {
    const ProcessResult help = run_process_with_input(gate_check_binary(), {"--help"}, "");
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_EQ(help.out.rfind("gate-check - check gateway configuration files", 0), 0u) << help.out;
    const std::pair<std::vector<std::string>, std::string> usage_errors[] = {
        {{}, "gate-check: missing configuration file; try 'gate-check --help'\n"},
        {{"--verbose", "x.json"}, "gate-check: unknown option '--verbose'; try 'gate-check --help'\n"},
    };
    for (const auto& [args, err] : usage_errors) {
        const ProcessResult result = run_process_with_input(gate_check_binary(), args, "");
        EXPECT_EQ(result.exit_status, 2);
        EXPECT_EQ(result.err, err);
    }
    // One bad file among good ones fails the run, and each file is reported.
    TempDir dir;
    const std::string good = dir.write_file("good.json", R"({"ifaces": []})");
    const ProcessResult result = run_process_with_input(gate_check_binary(), {"-q", good, dir.path(), good}, "");
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, dir.path() + ": error: cannot read: not a regular file\n");
}

// Each file the checker refuses, the gateway refuses too: with the same
// words when it has them, else by its uncaught exception.
TEST(GateCheck, RefusesWhatTheGatewayRefusesInItsWords) {
    const std::string udp = R"({"iface": "udp://127.0.0.1:0", "id": )";
    const std::string serial = R"({"iface": "serial:///dev/null:9600", "id": )";
    const std::string manet_udp = udp + R"(1, "type": "manet"})";
    const std::string manet_peer = R"({"manet_addr": "7", "netdev_addr": "5", "iface_id": 1, "inet_addr": )";
    // File, the checker's error line, the gateway's exit status.
    const std::tuple<std::string, std::string, int> files[] = {
        {R"({"local_peers": []})", ": error: missing \"ifaces\" entry in config file", 1},
        {R"({"ifaces": [)" + udp + "4}, " + udp + "4}]}", ": ifaces[1].id: error: duplicate device id 4", 1},
        {R"({"ifaces": [)" + manet_udp + ", " + udp + R"(2, "type": "manet"}], "control": {"path": "/x"}})",
         ": ifaces[1].type: error: only one MANET interface is supported", 1},
        {R"({"ifaces": [)" + serial +
             R"(1}], "local_peers": [{"netdev_addr": "5", "iface_id": 1}, )"
             R"({"netdev_addr": "0x05", "iface_id": 1}]})",
         ": local_peers[1]: error: duplicate local peer: 0x05", 1},
        {R"({"ifaces": [)" + manet_udp + R"(], "manet_peers": [)" + manet_peer + R"("gw:1"}, )" + manet_peer +
             R"("gw:1"}]})",
         ": manet_peers[1]: error: duplicate MANet peer: 0x00000007", 1},
        {R"({"ifaces": [)" + manet_udp + R"(], "manet_peers": {"a": )" + manet_peer + R"("gw"}}})",
         ": manet_peers.a.inet_addr: error: failed to parse inet address gw", 1},
        {R"({"ifaces": [)" + serial +
             R"(1, "rfmodem_config": {"power": 1}}],)"
             R"( "manet_peers": [{"manet_addr": "7", "netdev_addr": "5", "iface_id": 1}]})",
         ": ifaces[0].rfmodem_config.channel: error: missing \"channel\" field", 1},
        {R"({"ifaces": [], "control": {"path": "/x", "mode": "0999"}})",
         ": control.mode: error: control socket mode is not an octal file mode: 0999", 1},
        {R"({"ifaces": [)" + udp + R"(1}], "local_peers": [{"netdev_addr": "0x1", "iface_id": 2}]})",
         ": local_peers[0].iface_id: error: iface with id 2 not found", 1},
        {R"({"ifaces": [)" + udp + R"(1}], "manet_peers": [{"manet_addr": "zz"}]})",
         ": manet_peers[0].manet_addr: error: \"zz\" is not a number", EXIT_ABORTED},
        {R"({"ifaces": [)" + udp + R"(1}], "local_peers": [{"netdev_addr": "0x1FFFFFFFF", "iface_id": 1}]})",
         ": local_peers[0].netdev_addr: error: \"0x1FFFFFFFF\" is out of range", EXIT_ABORTED},
        {R"({"ifaces": [)" + udp + "-1.5}]}", ": ifaces[0].id: error: number out of range of its field: -1.5",
         EXIT_ABORTED},
        {R"({"ifaces": [], "control": {"path": 5}})", ": control.path: error: must be a string, not number",
         EXIT_ABORTED},
    };
    TempDir dir;
    std::vector<std::unique_ptr<GateProcess>> gates;
    for (size_t i = 0; i < std::size(files); i++) {
        const std::string path = dir.write_file(std::to_string(i) + ".json", std::get<0>(files[i]));
        gates.push_back(std::make_unique<GateProcess>(std::vector<std::string>{"--config", path}));
    }
    for (size_t i = 0; i < std::size(files); i++) {
        const auto& [text, error, gate_status] = files[i];
        const std::string path = dir.path() + "/" + std::to_string(i) + ".json";
        const ProcessResult checked = run_process_with_input(gate_check_binary(), {path}, "");
        EXPECT_EQ(checked.exit_status, 1) << text;
        // The last line: a warning may come before it.
        EXPECT_EQ(checked.err.substr(checked.err.rfind('\n', checked.err.size() - 2) + 1), path + error + "\n") << text;
        EXPECT_EQ(gates[i]->wait_exit(10s), gate_status) << text;
        if (gate_status == 1) {
            // The gateway's last ERROR line that is not about the whole file
            // says what the checker says.
            const std::vector<std::string> lines = gates[i]->lines();
            const auto last = std::find_if(lines.rbegin(), lines.rend(), [](const std::string& line) {
                return line.rfind("ERROR: ", 0) == 0 && line != "ERROR: parse config file";
            });
            ASSERT_NE(last, lines.rend()) << text;
            EXPECT_EQ(": " + last->substr(7), error.substr(error.find(": error: ") + 7)) << text;
        }
    }
}

}  // namespace
