// The control socket of the real gate binary: counters, peer tables and the
// tap as a client reads them, what a bad or slow client gets, the socket
// file's life.
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "support/ControlClient.h"
#include "support/GateLink.h"
#include "support/GateProcess.h"
#include "support/InProcessGate.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"

using namespace test_support;
using json = nlohmann::json;
using Frame = RecordedFrame;

namespace {

constexpr uint8_t OPAQUE_PROTO = 7;
constexpr uint8_t UNKNOWN_PEER = 0x99;

// One interface entry of a configuration.
std::string iface(const std::string& description, int id, const std::string& extra = "") {
    return R"({"iface": ")" + description + R"(", "id": )" + std::to_string(id) + extra + "}";
}

std::string udp_description(const char* kind, const Link& link) {
    return std::string(kind) + "://127.0.0.1:" + std::to_string(link.gate_port);
}

// The frame's serial bytes with its last payload byte changed: a CRC error.
Bytes corrupted(const Frame& frame) {
    Bytes bytes = to_serial_bytes(frame);
    bytes[bytes.size() - 2] ^= 0x01;
    return bytes;
}

// udp on iface 1 (device 0x10), udpserial on iface 2 (device 0x20), serial
// on iface 3 (device 0x30), the MANet interface 4 with gateway 0x0A000002
// (local address 0x22), and the control socket.
class ControlSocketTest : public testing::Test {
protected:
    void start(const std::string& control = "") {
        const std::string config =
            R"({"ifaces": [)" + iface(udp_description("udp", udp), 1) + ", " +
            iface(udp_description("udpserial", udpserial), 2) + ", " + iface(serial_description, 3) + ", " +
            iface("udp://127.0.0.1:" + std::to_string(gateway.gate_port), 4, R"(, "type": "manet")") +
            R"(], "local_peers": [{"netdev_addr": "0x10", "iface_id": 1, "inet_addr": ")" + udp.udp.address() +
            R"("}, {"netdev_addr": "0x20", "iface_id": 2, "inet_addr": ")" + udpserial.udp.address() +
            R"("}, {"netdev_addr": "0x30", "iface_id": 3}],
            "manet_peers": [{"manet_addr": "0x0A000002", "netdev_addr": "0x22", "iface_id": 4, "inet_addr": ")" +
            gateway.udp.address() + R"("}],
            "control": )" +
            (control.empty() ? R"({"path": ")" + socket_path + R"("})" : control) + "}";
        gate = std::make_unique<GateProcess>(std::vector<std::string>{"--config", dir.write_file("gate.json", config)});
    }
    // The stats of every interface by id, once `settled` holds for them.
    std::map<int, json> interfaces(ControlClient& client,
                                   const std::function<bool(const std::map<int, json>&)>& settled) {
        std::map<int, json> by_id;
        for (int i = 0; i < 100; i++) {
            by_id.clear();
            const json stats = client.ask("stats");
            for (const json& entry : stats["interfaces"]) by_id[entry["id"].get<int>()] = entry;
            if (settled(by_id)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return by_id;
    }

    TempDir dir;
    std::string socket_path = dir.path() + "/control.sock";
    PtyPair line;
    std::string serial_description = "serial://" + line.slave_path() + ":115200";
    Link udp{free_udp_port(), false};
    Link udpserial{free_udp_port(), true};
    Link serial{0, true, &line};
    Link gateway{free_udp_port(), false};
    std::unique_ptr<GateProcess> gate;
};

TEST_F(ControlSocketTest, StatsCountGoodAndCorruptedFramesExactlyOnEachKindOfLink) {
    start();
    ControlClient client(socket_path);
    constexpr int GOOD = 5, CORRUPTED = 3;
    const Frame frame{OPAQUE_PROTO, 0x41, UNKNOWN_PEER, {1, 2, 3, 4}};
    const Bytes serial_bytes = to_serial_bytes(frame);
    for (int i = 0; i < GOOD; i++) {
        udp.send(frame), udpserial.send(frame), serial.send(frame);
    }
    for (int i = 0; i < CORRUPTED; i++) {
        ASSERT_TRUE(udp.udp.send_to(udp.gate_port, {OPAQUE_PROTO, 0x41}));  // shorter than a header
        ASSERT_TRUE(udpserial.udp.send_to(udpserial.gate_port, corrupted(frame)));
        ASSERT_TRUE(line.write_master(corrupted(frame)));
    }
    auto stats = interfaces(client, [](const std::map<int, json>& by_id) {
        for (int id : {2, 3}) {
            if (by_id.count(id) == 0 || by_id.at(id)["decode_errors"]["crc"] != CORRUPTED) return false;
        }
        return by_id.count(1) != 0 && by_id.at(1)["bytes_in"] == GOOD * 7 + CORRUPTED * 2;
    });

    // None of them had anywhere to go.
    auto expected = [&](int id, const std::string& description, const char* kind, uint64_t bytes_in,
                        const json& decode_errors) {
        return json{{"id", id},
                    {"description", description},
                    {"kind", kind},
                    {"role", "local"},
                    {"link_up", true},
                    {"frames_in", GOOD},
                    {"bytes_in", bytes_in},
                    {"frames_out", 0},
                    {"bytes_out", 0},
                    {"decode_errors", decode_errors},
                    {"drops", {{"unroutable", GOOD}, {"queue_full", 0}, {"truncated", 0}, {"send_error", 0}}}};
    };
    // The delimiter closing a bad message may open the next one, so the next
    // message's own opening delimiter ends an empty one: a short message for
    // every corrupted frame followed by another.
    const json serial_errors = {
        {"crc", CORRUPTED}, {"short", CORRUPTED - 1}, {"escape", 0}, {"rx_overflow", 0}, {"encode", 0}};
    const uint64_t serial_bytes_in = (GOOD + CORRUPTED) * serial_bytes.size();
    EXPECT_EQ(stats[1], expected(1, udp_description("udp", udp), "udp", GOOD * 7 + CORRUPTED * 2, json::object()));
    EXPECT_EQ(stats[2],
              expected(2, udp_description("udpserial", udpserial), "udpserial", serial_bytes_in, serial_errors));
    EXPECT_EQ(stats[3], expected(3, serial_description, "serial", serial_bytes_in, serial_errors));
    EXPECT_EQ(stats[4]["kind"], "udp");
    EXPECT_EQ(stats[4]["role"], "manet");

    // Frames that go somewhere count out on the link they leave by, in the
    // bytes it carries.
    const Frame to_udp{OPAQUE_PROTO, 0x30, 0x10, {9, 9}}, to_udpserial{OPAQUE_PROTO, 0x30, 0x20, {9, 9}};
    serial.send(to_udp), serial.send(to_udpserial);
    ASSERT_EQ(udp.receive(), to_udp);
    ASSERT_EQ(udpserial.receive(), to_udpserial);
    const json after = client.ask("stats");
    EXPECT_EQ(after["interfaces"][0]["frames_out"], 1);
    EXPECT_EQ(after["interfaces"][0]["bytes_out"], 5);
    EXPECT_EQ(after["interfaces"][1]["frames_out"], 1);
    EXPECT_EQ(after["interfaces"][1]["bytes_out"], to_serial_bytes(to_udpserial).size());
    EXPECT_EQ(after["interfaces"][2]["frames_in"], GOOD + 2);
    EXPECT_GT(after["uptime_s"].get<double>(), 0.0);
    EXPECT_FALSE(after["version"].get<std::string>().empty());
}

TEST_F(ControlSocketTest, PeersShowConfiguredAndLearnedLinksWithTheirOrigin) {
    start();
    ControlClient client(socket_path);
    // From node 0x0B000001 behind device 0x41 on the udp link to gateway 0x0A000002:
    //   src_addr (4, LE) | dst_addr (4, LE) | kind | flag
    udp.send({10, 0x41, 0xFF, {0x01, 0, 0, 0x0B, 0x02, 0, 0, 0x0A, 0, 0}});
    const std::string gw = gateway.udp.address();
    json peers;
    for (int i = 0; i < 100; i++) {
        peers = client.ask("peers");
        if (peers["manet_links"].size() == 2 && peers["manet_links"][0]["resolver_state"] == "resolved") break;
        udp.udp.send_to(udp.gate_port, {0});  // a pass of the loop collects the lookup
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(peers["manet_links"].size(), 2u) << peers;
    for (json& link : peers["manet_links"]) {
        EXPECT_LT(link["age_s"].get<double>(), 10.0);
        link.erase("age_s");
    }
    const json local_peers = {{{"addr", "0x10"}, {"iface", 1}, {"inet", udp.udp.address()}},
                              {{"addr", "0x20"}, {"iface", 2}, {"inet", udpserial.udp.address()}},
                              {{"addr", "0x30"}, {"iface", 3}, {"inet", nullptr}},
                              {{"addr", "0x41"}, {"iface", 1}, {"inet", udp.udp.address()}}};
    const json configured = {
        {"manet_addr", "0x0A000002"},   {"iface", 4},        {"local_addr", "0x22"},  {"inet", gw}, {"resolver", gw},
        {"resolver_state", "resolved"}, {"reason", nullptr}, {"origin", "configured"}};
    const json learned = {{"manet_addr", "0x0B000001"}, {"iface", 1},          {"local_addr", "0x41"},
                          {"inet", udp.udp.address()},  {"resolver", nullptr}, {"resolver_state", "none"},
                          {"reason", nullptr},          {"origin", "learned"}};
    EXPECT_EQ(peers, (json{{"local_peers", local_peers}, {"manet_links", {configured, learned}}}));
}

// A port text that is no service fails every attempt, without a name server.
TEST(ControlAnswerTest, ALinkWhoseNameKeepsFailingShowsTheReasonItsLogLineGives) {
    InProcessGate bench;
    bench.add_recording_iface(4, vostrelka::Gate::MANET);
    log_lines_of([&] {
        bench.gate.add_manet_peer(
            bench.iface(4), 0x0A000003, 0x23,
            std::make_unique<vostrelka::AddressResolver>(*vostrelka::HostPort::from("127.0.0.1:80xyz"), false),
            std::nullopt, vostrelka::Gate::Origin::CONFIGURED);
    });
    json link;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    do {
        link = json::parse(*bench.gate.answer_control_request("peers"))["manet_links"][0];
        if (!link["reason"].is_null()) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(link["resolver_state"], "pending");
    EXPECT_EQ(link["reason"], gai_strerror(EAI_SERVICE));
}

// The tap is on once a later request has been answered: requests are read in order.
void start_tap(ControlClient& client) {
    ASSERT_TRUE(client.request("tap"));
    ASSERT_TRUE(client.ask("stats").contains("interfaces"));
}

TEST_F(ControlSocketTest, TapShowsEveryFrameInAndOutOnceWhileForwardingStaysComplete) {
    start();
    ControlClient tap(socket_path);
    start_tap(tap);
    constexpr int FRAMES = 200;
    for (int i = 0; i < FRAMES; i++) {
        const Frame frame{OPAQUE_PROTO, 0x10, 0x20, {uint8_t(i >> 8), uint8_t(i), 0xAB}};
        udp.send(frame);
        ASSERT_EQ(udpserial.receive(), frame) << i;
    }
    std::map<std::string, int> seen;
    const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    for (int i = 0; i < 2 * FRAMES; i++) {
        json line = tap.json_line();
        ASSERT_TRUE(line.is_object()) << i;
        EXPECT_NEAR(line["t"].get<double>(), now, 60.0);
        line.erase("t");
        seen[line.dump()]++;
    }
    for (int i = 0; i < FRAMES; i++) {
        char payload[8];
        std::snprintf(payload, sizeof payload, "%04XAB", i);
        const json in = {{"iface", 1}, {"dir", "in"}, {"proto_id", 7}, {"src", 16}, {"dst", 32}, {"payload", payload}};
        json out = in;
        out["iface"] = 2, out["dir"] = "out";
        EXPECT_EQ(seen[in.dump()], 1) << in;
        EXPECT_EQ(seen[out.dump()], 1) << out;
    }

    // A MANet packet shows its header.
    const Frame packet{10, 0x10, 0xFF, {0x01, 0, 0, 0x0B, 0x02, 0, 0, 0x0A, 3, 1, 0x55}};
    udp.send(packet);
    json line = tap.json_line();
    line.erase("t");
    EXPECT_EQ(line, (json{{"iface", 1},
                          {"dir", "in"},
                          {"proto_id", 10},
                          {"src", 16},
                          {"dst", 255},
                          {"payload", "0100000B0200000A030155"},
                          {"manet", {{"src", 0x0B000001}, {"dst", 0x0A000002}, {"kind", 3}, {"flag", true}}}}));
}

TEST_F(ControlSocketTest, ATapThatStopsReadingLosesLinesButNeverFramesAndHearsHowMany) {
    start();
    ControlClient stalled(socket_path);
    start_tap(stalled);
    // Far more tap lines than the socket and the client's output hold.
    constexpr int FRAMES = 6000, BATCH = 100;
    const Bytes filler(100, 0x11);
    for (int i = 0; i < FRAMES; i += BATCH) {
        for (int j = i; j < i + BATCH; j++) udp.send({OPAQUE_PROTO, 0x10, 0x20, filler});
        // Each one goes through at once, whatever the tap client does.
        for (int j = i; j < i + BATCH; j++) ASSERT_TRUE(udpserial.receive(1000)) << j;
    }
    // Once the client reads again, the next frame brings the count of lines lost.
    int lines = 0;
    uint64_t lost = 0;
    while (auto text = stalled.line(500)) {
        const json entry = json::parse(*text);
        if (entry.contains("lost"))
            lost += entry["lost"].get<uint64_t>();
        else
            lines++;
    }
    udp.send({OPAQUE_PROTO, 0x10, 0x20, {1}});
    for (json entry; !(entry.contains("dir") && entry["dir"] == "out" && entry["payload"] == "01");) {
        entry = stalled.json_line();
        ASSERT_TRUE(entry.is_object());
        if (entry.contains("lost"))
            lost += entry["lost"].get<uint64_t>();
        else
            lines++;
    }
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(lines + lost, 2u * (FRAMES + 1));
}

TEST_F(ControlSocketTest, BadRequestsGetAnErrorLineAndTooManyClientsAreTurnedAway) {
    start();
    ControlClient client(socket_path);
    const std::pair<std::string, std::string> cases[] = {
        {"not json\n", R"({"error":"malformed request"})"},
        {"[\"stats\"]\n", R"({"error":"malformed request"})"},
        {R"({"request": 5})"
         "\n",
         R"({"error":"malformed request"})"},
        {R"({"request": "reboot"})"
         "\n",
         R"({"error":"unknown request: reboot"})"},
        {std::string(5000, '{') + "\n", R"({"error":"request too long"})"},
        {std::string("\0\xFF\n", 3), R"({"error":"malformed request"})"},
    };
    for (const auto& [request, answer] : cases) {
        ASSERT_TRUE(client.send_text(request));
        EXPECT_EQ(client.line(), answer) << request;
    }
    std::vector<std::unique_ptr<ControlClient>> others;
    for (int i = 0; i < 7; i++) {
        others.push_back(std::make_unique<ControlClient>(socket_path));
        EXPECT_TRUE(others.back()->ask("peers").contains("local_peers")) << i;
    }
    ControlClient ninth(socket_path);
    EXPECT_EQ(ninth.line(), R"({"error":"too many clients"})");
    EXPECT_EQ(ninth.line(), std::nullopt);
    // Nothing of that changed the gateway.
    EXPECT_EQ(client.ask("peers")["local_peers"].size(), 3u);
    EXPECT_EQ(gate->wait_exit(std::chrono::milliseconds(100)), std::nullopt);
}

TEST_F(ControlSocketTest, TheSocketFileTakesItsModeAndAStaleOneIsReplacedButNoLiveOneOrOtherFile) {
    // A socket file left by a gateway that died.
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socket_path.c_str(), sizeof(address.sun_path) - 1);
        const int left = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(left, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        close(left);
    }
    start(R"({"path": ")" + socket_path + R"(", "mode": "0600"})");
    ControlClient client(socket_path);
    ASSERT_TRUE(client.ask("stats").contains("interfaces")) << gate->log();
    struct stat info {};
    ASSERT_EQ(stat(socket_path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);

    auto second_gate = [&](const std::string& path, const std::string& mode = "") {
        const std::string config = R"({"ifaces": [], "control": {"path": ")" + path + "\"" + mode + "}}";
        GateProcess other({"--config", dir.write_file("other.json", config)});
        EXPECT_EQ(other.wait_exit(), 1);
        return other.lines();
    };
    EXPECT_EQ(second_gate(socket_path),
              std::vector<std::string>{"ERROR: control socket " + socket_path + ": another process listens on it"});
    const std::string file = dir.write_file("notes.txt", "keep me");
    EXPECT_EQ(second_gate(file), std::vector<std::string>{"ERROR: control socket " + file +
                                                          ": a file that is not a socket is in the way"});
    EXPECT_EQ(second_gate(dir.path() + "/x.sock", R"(, "mode": "0999")"),
              std::vector<std::string>{"ERROR: control socket mode is not an octal file mode: 0999"});
    EXPECT_TRUE(client.ask("stats").contains("interfaces"));
}

// 32 interfaces, the most a configuration may have, and the socket besides.
TEST_F(ControlSocketTest, TheSocketIsNotOneOfTheThirtyTwoInterfaces) {
    std::string ifaces;
    for (int id = 1; id <= 32; id++) ifaces += (id > 1 ? ", " : "") + iface("udp://127.0.0.1:0", id);
    GateProcess gate({"--config", dir.write_file("32.json", R"({"ifaces": [)" + ifaces + R"(], "control": {"path": ")" +
                                                                socket_path + R"("}})")});
    ControlClient client(socket_path);
    EXPECT_EQ(client.ask("stats")["interfaces"].size(), 32u);
}

}  // namespace
