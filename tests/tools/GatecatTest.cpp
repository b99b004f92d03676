// The gatecat binary: its command line, and frames arriving byte for byte
// over every kind of link, and replayed from a dump.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/PtyPair.h"
#include "support/UdpEndpoint.h"
#include "support/paths.h"
#include "vostrelka/version.h"

using namespace test_support;

namespace {

constexpr int FAILURE = 1;
constexpr int USAGE = 2;

std::string udpserial(uint16_t port, uint16_t to_port) {
    return "udpserial://127.0.0.1:" + std::to_string(port) + ":127.0.0.1:" + std::to_string(to_port);
}

// Runs gatecat with the words of `command_line` as its arguments.
ProcessResult gatecat(const std::string& command_line, const std::string& input = "") {
    std::istringstream words(command_line);
    return run_process_with_input(gatecat_binary(), {std::istream_iterator<std::string>(words), {}}, input);
}

struct Invocation {
    int status;
    std::string command_line;
    std::string err;  // without "gatecat: ": all of it for a usage error, its last lines otherwise
    std::string input = "";
};

TEST(GatecatCommandLine, BadArgumentsFailWithOneLineAndRuntimeFailuresWithStatusOne) {
    const std::string iface = "udp://127.0.0.1:" + std::to_string(free_udp_port()), to_discard = iface + ":127.0.0.1:9";
    const Invocation runs[] = {
        {USAGE, "", "missing command (dump, send, stats, peers or tap); try 'gatecat --help'"},
        {USAGE, "--verbose", "unknown option '--verbose'; try 'gatecat --help'"},
        {USAGE, "dump " + iface + " --count=0", "dump: --count takes a whole number from 1 to 4294967295, not '0'"},
        {USAGE, "tap -dc", "tap: -c needs a value"},
        {USAGE, "peers /run/gate.sock -w x.pcap", "peers: unknown option '-w'; try 'gatecat --help'"},
        {USAGE, "dump tcp://127.0.0.1:5000",
         "dump: unsupported interface type 'tcp'; supported types: serial, can, udp, udpserial"},
        {USAGE, "send " + iface + " 07:01>02#AA",
         "send: sending on udp needs a destination: udp://HOST:PORT:DEST_HOST:DEST_PORT"},
        {USAGE, "send " + to_discard + " 07:01>02#ABC",
         "send: bad frame '07:01>02#ABC': payload byte 2 has one hex digit; a byte takes two"},
        {USAGE, "send " + to_discard, "send: line 3: payload character 1 'Z' is not a hex digit",
         "07:01>02#AA\n\n07:01>02#ZZ\n07:01>02#BB\n"},
        // The device's own reasons come first, then gatecat's line.
        {FAILURE, "dump udp://10.0.0.300:5000", "dump: cannot open udp://10.0.0.300:5000"},
        {FAILURE, "stats /nonexistent/gate.sock",
         "stats: cannot connect to /nonexistent/gate.sock: No such file or directory"},
        {FAILURE, "dump " + iface + " -w /nonexistent/x.pcap",
         "dump: cannot write /nonexistent/x.pcap: No such file or directory"},
        {FAILURE, "dump " + iface + " -c 2 --timeout 0.2", "0 frames\ngatecat: dump: 0 of 2 frames before the timeout"},
        {0, "dump " + iface + " --timeout 0.2", "0 frames"},
    };
    for (const Invocation& run : runs) {
        const ProcessResult result = gatecat(run.command_line, run.input);
        EXPECT_EQ(result.exit_status, run.status) << run.command_line;
        EXPECT_EQ(result.out, "") << run.command_line;
        // Whole lines: all it said, or the last of it.
        const std::string said = "\n" + result.err, lines = "\ngatecat: " + run.err + "\n";
        const size_t tail = run.status == USAGE ? 0 : said.size() - std::min(said.size(), lines.size());
        EXPECT_EQ(said.substr(tail), lines) << run.command_line;
    }
}

TEST(GatecatCommandLine, HelpAndVersionPrintOnStandardOutputAndExitZero) {
    const ProcessResult help = gatecat("--help");
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_NE(help.out.find("gatecat dump IFACE [-d] [-c N] [-t S] [-w FILE]"), std::string::npos);
    EXPECT_EQ(gatecat("dump udp://127.0.0.1:1 -h").out, help.out);
    EXPECT_EQ(gatecat("tap --timeout=1 /x --help").out, help.out);
    for (const char* asked : {"--version", "-V"}) {
        const ProcessResult version = gatecat(asked);
        EXPECT_EQ(version.exit_status, 0);
        EXPECT_EQ(version.out, std::string(vostrelka::version::SOFTWARE) + "\n");
    }
}

TEST(GatecatCommandLine, TerminatedDumpStillPrintsItsSummaryAndExitsZero) {
    for (int sig : {SIGTERM, SIGINT}) {
        GateProcess dump(gatecat_binary(), {"dump", "udpserial://127.0.0.1:" + std::to_string(free_udp_port())}, true);
        ASSERT_TRUE(dump.wait_for_prefix("gatecat: listening on ")) << dump.log();
        kill(dump.pid(), sig);
        EXPECT_EQ(dump.wait_exit(), 0) << sig;
        EXPECT_EQ(dump.lines().back(),
                  "gatecat: 0 frames; codec errors: crc 0, short 0, escape 0, rx overflow 0, encode 0");
    }
}

// A dump ends when its serial line goes, whether its far end hangs up or
// its adapter is unplugged (the node's mode bits go).
TEST(GatecatCommandLine, DumpOnASerialLineEndsWhenTheLineGoes) {
    for (const bool unplug : {false, true}) {
        PtyPair pty;
        const std::string iface = "serial://" + pty.slave_path() + ":115200";
        GateProcess dump(gatecat_binary(), {"dump", iface}, true);
        ASSERT_TRUE(dump.wait_for_prefix("gatecat: listening on ")) << dump.log();
        if (unplug) {
            ASSERT_EQ(chmod(pty.slave_path().c_str(), 0), 0);
        } else {
            pty.hang_up();
        }
        EXPECT_EQ(dump.wait_exit(), FAILURE) << dump.log();
        EXPECT_TRUE(dump.wait_for_line("gatecat: dump: " + iface + " disconnected")) << dump.log();
    }
}

// The frame lines a `gatecat dump --decode` on `to` prints of the `count`
// frames that `gatecat send` puts out on `from`.
std::vector<std::string> relay(const std::string& from, const std::string& to, size_t count, const std::string& frames,
                               const std::string& input = "") {
    GateProcess dump(gatecat_binary(), {"dump", to, "-d", "--count", std::to_string(count)}, true);
    EXPECT_TRUE(dump.wait_for_prefix("gatecat: listening on ")) << dump.log();
    const ProcessResult sent = gatecat("send " + from + " " + frames, input);
    EXPECT_EQ(sent.exit_status, 0) << sent.err;
    EXPECT_EQ(sent.err, "");
    EXPECT_EQ(dump.wait_exit(), 0) << dump.log();
    std::vector<std::string> lines;
    for (const auto& line : dump.lines()) {
        if (line.rfind('(', 0) == 0) lines.push_back(line);
    }
    return lines;
}

std::string unstamped(const std::string& line) {
    return line.substr(line.find(") ") + 2);
}

// 42 and 55 are bytes the serial framing escapes; serial lines carry empty
// payloads, "udp" datagrams cannot.
TEST(GatecatLinks, DumpPrintsWhatSendPutsOutOnUdpAndSerialLinks) {
    PtyNullModem line;
    ASSERT_TRUE(line.ok());
    const uint16_t a = free_udp_port(), b = free_udp_port();
    const std::string end_a = "serial://" + line.path_a() + ":115200", end_b = "serial://" + line.path_b() + ":115200";
    const struct {
        std::string from, to, frame, line;
    } hops[] = {
        {"udp://127.0.0.1:" + std::to_string(a) + ":127.0.0.1:" + std::to_string(b),
         "udp://127.0.0.1:" + std::to_string(b), "07:10>20#DEADBEEF",
         "07:10>20#DEADBEEF  proto_id 7  0x10 -> 0x20  len 4"},
        {end_a, end_b, "0E:30-10#0109000000050000000000803F03",
         "0E:30>10#0109000000050000000000803F03  proto_id 14  0x30 -> 0x10  len 14  "
         "base_config{addr=5 power=1 channel=3}"},
        {end_b, end_a, "09:20>30#4255AA", "09:20>30#4255AA  proto_id 9  0x20 -> 0x30  len 3"},
        {end_a, end_b, "05:30>20#", "05:30>20#  proto_id 5  0x30 -> 0x20  len 0"},
    };
    for (const auto& hop : hops) {
        const auto lines = relay(hop.from, hop.to, 1, hop.frame);
        ASSERT_EQ(lines.size(), 1u) << hop.from << " -> " << hop.to;
        EXPECT_EQ(unstamped(lines[0]), hop.line);
    }
}

// Two gatecats back to back over udpserial: a dump's output sent again
// arrives unchanged.
TEST(GatecatReplay, DumpOutputReplaysThroughSendUnchanged) {
    const uint16_t a = free_udp_port(), b = free_udp_port(), c = free_udp_port();
    // Up to the largest payload a "udpserial" device receives.
    const std::string frames =
        "07:01>02#DEADBEEF 0A:FF>00# 08:10>FF#4242555500FF FF:00>FF#" + std::string(2 * 2040, 'A');
    std::string recorded, replayed;
    for (const auto& line : relay(udpserial(a, b), "udpserial://127.0.0.1:" + std::to_string(b), 4, frames)) {
        recorded += line + "\n";
    }
    for (const auto& line : relay(udpserial(a, c), "udpserial://127.0.0.1:" + std::to_string(c), 4, "", recorded)) {
        replayed += (replayed.empty() ? "" : " ") + unstamped(line).substr(0, unstamped(line).find(' '));
    }
    EXPECT_EQ(replayed, frames);
}

}  // namespace
