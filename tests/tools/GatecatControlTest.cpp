// gatecat as a client of a gateway's control socket: stats, peers and tap
// against a stand-in server that answers by the socket's JSON lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ControlStandIns.h"
#include "support/TsharkReader.h"
#include "support/paths.h"

using namespace test_support;

namespace {

const std::string STATS_REQUEST = R"({"request":"stats"})";
const std::string PEERS_REQUEST = R"({"request":"peers"})";
const std::string TAP_REQUEST = R"({"request":"tap"})";

const std::string STATS_ANSWER =
    R"({"uptime_s":3723.5,"version":"0.1.0","interfaces":[)"
    R"({"id":1,"description":"udp://127.0.0.1:7001","kind":"udp","role":"local","frames_in":12,"bytes_in":345,)"
    R"("frames_out":10,)"
    R"("bytes_out":300,"decode_errors":{},"drops":{"unroutable":2,"queue_full":0,"truncated":0,"send_error":0}},)"
    R"({"id":2,"description":"udpserial://127.0.0.1:7002","kind":"udpserial","role":"manet","frames_in":3,)"
    R"("bytes_in":60,)"
    R"("frames_out":1234567,"bytes_out":98765432,"decode_errors":{"crc":1,"escape":0,"short":2},)"
    R"("drops":{"unroutable":0,"queue_full":0,"truncated":0,"send_error":0}}]})"
    "\n";

TEST(GatecatControl, StatsAndPeersPrintTheGatewaysAnswerAsTables) {
    TempDir dir;
    const std::string path = dir.path() + "/control.sock";
    StandInGateway server(
        path, {{STATS_REQUEST, STATS_ANSWER},
               {PEERS_REQUEST,
                R"({"local_peers":[{"addr":"0x10","iface":1,"inet":"127.0.0.1:7101"},{"addr":"0x21","iface":3}],)"
                R"("manet_links":[{"manet_addr":"0x0A000001","iface":2,"local_addr":"0x02","inet":"10.0.0.1:6000",)"
                R"("resolver":"gw1.example.net:6000","resolver_state":"resolved","reason":null,"age_s":1.5,)"
                R"("origin":"configured"},{"manet_addr":"0x0A000003","iface":2,"local_addr":"0x03","inet":null,)"
                R"("resolver":"gw3.example.net:6000","resolver_state":"pending",)"
                R"("reason":"Name or service not known","age_s":12.5,"origin":"announced"}]})"
                "\n"}});
    const ProcessResult stats = run_process_with_input(gatecat_binary(), {"stats", path}, "");
    EXPECT_EQ(stats.exit_status, 0) << stats.err;
    EXPECT_EQ(stats.out,
              "gate 0.1.0, up 3723.5 s\n"
              "iface  kind       role   frames in  bytes in  frames out  bytes out  description\n"
              "    1  udp        local         12       345          10        300  udp://127.0.0.1:7001\n"
              "    2  udpserial  manet          3        60     1234567   98765432  udpserial://127.0.0.1:7002\n"
              "\n"
              "iface  decode errors   drops\n"
              "    1  none            unroutable 2\n"
              "    2  crc 1, short 2  none\n");
    const ProcessResult peers = run_process_with_input(gatecat_binary(), {"peers", path}, "");
    EXPECT_EQ(peers.exit_status, 0) << peers.err;
    EXPECT_EQ(
        peers.out,
        "local peers\n"
        "addr  iface  inet\n"
        "0x10      1  127.0.0.1:7101\n"
        "0x21      3  -\n"
        "\n"
        "MANet links\n"
        "manet_addr  iface  local_addr  inet           resolver              state     age s  origin      reason\n"
        "0x0A000001      2  0x02        10.0.0.1:6000  gw1.example.net:6000  resolved    1.5  configured  -\n"
        "0x0A000003      2  0x03        -              gw3.example.net:6000  pending    12.5  announced   "
        "Name or service not known\n");
    EXPECT_EQ(server.requests(), (std::vector<std::string>{STATS_REQUEST, PEERS_REQUEST}));
}

TEST(GatecatControl, TapPrintsFramesWithTheirInterfaceReportsLossesAndWritesACapture) {
    TempDir dir;
    const std::string path = dir.path() + "/control.sock", capture = dir.path() + "/tap.pcap";
    StandInGateway server(
        path, {{STATS_REQUEST, STATS_ANSWER},
               {TAP_REQUEST,
                R"({"t":1732170000.123456,"iface":1,"dir":"in","proto_id":7,"src":16,"dst":32,"payload":"DEADBEEF"})"
                "\n"
                R"({"lost":5})"
                "\n"
                R"({"t":1732170000.2,"iface":2,"dir":"out","proto_id":14,"src":48,"dst":16,)"
                R"("payload":"0109000000050000000000803F03"})"
                "\n"
                R"({"t":1732170001.5,"iface":2,"dir":"out","proto_id":9,"src":32,"dst":48,"payload":"4255AA"})"
                "\n"}});
    const ProcessResult tap =
        run_process_with_input(gatecat_binary(), {"tap", "-d", "-c", "3", "-w", capture, path}, "");
    EXPECT_EQ(tap.exit_status, 0) << tap.err;
    EXPECT_EQ(tap.out,
              "(1732170000.123456) iface 1 in 07:10>20#DEADBEEF  proto_id 7  0x10 -> 0x20  len 4\n"
              "(1732170000.200000) iface 2 out 0E:30>10#0109000000050000000000803F03  proto_id 14  0x30 -> 0x10  "
              "len 14  base_config{addr=5 power=1 channel=3}\n"
              "(1732170001.500000) iface 2 out 09:20>30#4255AA  proto_id 9  0x20 -> 0x30  len 3\n");
    EXPECT_EQ(tap.err, "gatecat: tapping " + path +
                           "\ngatecat: tap: the gateway dropped 5 frames for this client\ngatecat: 3 frames, 5 lost\n");
    // The stats request tells each interface's medium for the capture.
    EXPECT_EQ(server.requests(), (std::vector<std::string>{STATS_REQUEST, TAP_REQUEST}));

    if (!tshark_installed()) GTEST_SKIP() << "tshark is not installed (scripts/install-deps installs it)";
    std::vector<std::string> args = tshark_reading(capture);
    args.insert(args.end(), {"-T", "fields", "-E", "separator=|", "-e", "frame.time_epoch", "-e", "gate.medium", "-e",
                             "gate.serial.crc_status", "-e", "_ws.col.Info"});
    EXPECT_EQ(run_process_with_input(TSHARK, args, "", 30000).out,
              "1732170000.123456000|1||iface 1 in  proto_id 7  0x10 -> 0x20  len 4\n"
              "1732170000.200000000|2|good|iface 2 out  proto_id 14  0x30 -> 0x10  len 14  base_config\n"
              "1732170001.500000000|2|good|iface 2 out  proto_id 9  0x20 -> 0x30  len 3\n");
}

TEST(GatecatControl, AGatewayThatAnswersNonsenseOrHangsUpIsARuntimeFailure) {
    TempDir dir;
    const std::string path = dir.path() + "/control.sock";
    StandInGateway server(path,
                          {{STATS_REQUEST, "[1,2]\n"},
                           {TAP_REQUEST, R"({"t":1.0,"iface":1,"dir":"in","proto_id":7,"src":1,"dst":2,"payload":""})"
                                         "\n{\"t\":2.0}\n"}},
                          StandInGateway::HANG_UP);
    const ProcessResult stats = run_process_with_input(gatecat_binary(), {"stats", path}, "");
    EXPECT_EQ(stats.exit_status, 1);
    EXPECT_EQ(stats.err, "gatecat: stats: the gateway's answer is not a JSON object: [1,2]\n");
    const ProcessResult tap = run_process_with_input(gatecat_binary(), {"tap", path}, "");
    EXPECT_EQ(tap.exit_status, 1);
    EXPECT_EQ(tap.out, "(1.000000) iface 1 in 07:01>02#  proto_id 7  0x01 -> 0x02  len 0\n");
    EXPECT_EQ(tap.err, "gatecat: tapping " + path + "\ngatecat: tap: not a frame of the tap stream: {\"t\":2.0}\n" +
                           "gatecat: 1 frame, 0 lost\n");
    const ProcessResult peers = run_process_with_input(gatecat_binary(), {"peers", path}, "");
    EXPECT_EQ(peers.exit_status, 1);
    EXPECT_EQ(peers.err, "gatecat: peers: no answer from " + path + "\n");
}

// The real gateway: a tap sees a forwarded frame come in and go out, and
// the counters and tables show it.
TEST(GatecatControl, ShowsTheRealGatewaysTrafficCountersAndTables) {
    TempDir dir;
    GateWithTwoDevices site(dir.path() + "/control.sock");
    ASSERT_TRUE(site.ready) << site.gate.log();
    const std::string& path = site.socket;
    const std::string link_1 = std::to_string(site.link_1), link_2 = std::to_string(site.link_2);
    GateProcess tap(gatecat_binary(), {"tap", "-c", "2", path}, true);
    ASSERT_TRUE(tap.wait_for_prefix("gatecat: tapping ")) << tap.log();
    // Answered after the gateway has read the tap's request, which came first.
    ASSERT_EQ(run_process_with_input(gatecat_binary(), {"stats", path}, "").exit_status, 0);

    ASSERT_TRUE(site.forward_one_frame());
    ASSERT_EQ(tap.wait_exit(), 0) << tap.log();
    std::vector<std::string> frames;
    for (const std::string& line : tap.lines()) {
        if (line.rfind('(', 0) == 0) frames.push_back(line.substr(line.find(") ") + 2));
    }
    EXPECT_EQ(frames, (std::vector<std::string>{"iface 1 in 07:10>20#DEADBEEF  proto_id 7  0x10 -> 0x20  len 4",
                                                "iface 2 out 07:10>20#DEADBEEF  proto_id 7  0x10 -> 0x20  len 4"}));

    // The real answers read as the stand-in's do (their layout is pinned
    // above): the counters' and tables' rows of the forwarded frame.
    const ProcessResult stats = run_process_with_input(gatecat_binary(), {"stats", path}, "");
    EXPECT_EQ(stats.exit_status, 0) << stats.err;
    for (const std::string& row :
         {"    1  udp        local          1         7           0          0  udp://127.0.0.1:" + link_1 + "\n",
          "    2  udpserial  local          0         0           1         13  udpserial://127.0.0.1:" + link_2 + "\n",
          std::string("    2  none           none\n")}) {
        EXPECT_NE(stats.out.find(row), std::string::npos) << row << stats.out;
    }
    const ProcessResult peers = run_process_with_input(gatecat_binary(), {"peers", path}, "");
    EXPECT_EQ(peers.exit_status, 0) << peers.err;
    EXPECT_NE(peers.out.find("0x20      2  " + site.device_20.address() + "\n"), std::string::npos) << peers.out;
}

}  // namespace
