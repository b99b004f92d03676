// The gatecat binary's command line: bad arguments fail with one line and
// status 2, runtime failures with status 1, and a dump stops as asked.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/UdpEndpoint.h"
#include "support/paths.h"
#include "vostrelka/version.h"

using namespace test_support;

namespace {

constexpr int EXIT_RUNTIME_FAILURE = 1;
constexpr int EXIT_USAGE = 2;

ProcessResult gatecat(const std::vector<std::string>& args) {
    return run_process(gatecat_binary(), args);
}

std::string udp(uint16_t port) {
    return "udp://127.0.0.1:" + std::to_string(port);
}

struct BadArguments {
    std::vector<std::string> args;
    std::string error;
};

TEST(GatecatCommandLine, EveryBadArgumentFailsWithOneLineAndStatusTwo) {
    const std::string iface = udp(free_udp_port());
    const std::string send_iface = iface + ":127.0.0.1:9";
    const std::vector<BadArguments> cases = {
        {{}, "gatecat: missing command (dump or send); try 'gatecat --help'"},
        {{"cat"}, "gatecat: unknown command 'cat'; try 'gatecat --help'"},
        {{"--verbose"}, "gatecat: unknown option '--verbose'; try 'gatecat --help'"},
        {{"dump"}, "gatecat: dump: missing interface description, e.g. udp://127.0.0.1:5000; try 'gatecat --help'"},
        {{"send", "--count", "1"}, "gatecat: send: unknown option '--count'; try 'gatecat --help'"},
        {{"dump", iface, "--decode=yes"}, "gatecat: dump: --decode takes no value"},
        {{"dump", iface, "--count"}, "gatecat: dump: --count needs a value"},
        {{"dump", iface, "--count", "0"}, "gatecat: dump: --count takes a whole number from 1 to 4294967295, not '0'"},
        {{"dump", iface, "--count=4294967296"},
         "gatecat: dump: --count takes a whole number from 1 to 4294967295, not '4294967296'"},
        {{"dump", iface, "--count", "-1"},
         "gatecat: dump: --count takes a whole number from 1 to 4294967295, not '-1'"},
        {{"dump", iface, "--timeout", "0"}, "gatecat: dump: --timeout takes a number of seconds above 0, not '0'"},
        {{"dump", iface, "--timeout", "5s"}, "gatecat: dump: --timeout takes a number of seconds above 0, not '5s'"},
        {{"dump", iface, "--timeout", "nan"}, "gatecat: dump: --timeout takes a number of seconds above 0, not 'nan'"},
        {{"dump", iface, "more"}, "gatecat: dump: unexpected argument 'more'"},
        {{"dump", "127.0.0.1:5000"},
         "gatecat: dump: invalid interface description '127.0.0.1:5000'; expected TYPE://PARAMETERS as in the "
         "configuration file, e.g. udp://127.0.0.1:5000"},
        {{"dump", "tcp://127.0.0.1:5000"},
         "gatecat: dump: unsupported interface type 'tcp'; supported types: serial, can, udp, udpserial"},
        {{"dump", "udp://127.0.0.1:5000:127.0.0.1"},
         "gatecat: dump: udp takes HOST:PORT or HOST:PORT:DEST_HOST:DEST_PORT, e.g. "
         "udp://127.0.0.1:5000:127.0.0.1:5001"},
        {{"dump", "udpserial://127.0.0.1:five"}, "gatecat: dump: udpserial port 'five' is not a number"},
        {{"dump", "serial:///dev/ttyUSB0"},
         "gatecat: dump: serial takes PATH:BAUD or PATH:BAUD:STOPBITS, e.g. serial:///dev/ttyUSB0:115200"},
        {{"dump", "serial:///dev/ttyUSB0:fast"}, "gatecat: dump: serial baud rate 'fast' is not a number"},
        {{"dump", "can://can0:can1"}, "gatecat: dump: can takes one interface name, e.g. can://can0"},
        {{"send", iface, "07:01>02#AA"},
         "gatecat: send: sending on udp needs a destination: udp://HOST:PORT:DEST_HOST:DEST_PORT"},
        {{"send", send_iface, "07:01>02#AA", "07:01"},
         "gatecat: send: bad frame '07:01': missing '>' between source and destination; expected "
         "PROTO:SRC>DST#PAYLOAD (on a shell command line quote the frame or write SRC-DST)"},
        {{"send", send_iface, "07:01>02#ABC"},
         "gatecat: send: bad frame '07:01>02#ABC': payload byte 2 has one hex digit; a byte takes two"},
    };
    for (const auto& c : cases) {
        const ProcessResult result = gatecat(c.args);
        const std::string what = c.args.empty() ? "(none)" : c.args.back();
        EXPECT_TRUE(result.exited) << what;
        EXPECT_EQ(result.exit_status, EXIT_USAGE) << what;
        EXPECT_EQ(result.err, c.error + "\n") << what;
        EXPECT_EQ(result.out, "") << what;
    }
}

TEST(GatecatCommandLine, ABadLineOnStandardInputStopsTheSendWithStatusTwo) {
    const uint16_t port = free_udp_port();
    const ProcessResult result =
        run_process_with_input(gatecat_binary(), {"send", udp(free_udp_port()) + ":127.0.0.1:" + std::to_string(port)},
                               "07:01>02#AA\n\n07:01>02#ZZ\n07:01>02#BB\n");
    EXPECT_EQ(result.exit_status, EXIT_USAGE);
    EXPECT_EQ(result.err, "gatecat: send: line 3: payload character 1 'Z' is not a hex digit\n");
}

TEST(GatecatCommandLine, HelpAndVersionPrintOnStandardOutputAndExitZero) {
    const ProcessResult help = gatecat({"--help"});
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_EQ(help.err, "");
    for (const char* text : {"gatecat dump IFACE [--decode] [--count N] [--timeout S]", "gatecat send IFACE [FRAME...]",
                             "PROTO:SRC>DST#PAYLOAD", "2  usage error"}) {
        EXPECT_NE(help.out.find(text), std::string::npos) << text;
    }
    EXPECT_EQ(gatecat({"dump", "udp://127.0.0.1:1", "-h"}).out, help.out);

    const ProcessResult version = gatecat({"--version"});
    EXPECT_EQ(version.exit_status, 0);
    EXPECT_EQ(version.out, std::string(vostrelka::version::SOFTWARE) + "\n");
}

TEST(GatecatCommandLine, AnInterfaceThatDoesNotOpenFailsWithStatusOne) {
    for (const std::string& iface : {std::string("serial:///dev/no-such-line:115200"),
                                     std::string("udp://10.0.0.300:5000"), std::string("can://nosuchcan0")}) {
        const ProcessResult result = gatecat({"dump", iface, "--timeout", "1"});
        EXPECT_EQ(result.exit_status, EXIT_RUNTIME_FAILURE) << iface;
        // The device's own reasons come first, then gatecat's line.
        EXPECT_NE(result.err.find("\ngatecat: dump: cannot open " + iface + "\n"), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(GatecatCommandLine, DumpThatMissesItsCountBeforeTheTimeoutFails) {
    const ProcessResult result = gatecat({"dump", udp(free_udp_port()), "--count", "2", "--timeout", "0.2"});
    EXPECT_EQ(result.exit_status, EXIT_RUNTIME_FAILURE);
    EXPECT_NE(result.err.find("gatecat: 0 frames\ngatecat: dump: 0 of 2 frames before the timeout\n"),
              std::string::npos)
        << result.err;

    const ProcessResult without_count = gatecat({"dump", udp(free_udp_port()), "--timeout", "0.2"});
    EXPECT_EQ(without_count.exit_status, 0) << without_count.err;
}

TEST(GatecatCommandLine, TerminatedDumpStillPrintsItsSummaryAndExitsZero) {
    for (int sig : {SIGTERM, SIGINT}) {
        GateProcess dump(gatecat_binary(), {"dump", "udpserial://127.0.0.1:" + std::to_string(free_udp_port())}, true);
        ASSERT_TRUE(dump.wait_for_prefix("gatecat: listening on ")) << dump.log();
        kill(dump.pid(), sig);
        EXPECT_EQ(dump.wait_exit(), 0) << sig;
        EXPECT_EQ(dump.lines().back(),
                  "gatecat: 0 frames; codec errors: encode 0, rx overflow 0, crc 0, short 0, escape 0");
    }
}

}  // namespace
