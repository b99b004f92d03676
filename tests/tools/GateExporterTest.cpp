// gate-exporter over real HTTP on 127.0.0.1: the metric lines it makes of
// the gateways' answers, of the real gateway's counters, and of gateways
// that are silent, gone or talking nonsense.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gate-exporter/GatewayQuery.h"
#include "support/GateProcess.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/paths.h"
#include "vostrelka/version.h"

using namespace test_support;

namespace {

constexpr int POLL_MS = 50;

int listening_unix_socket(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 4) != 0) std::abort();
    return fd;
}

// A gateway's control socket played by the test: every request line gets
// the answer given for it, on as many connections as come.
class StandInGateway {
public:
    StandInGateway(const std::string& path, std::map<std::string, std::string> answers)
        : answers(std::move(answers)), listener(listening_unix_socket(path)) {
        server = std::thread([this] { serve(); });
    }
    ~StandInGateway() {
        stop = true;
        server.join();
        close(listener);
    }

private:
    bool readable(int fd) {
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, POLL_MS) > 0;
    }
    void serve() {
        while (!stop) {
            if (!readable(listener)) continue;
            const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            std::string line;
            char c;
            while (!stop) {
                if (!readable(client)) continue;
                if (read(client, &c, 1) != 1) break;
                if (c != '\n') {
                    line += c;
                    continue;
                }
                const std::string answer = answers[line] + "\n";
                line.clear();
                if (send(client, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
            }
            close(client);
        }
    }

    std::map<std::string, std::string> answers;
    int listener;
    std::atomic<bool> stop{false};
    std::thread server;
};

// The exporter on a port of the system's choosing, told by its first line.
struct Exporter {
    explicit Exporter(const std::vector<std::string>& sockets) : process(gate_exporter_binary(), args(sockets), true) {
        const auto line = process.wait_for_prefix("gate-exporter: listening on 127.0.0.1:0, port ");
        if (line) port = static_cast<uint16_t>(std::stoi(line->substr(line->rfind(' ') + 1)));
    }
    static std::vector<std::string> args(const std::vector<std::string>& sockets) {
        std::vector<std::string> all{"--listen", "127.0.0.1:0"};
        all.insert(all.end(), sockets.begin(), sockets.end());
        return all;
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
        std::vector<std::string> lines;
        const size_t body = response.find("\r\n\r\n");
        if (response.rfind("HTTP/1.1 200", 0) != 0 || body == std::string::npos) return lines;
        std::istringstream text(response.substr(body + 4));
        for (std::string line; std::getline(text, line);) {
            if (line.rfind(prefix, 0) == 0) lines.push_back(line);
        }
        return lines;
    }

    GateProcess process;
    uint16_t port = 0;
};

const std::string STATS = R"({"uptime_s":100.25,"version":"0.1.0","interfaces":[)"
                          R"({"id":1,"description":"udp://10.99.0.1:7700","kind":"udp","role":"manet",)"
                          R"("frames_in":12,"bytes_in":345,"frames_out":10,"bytes_out":300,"decode_errors":{},)"
                          R"("drops":{"unroutable":2,"queue_full":0,"truncated":0,"send_error":1}},)"
                          R"({"id":4,"description":"serial:///dev/ttyUSB0:115200","kind":"serial","role":"local",)"
                          R"("link_up":false,"frames_in":3,"bytes_in":60,"frames_out":1234567,"bytes_out":98765432,)"
                          R"("decode_errors":{"crc":1,"short":2},"drops":{"unroutable":0}}]})";
const std::string PEERS =
    R"({"local_peers":[{"addr":"0x10","iface":4,"inet":null},{"addr":"0x11","iface":4,"inet":null}],)"
    R"("manet_links":[)"
    R"({"manet_addr":"0x0A000002","iface":1,"local_addr":"0x02","inet":"10.99.0.2:7700","resolver":"gw-2:7700",)"
    R"("resolver_state":"resolved","age_s":1.5,"origin":"configured"},)"
    R"({"manet_addr":"0x0A000003","iface":1,"local_addr":"0x03","inet":null,"resolver":"gw-3:7700",)"
    R"("resolver_state":"pending","age_s":1.5,"origin":"configured"},)"
    R"({"manet_addr":"0x0F000001","iface":1,"local_addr":"0xFF","inet":null,"resolver":"utm:7700",)"
    R"("resolver_state":"pending","age_s":0.5,"origin":"announced"},)"
    R"({"manet_addr":"0x0A000011","iface":4,"local_addr":"0x11","inet":null,"resolver":null,)"
    R"("resolver_state":"none","age_s":2.0,"origin":"learned"}]})";

// Every metric of a gateway from its answers; a silent gateway, a missing
// socket and one that answers with something other than its stats are
// down and nothing else, and do not hold up the others.
TEST(GateExporter, MakesExactMetricLinesOfTheAnswersAndOnlyGateUpOfAGatewayThatDoesNotAnswer) {
    TempDir dir;
    const std::string depot = dir.path() + "/depot/control.sock", silent = dir.path() + "/silent/control.sock",
                      gone = dir.path() + "/gone/control.sock", odd = dir.path() + "/odd/control.sock";
    StandInGateway depot_gateway(depot, {{R"({"request":"stats"})", STATS}, {R"({"request":"peers"})", PEERS}});
    StandInGateway odd_gateway(
        odd, {{R"({"request":"stats"})", R"({"error":"unknown request: stats"})"}, {R"({"request":"peers"})", "[]"}});
    const int silent_listener = listening_unix_socket(silent);  // never accepts, never answers

    Exporter exporter({depot, silent, gone, odd});
    ASSERT_NE(exporter.port, 0) << exporter.process.log();
    const double before_s = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::vector<std::string> lines = exporter.metrics();
    const double after_s = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();

    // The start time follows the clock: checked apart, against the uptime.
    const std::string start_prefix = R"(gate_start_time_seconds{gateway="depot"} )";
    auto start = std::find_if(lines.begin(), lines.end(),
                              [&](const std::string& line) { return line.rfind(start_prefix, 0) == 0; });
    ASSERT_NE(start, lines.end());
    const double start_s = std::stod(start->substr(start_prefix.size()));
    EXPECT_GE(start_s, before_s - 100.25 - 0.001);
    EXPECT_LE(start_s, after_s - 100.25 + 0.001);
    lines.erase(start);

    EXPECT_EQ(lines, (std::vector<std::string>{
                         R"(gate_up{gateway="depot"} 1)",
                         R"(gate_up{gateway="silent"} 0)",
                         R"(gate_up{gateway="gone"} 0)",
                         R"(gate_up{gateway="odd"} 0)",
                         R"(gate_build_info{gateway="depot",version="0.1.0"} 1)",
                         R"(gate_interface_info{gateway="depot",iface="1",kind="udp",role="manet",)"
                         R"(description="udp://10.99.0.1:7700"} 1)",
                         R"(gate_interface_info{gateway="depot",iface="4",kind="serial",role="local",)"
                         R"(description="serial:///dev/ttyUSB0:115200"} 1)",
                         R"(gate_frames_received_total{gateway="depot",iface="1"} 12)",
                         R"(gate_frames_received_total{gateway="depot",iface="4"} 3)",
                         R"(gate_frames_sent_total{gateway="depot",iface="1"} 10)",
                         R"(gate_frames_sent_total{gateway="depot",iface="4"} 1234567)",
                         R"(gate_bytes_received_total{gateway="depot",iface="1"} 345)",
                         R"(gate_bytes_received_total{gateway="depot",iface="4"} 60)",
                         R"(gate_bytes_sent_total{gateway="depot",iface="1"} 300)",
                         R"(gate_bytes_sent_total{gateway="depot",iface="4"} 98765432)",
                         R"(gate_decode_errors_total{gateway="depot",iface="4",error="crc"} 1)",
                         R"(gate_decode_errors_total{gateway="depot",iface="4",error="short"} 2)",
                         R"(gate_drops_total{gateway="depot",iface="1",cause="unroutable"} 2)",
                         R"(gate_drops_total{gateway="depot",iface="1",cause="queue_full"} 0)",
                         R"(gate_drops_total{gateway="depot",iface="1",cause="truncated"} 0)",
                         R"(gate_drops_total{gateway="depot",iface="1",cause="send_error"} 1)",
                         R"(gate_drops_total{gateway="depot",iface="4",cause="unroutable"} 0)",
                         R"(gate_link_up{gateway="depot",iface="1"} 1)",
                         R"(gate_link_up{gateway="depot",iface="4"} 0)",
                         R"(gate_local_peers{gateway="depot",iface="1"} 0)",
                         R"(gate_local_peers{gateway="depot",iface="4"} 2)",
                         R"(gate_manet_links{gateway="depot",iface="1",origin="configured"} 2)",
                         R"(gate_manet_links{gateway="depot",iface="1",origin="learned"} 0)",
                         R"(gate_manet_links{gateway="depot",iface="1",origin="announced"} 1)",
                         R"(gate_manet_links{gateway="depot",iface="4",origin="configured"} 0)",
                         R"(gate_manet_links{gateway="depot",iface="4",origin="learned"} 1)",
                         R"(gate_manet_links{gateway="depot",iface="4",origin="announced"} 0)",
                         R"(gate_resolutions_pending{gateway="depot"} 2)",
                     }));
    // Both kinds of family are typed, for the server's sake.
    EXPECT_EQ(exporter.metrics("# TYPE gate_frames_sent_total"),
              std::vector<std::string>{"# TYPE gate_frames_sent_total counter"});
    EXPECT_EQ(exporter.metrics("# TYPE gate_link_up"), std::vector<std::string>{"# TYPE gate_link_up gauge"});
    close(silent_listener);
}

// The real gateway's counters, after one frame forwarded between two local devices.
TEST(GateExporter, ShowsTheRealGatewaysCountersByTheSocketsFolderName) {
    TempDir dir;
    UdpEndpoint device_10, device_20;
    std::filesystem::create_directory(dir.path() + "/site");
    const std::string path = dir.path() + "/site/control.sock";
    const uint16_t link_1 = free_udp_port(), link_2 = free_udp_port();
    GateProcess gate(
        {"--config",
         dir.write_file("gate.json", R"({"control": {"path": ")" + path + R"("},)" +
                                         R"("ifaces": [{"iface": "udp://127.0.0.1:)" + std::to_string(link_1) +
                                         R"(", "id": 1}, {"iface": "udp://127.0.0.1:)" + std::to_string(link_2) +
                                         R"(", "id": 2}], "local_peers": [)"
                                         R"({"netdev_addr": "0x10", "iface_id": 1, "inet_addr": ")" +
                                         device_10.address() +
                                         R"("}, {"netdev_addr": "0x20", "iface_id": 2, "inet_addr": ")" +
                                         device_20.address() + R"("}]})")});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (access(path.c_str(), F_OK) != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(access(path.c_str(), F_OK), 0) << gate.log();
    ASSERT_TRUE(device_10.send_to(link_1, {0x07, 0x10, 0x20, 0xDE, 0xAD, 0xBE, 0xEF}));
    ASSERT_TRUE(device_20.receive());

    Exporter exporter({path});
    ASSERT_NE(exporter.port, 0) << exporter.process.log();
    const std::vector<std::string> lines = exporter.metrics();
    for (const char* expected : {
             R"(gate_up{gateway="site"} 1)",
             R"(gate_frames_received_total{gateway="site",iface="1"} 1)",
             R"(gate_bytes_received_total{gateway="site",iface="1"} 7)",
             R"(gate_frames_sent_total{gateway="site",iface="2"} 1)",
             R"(gate_bytes_sent_total{gateway="site",iface="2"} 7)",
             R"(gate_frames_sent_total{gateway="site",iface="1"} 0)",
             R"(gate_link_up{gateway="site",iface="2"} 1)",
             R"(gate_local_peers{gateway="site",iface="2"} 1)",
             R"(gate_resolutions_pending{gateway="site"} 0)",
         }) {
        EXPECT_NE(std::find(lines.begin(), lines.end(), std::string(expected)), lines.end()) << expected;
    }
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        std::string(R"(gate_build_info{gateway="site",version=")") + vostrelka::version::SOFTWARE +
                            R"("} 1)"),
              lines.end());
}

// Without sockets on its command line the exporter looks for them at each
// scrape; a socket is named after its folder.
TEST(GateExporter, FindsEveryGatewaysSocketUnderTheRunFolder) {
    TempDir dir;
    for (const char* name : {"b", "a"}) std::filesystem::create_directories(dir.path() + "/" + name);
    dir.write_file("a/control.sock", "");
    dir.write_file("b/control.sock", "");
    dir.write_file("b/other.sock", "");
    EXPECT_EQ(vostrelka::exporter::find_sockets(dir.path()),
              (std::vector<std::string>{dir.path() + "/a/control.sock", dir.path() + "/b/control.sock"}));
    EXPECT_EQ(vostrelka::exporter::gateway_name("/run/gate/site/control.sock"), "site");
    EXPECT_EQ(vostrelka::exporter::gateway_name("control.sock"), "control.sock");
}

}  // namespace
