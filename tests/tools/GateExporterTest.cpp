// gate-exporter over real HTTP on 127.0.0.1: the metric lines it makes of
// the gateways' answers, of the real gateway's counters, and of gateways
// that are silent, gone or talking nonsense.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "gate-exporter/GatewayQuery.h"
#include "support/ControlStandIns.h"
#include "support/paths.h"
#include "vostrelka/version.h"

using namespace test_support;

namespace {

std::vector<std::string> lines_of(const std::string& text, const std::string& prefix = "") {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(prefix, 0) == 0) lines.push_back(line);
    }
    return lines;
}

// The exporter on a port of the system's choosing, told by its first line.
struct Exporter {
    explicit Exporter(std::vector<std::string> sockets)
        : process(gate_exporter_binary(), with_listen(std::move(sockets)), true) {
        const auto line = process.wait_for_prefix("gate-exporter: listening on 127.0.0.1:0, port ");
        if (line) port = static_cast<uint16_t>(std::stoi(line->substr(line->rfind(' ') + 1)));
    }
    static std::vector<std::string> with_listen(std::vector<std::string> sockets) {
        sockets.insert(sockets.begin(), {"--listen", "127.0.0.1:0"});
        return sockets;
    }

    // The lines of /metrics that start with `prefix`; empty when the server
    // gave no whole answer.
    std::vector<std::string> metrics(const std::string& prefix = "gate_") const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(port);
        std::string response;
        const std::string request = "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
            char chunk[4096];
            ssize_t got;
            while (wait_readable(fd, 5000) && (got = read(fd, chunk, sizeof chunk)) > 0) response.append(chunk, got);
        }
        close(fd);
        const size_t body = response.find("\r\n\r\n");
        if (response.rfind("HTTP/1.1 200", 0) != 0 || body == std::string::npos) return {};
        return lines_of(response.substr(body + 4), prefix);
    }

    GateProcess process;
    uint16_t port = 0;
};

double now_s() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Every metric of a gateway from its answers; a silent gateway, a missing
// socket and one that answers with something other than its stats are
// down and nothing else, and do not hold up the others.
TEST(GateExporter, MakesExactMetricLinesOfTheAnswersAndOnlyGateUpOfAGatewayThatDoesNotAnswer) {
    TempDir dir;
    const std::string depot = dir.path() + "/depot/control.sock", silent = dir.path() + "/silent/control.sock",
                      gone = dir.path() + "/gone/control.sock", odd = dir.path() + "/odd/control.sock";
    StandInGateway depot_gateway(depot, {{R"({"request":"stats"})", test_data("tools/data/depot-stats.json")},
                                         {R"({"request":"peers"})", test_data("tools/data/depot-peers.json")}});
    StandInGateway odd_gateway(odd, {{R"({"request":"stats"})", "{\"error\":\"unknown request: stats\"}\n"},
                                     {R"({"request":"peers"})", "[]\n"}});
    StandInGateway silent_gateway(silent, {}, StandInGateway::SILENT);

    Exporter exporter({depot, silent, gone, odd});
    ASSERT_NE(exporter.port, 0) << exporter.process.log();
    const double before_s = now_s();
    std::vector<std::string> lines = exporter.metrics();
    const double after_s = now_s();

    // The start time follows the clock: checked apart, against the uptime.
    const std::string start_prefix = R"(gate_start_time_seconds{gateway="depot"} )";
    auto start = std::find_if(lines.begin(), lines.end(),
                              [&](const std::string& line) { return line.rfind(start_prefix, 0) == 0; });
    ASSERT_NE(start, lines.end());
    const double start_s = std::stod(start->substr(start_prefix.size()));
    EXPECT_GE(start_s, before_s - 100.25 - 0.001);
    EXPECT_LE(start_s, after_s - 100.25 + 0.001);
    lines.erase(start);
    EXPECT_EQ(lines, lines_of(test_data("tools/data/depot.prom")));
    // Both kinds of family are typed, for the server's sake.
    EXPECT_EQ(exporter.metrics("# TYPE gate_frames_sent_total"),
              std::vector<std::string>{"# TYPE gate_frames_sent_total counter"});
    EXPECT_EQ(exporter.metrics("# TYPE gate_link_up"), std::vector<std::string>{"# TYPE gate_link_up gauge"});
}

// The real gateway's counters, after one frame forwarded between two local
// devices, under the name of the socket's folder.
TEST(GateExporter, ShowsTheRealGatewaysCountersByTheSocketsFolderName) {
    TempDir dir;
    GateWithTwoDevices site(dir.path() + "/site/control.sock");
    ASSERT_TRUE(site.ready) << site.gate.log();
    ASSERT_TRUE(site.forward_one_frame());

    Exporter exporter({site.socket});
    ASSERT_NE(exporter.port, 0) << exporter.process.log();
    const std::vector<std::string> lines = exporter.metrics();
    // Bytes as the links carry them: a 7-byte datagram in, 13 serial-framed bytes out.
    for (const std::string& expected : {
             std::string(R"(gate_build_info{gateway="site",version=")") + vostrelka::version::SOFTWARE + R"("} 1)",
             std::string(R"(gate_up{gateway="site"} 1)"),
             std::string(R"(gate_frames_received_total{gateway="site",iface="1"} 1)"),
             std::string(R"(gate_bytes_received_total{gateway="site",iface="1"} 7)"),
             std::string(R"(gate_frames_sent_total{gateway="site",iface="2"} 1)"),
             std::string(R"(gate_bytes_sent_total{gateway="site",iface="2"} 13)"),
             std::string(R"(gate_frames_sent_total{gateway="site",iface="1"} 0)"),
             std::string(R"(gate_link_up{gateway="site",iface="2"} 1)"),
             std::string(R"(gate_local_peers{gateway="site",iface="2"} 1)"),
             std::string(R"(gate_resolutions_pending{gateway="site"} 0)"),
         }) {
        EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end()) << expected;
    }
}

// Without sockets on its command line the exporter looks for them at each
// scrape; a socket is named after its folder.
TEST(GateExporter, FindsEveryGatewaysSocketUnderTheRunFolder) {
    TempDir dir;
    for (const char* name : {"b", "a"}) std::filesystem::create_directories(dir.path() + "/" + name);
    for (const char* name : {"a/control.sock", "b/control.sock", "b/other.sock"}) dir.write_file(name, "");
    EXPECT_EQ(vostrelka::exporter::find_sockets(dir.path()),
              (std::vector<std::string>{dir.path() + "/a/control.sock", dir.path() + "/b/control.sock"}));
    EXPECT_EQ(vostrelka::exporter::gateway_name("/run/gate/site/control.sock"), "site");
    EXPECT_EQ(vostrelka::exporter::gateway_name("control.sock"), "control.sock");
}

}  // namespace
