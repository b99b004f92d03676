// Captures of `gatecat dump -w`, read back by the real tshark with the
// gateway's Lua dissector: every frame kind shows its decoded fields, and a
// capture on standard output streams into tshark frame by frame.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/GateProcess.h"
#include "support/TempDir.h"
#include "support/TsharkReader.h"
#include "support/UdpEndpoint.h"
#include "support/paths.h"

using namespace test_support;

namespace {

// Dumps `count` frames arriving on `listen` into `capture` while `gatecat
// send` puts `frames` out towards it from `from`.
void dump_to_capture(const std::string& listen, const std::string& from, const std::vector<std::string>& frames,
                     const std::string& capture) {
    GateProcess dump(gatecat_binary(), {"dump", "-c", std::to_string(frames.size()), "-w", capture, listen}, true);
    ASSERT_TRUE(dump.wait_for_prefix("gatecat: listening on ")) << dump.log();
    std::vector<std::string> args = {"send", from};
    args.insert(args.end(), frames.begin(), frames.end());
    const ProcessResult sent = run_process_with_input(gatecat_binary(), args, "");
    ASSERT_EQ(sent.exit_status, 0) << sent.err;
    ASSERT_EQ(dump.wait_exit(), 0) << dump.log();
}

std::string zeros(size_t bytes) {
    return std::string(2 * bytes, '0');
}

// `gatecat dump -w -` piped into `tshark -r -`, as into `wireshark -k -i -`:
// each frame shows in tshark before the next is sent, while gatecat still
// runs, and standard output holds the capture alone (tshark reads it whole).
TEST(GatecatCapture, WiresharkShowsEachFrameOfACaptureOnStandardOutputAsItComes) {
    if (!tshark_installed()) GTEST_SKIP() << "tshark is not installed (scripts/install-deps installs it)";
    const uint16_t port = free_udp_port();
    int capture[2];
    ASSERT_EQ(pipe2(capture, O_CLOEXEC), 0);
    std::unique_ptr<LinePipe> dump_log, shown;
    struct Children {
        pid_t dump = -1, tshark = -1;
        ~Children() {
            for (pid_t pid : {dump, tshark})
                if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
        }
    } children;
    children.dump = spawn(gatecat_binary(), {"dump", "-w", "-", "udp://127.0.0.1:" + std::to_string(port)}, -1,
                          capture[1], pipe_into(dump_log));
    std::vector<std::string> args = tshark_reading("-");
    args.insert(args.end(), {"-l", "-T", "fields", "-e", "_ws.col.Info"});
    children.tshark = spawn(TSHARK, args, capture[0], pipe_into(shown), STDERR_FILENO);
    const auto lines_at_least = [](size_t n) {
        return [n](const LinePipe::Seen& seen) { return seen.lines.size() >= n; };
    };
    ASSERT_TRUE(dump_log->wait_for(lines_at_least(1), std::chrono::seconds(5))) << dump_log->snapshot().text;

    const std::string from =
        "udp://127.0.0.1:" + std::to_string(free_udp_port()) + ":127.0.0.1:" + std::to_string(port);
    const std::vector<std::string> frames = {"07:10>20#DEADBEEF", "0E:30>10#01.09000000.05000000.0000803F.03",
                                             "09:01>FF#00"};
    const std::vector<std::string> expected = {"iface 0 in  proto_id 7  0x10 -> 0x20  len 4",
                                               "iface 0 in  proto_id 14  0x30 -> 0x10  len 14  base_config",
                                               "iface 0 in  proto_id 9  0x01 -> 0xFF  len 1"};
    for (size_t i = 0; i < frames.size(); i++) {
        ASSERT_EQ(run_process_with_input(gatecat_binary(), {"send", from, frames[i]}, "").exit_status, 0);
        ASSERT_TRUE(shown->wait_for(lines_at_least(i + 1), std::chrono::seconds(30)))
            << "frame " << i << " not shown while gatecat runs: " << shown->snapshot().text;
        EXPECT_EQ(shown->snapshot().lines[i].text, expected[i]);
    }
    ASSERT_EQ(kill(children.dump, SIGINT), 0);
    ASSERT_EQ(reap(children.dump, *dump_log, std::chrono::seconds(5)), 0) << dump_log->snapshot().text;
    children.dump = -1;
    EXPECT_EQ(dump_log->snapshot().text,
              "gatecat: listening on udp://127.0.0.1:" + std::to_string(port) + "\ngatecat: 3 frames\n");
    ASSERT_EQ(reap(children.tshark, *shown, std::chrono::seconds(30)), 0);
    children.tshark = -1;
    EXPECT_EQ(shown->snapshot().lines.size(), frames.size());
}

// A pcap of raw IPv4 packets, each the UDP datagram `payload` to `port`, as
// a capture on the gateway's network would hold them.
void write_udp_capture(const std::string& path, const std::vector<std::pair<uint16_t, Bytes>>& datagrams) {
    constexpr uint32_t LINKTYPE_IPV4 = 228;
    Bytes file;
    const auto put = [&file](uint64_t value, int bytes, bool big_endian) {
        for (int i = 0; i < bytes; i++) file.push_back(value >> (8 * (big_endian ? bytes - 1 - i : i)));
    };
    for (uint64_t field : std::initializer_list<uint64_t>{0xA1B2C3D4, 0x00040002, 0, 0, 65535, LINKTYPE_IPV4})
        put(field, 4, false);
    for (const auto& [port, payload] : datagrams) {
        const size_t udp_size = 8 + payload.size(), ip_size = 20 + udp_size;
        for (uint64_t field : std::initializer_list<uint64_t>{0, 0, ip_size, ip_size}) put(field, 4, false);
        // IPv4: version and header length, length, TTL, protocol 17, 127.0.0.1 to 127.0.0.1.
        put(0x4500, 2, true), put(ip_size, 2, true), put(0, 4, true), put(0x4011, 2, true), put(0, 2, true);
        put(0x7F000001, 4, true), put(0x7F000001, 4, true);
        put(port + 1, 2, true), put(port, 2, true), put(udp_size, 2, true), put(0, 2, true);  // no checksum
        file.insert(file.end(), payload.begin(), payload.end());
    }
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), file.size());
}

// Every frame kind, in the captures gatecat writes and in a gateway's own
// UDP traffic: serial-framed datagrams are recognised by their framing and
// CRC, "udp" ones, which have no mark of their own, by Decode As.
TEST(GatecatCapture, WiresharkShowsTheFieldsOfEveryFrameKind) {
    if (!tshark_installed()) GTEST_SKIP() << "tshark is not installed (scripts/install-deps installs it)";
    TempDir dir;
    const uint16_t a = free_udp_port(), b = free_udp_port();
    const std::string to_b = "127.0.0.1:" + std::to_string(a) + ":127.0.0.1:" + std::to_string(b);
    // Service record: seq, type, message id, body size, then device_config's
    // serial, hash, cfg_id and its manet_config.
    const std::string device_config = "08:01>02#01000000.01.04.71000000.534E2D30303432" + zeros(25) + ".AB" +
                                      zeros(14) + "01.03.05000000.09000000.8813" + zeros(16) + ".3132372E302E302E31" +
                                      zeros(23) + ".02000000.7B7D";
    dump_to_capture("udp://127.0.0.1:" + std::to_string(b), "udp://" + to_b,
                    {"07:10>20#DEADBEEF", "0A:01>02#01000000.0201000A.03.01.AABB", device_config,
                     "0E:30>10#01.09000000.05000000.0000803F.03", "0E:01>02#09.00000000"},
                    dir.path() + "/udp.pcap");
    // 42 and 55 inside a frame go escaped on a serial-framed link.
    dump_to_capture("udpserial://127.0.0.1:" + std::to_string(b), "udpserial://" + to_b, {"09:20>30#4255AA"},
                    dir.path() + "/udpserial.pcap");
    UdpEndpoint sink;
    std::vector<std::pair<uint16_t, Bytes>> datagrams;
    for (const char* type : {"udpserial", "udp"}) {
        const std::string from =
            std::string(type) + "://127.0.0.1:" + std::to_string(free_udp_port()) + ":" + sink.address();
        ASSERT_EQ(
            run_process_with_input(gatecat_binary(), {"send", from, "0E:30>10#01.09000000.05000000.0000803F.03"}, "")
                .exit_status,
            0);
        const auto datagram = sink.receive();
        ASSERT_TRUE(datagram);
        datagrams.emplace_back(datagrams.empty() ? 47002 : 47001, *datagram);
    }
    write_udp_capture(dir.path() + "/ip.pcap", datagrams);

    const std::string udp = "Interface id: 0; Direction: in (0); Medium: udp (1); ";
    const std::string base_config =
        "proto_id: 14; Source: 0x30; Destination: 0x10; Payload length: 14; Payload: "
        "0109000000050000000000803f03; RF modem record; Message id: 1; Body size: 9; "
        "Message: base_config; addr: 5; power: 1; channel: 3";
    const std::vector<std::string> dumped = {
        udp + "proto_id: 7; Source: 0x10; Destination: 0x20; Payload length: 4; Payload: deadbeef",
        udp +
            "proto_id: 10; Source: 0x01; Destination: 0x02; Payload length: 12; Payload: 010000000201000a0301aabb; "
            "MANet header; MANet source: 0x00000001; MANet destination: 0x0a000102; Kind: 3; Flag: 1; Data: aabb",
        // tshark cuts long byte fields short.
        udp +
            "proto_id: 8; Source: 0x01; Destination: 0x02; Payload length: 123; Payload: "
            "01000000010471000000534e2d3030343200000000000000000000000000000000000000\u2026; Service record; Sequence "
            "number: 1; Record type: request (1); Message id: 4; Body size: 113; "
            "Message: device_config; device_serial: SN-0042; hash: ab000000000000000000000000000001; cfg_id: 3; "
            "manet_config; node_manet_addr: 0x00000005; utm_manet_addr: 0x00000009; utm_inet_port: 5000; "
            "node_manet_key: 00000000000000000000000000000000; utm_inet_host: 127.0.0.1; generic_config_json: {}",
        udp + base_config,
        // A message of no body, last in its payload.
        udp +
            "proto_id: 14; Source: 0x01; Destination: 0x02; Payload length: 5; Payload: 0900000000; "
            "RF modem record; Message id: 9; Body size: 0; Message: unknown message 9",
    };
    const struct {
        const char* capture;
        std::vector<std::string> args;
        std::vector<std::string> trees;
    } cases[] = {
        {"udp.pcap", {}, dumped},
        {"udpserial.pcap",
         {},
         {"Interface id: 0; Direction: in (0); Medium: udpserial (2); Serial framing; Escaped bytes: 2; "
          "CRC-32: 0x8b9f5f0b; CRC status: good; proto_id: 9; Source: 0x20; Destination: 0x30; "
          "Payload length: 3; Payload: 4255aa"}},
        {"ip.pcap",
         {"-d", "udp.port==47001,gate_udp"},
         {"Serial framing; Escaped bytes: 0; CRC-32: 0xd1ec58d6; CRC status: good; " + base_config, base_config}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(gate_trees(dir.path() + "/" + c.capture, c.args), c.trees) << c.capture;
    }
    std::vector<std::string> args = tshark_reading(dir.path() + "/ip.pcap");
    args.insert(args.end(), {"-d", "udp.port==47001,gate_udp", "-T", "fields", "-e", "_ws.col.Info"});
    EXPECT_EQ(run_process_with_input(TSHARK, args, "", 30000).out,
              "proto_id 14  0x30 -> 0x10  len 14  base_config\n"
              "proto_id 14  0x30 -> 0x10  len 14  base_config\n");
}

}  // namespace
