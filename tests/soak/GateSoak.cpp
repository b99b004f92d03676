// Soak run of the real gate: "udp", "udpserial" and pseudo-terminal serial
// interfaces fed for a bounded time with valid frames and with garbage
// (random datagrams and byte streams, truncated frames, bad CRCs, MANet frames
// shorter than their header, malformed service messages).
//
// Three valid flows, one per interface, each to a device on the next:
//   udp endpoint  (0x01, iface 1) -> 0x02 on the udpserial interface
//   udpserial end (0x02, iface 2) -> 0x03 on the serial line
//   serial line   (0x03, iface 3) -> 0x01 on the udp interface
// Garbage comes from other sockets and never uses the valid addresses as its
// source, so it cannot move the valid devices in the gateway's tables; frames
// it causes the gateway to send are told apart by a magic prefix.
//
// Passes when the gateway is still alive, every valid frame arrived exactly
// once, and resident memory after warm-up did not grow by more than
// RSS_GROWTH_LIMIT_KB. Usage: gate-soak GATE_BINARY [SECONDS] [FRAMES_PER_SECOND_PER_FLOW]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>

#include "support/GateProcess.h"
#include "support/ProcessCpu.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;
using test_support::Bytes;
using test_support::UdpEndpoint;

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t MAGIC = 0x534F414B;  // marks valid soak payloads
constexpr uint32_t FLOWS = 3;
constexpr long RSS_GROWTH_LIMIT_KB = 512;
constexpr int WARM_UP_SECONDS = 12;  // learned links age out after 10 s
constexpr uint8_t PROTO = 7;

struct Payload {
    uint32_t magic, flow, seq;
};

Bytes valid_payload(uint32_t flow, uint32_t seq) {
    const Payload p{MAGIC, flow, seq};
    return Bytes(reinterpret_cast<const uint8_t*>(&p), reinterpret_cast<const uint8_t*>(&p + 1));
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 60;
    const int rate = argc > 3 ? std::atoi(argv[3]) : 2000;
    if (argc < 2 || seconds < 2) {
        std::fprintf(stderr, "usage: %s GATE_BINARY [SECONDS, at least 2] [FRAMES_PER_SECOND_PER_FLOW]\n", argv[0]);
        return 2;
    }
    const int warm_up_seconds = std::min(WARM_UP_SECONDS, seconds / 2);  // a short run measures from half-way
    signal(SIGPIPE, SIG_IGN);

    UdpEndpoint udp_device, udpserial_device, garbage;  // 0x01, 0x02, and the garbage source
    test_support::PtyPair line;                         // 0x03 on the master
    const uint16_t gate_udp_port = test_support::free_udp_port();
    uint16_t gate_udpserial_port = gate_udp_port;
    while (gate_udpserial_port == gate_udp_port) gate_udpserial_port = test_support::free_udp_port();
    test_support::TempDir dir;
    char config[2048];
    std::snprintf(config, sizeof config,
                  R"({"ifaces": [
  {"id": 1, "iface": "udp://127.0.0.1:%u"},
  {"id": 2, "iface": "udpserial://127.0.0.1:%u"},
  {"id": 3, "iface": "serial://%s:115200"}],
 "local_peers": [
  {"netdev_addr": "0x01", "iface_id": 1, "inet_addr": "127.0.0.1:%u"},
  {"netdev_addr": "0x02", "iface_id": 2, "inet_addr": "127.0.0.1:%u"},
  {"netdev_addr": "0x03", "iface_id": 3}]})",
                  gate_udp_port, gate_udpserial_port, line.slave_path().c_str(), udp_device.port(),
                  udpserial_device.port());
    // Its output is kept in memory, to be shown if it dies; the destructor kills it if it still runs.
    test_support::GateProcess gate(argv[1], {"--config", dir.write_file("soak.json", config), "--debug", "0"}, true);
    const auto alive = [&gate] { return !gate.wait_exit(std::chrono::milliseconds(0)); };
    usleep(300000);  // the gateway binds its sockets and opens the line

    const uint32_t per_flow = static_cast<uint32_t>(rate) * static_cast<uint32_t>(seconds);
    std::vector<uint8_t> seen[FLOWS];  // times each sequence number of a flow arrived
    for (auto& s : seen) s.assign(per_flow, 0);
    uint32_t sent = 0;                                 // per flow
    unsigned long long garbage_sent = 0, foreign = 0;  // foreign: frames the gateway sent because of garbage
    const auto record = [&](const uint8_t* data, size_t len) {
        Payload p;
        if (len != sizeof p) return void(foreign++);
        std::memcpy(&p, data, sizeof p);
        if (p.magic != MAGIC || p.flow >= FLOWS || p.seq >= per_flow) return void(foreign++);
        seen[p.flow][p.seq]++;
    };
    test_support::SerialFraming out_framer, line_reader, udpserial_reader;
    const auto decode = [&](test_support::SerialFraming& reader, const Bytes& chunk) {
        for (const auto& frame : reader.feed(chunk)) record(frame.payload.data(), frame.payload.size());
    };
    const auto drain = [&] {
        while (auto d = udp_device.receive(0))
            if (d->size() >= 3) record(d->data() + 3, d->size() - 3);
        while (auto d = udpserial_device.receive(0)) decode(udpserial_reader, *d);
        decode(line_reader, line.read_master_available());
    };
    std::mt19937 rng(12345);
    const auto garbage_src = [&] { return static_cast<uint8_t>(0x40 + rng() % 0x40); };
    const auto send_garbage = [&] {
        Bytes junk(1 + rng() % 64);
        for (uint8_t& b : junk) b = static_cast<uint8_t>(rng());
        switch (rng() % 6) {
            case 0:  // a random datagram on the udp interface, from another socket
                junk.resize(std::max<size_t>(junk.size(), 3));
                junk[1] = garbage_src();
                garbage.send_to(gate_udp_port, junk);
                break;
            case 1:  // random bytes on the line and in a udpserial datagram
                line.write_master(junk);
                garbage.send_to(gate_udpserial_port, junk);
                break;
            case 2: {  // a frame with a broken CRC
                Bytes f = out_framer.encode({PROTO, garbage_src(), 0x02, junk});
                f[2] ^= 0x01;
                if (f[2] == 0x42 || f[2] == 0x55) f[2] ^= 0x02;
                garbage.send_to(gate_udpserial_port, f);
                break;
            }
            case 3: {  // a truncated frame, then the line carries on
                Bytes f = out_framer.encode({PROTO, garbage_src(), 0x01, junk});
                f.resize(f.size() / 2);
                line.write_master(f);
                break;
            }
            case 4:  // a MANet frame shorter than its header
                junk.resize(rng() % 10);
                junk.insert(junk.begin(), {10, garbage_src(), 0x02});
                garbage.send_to(gate_udp_port, junk);
                break;
            default:  // a malformed service message
                junk.insert(junk.begin(), {8, garbage_src(), 0x7F, 1, 0, 0, 0, 1, 4, 200, 0, 0, 0});
                garbage.send_to(gate_udp_port, junk);
                break;
        }
        garbage_sent++;
    };

    const auto start = Clock::now();
    long rss_warm = -1;
    constexpr int TICKS_PER_SECOND = 1000;
    double due = 0;
    for (int tick = 0; tick < seconds * TICKS_PER_SECOND && alive(); tick++) {
        for (due += static_cast<double>(rate) / TICKS_PER_SECOND; due >= 1.0; due -= 1.0, sent++) {
            Bytes udp_frame = {PROTO, 0x01, 0x02};
            const Bytes payload = valid_payload(0, sent);
            udp_frame.insert(udp_frame.end(), payload.begin(), payload.end());
            udp_device.send_to(gate_udp_port, udp_frame);
            udpserial_device.send_to(gate_udpserial_port,
                                     out_framer.encode({PROTO, 0x02, 0x03, valid_payload(1, sent)}));
            line.write_master(out_framer.encode({PROTO, 0x03, 0x01, valid_payload(2, sent)}));
            if (rng() % 4 == 0) send_garbage();  // garbage at a quarter of the valid rate
        }
        drain();
        if (tick == warm_up_seconds * TICKS_PER_SECOND) rss_warm = test_support::proc_status(gate.pid(), "VmRSS:");
        std::this_thread::sleep_until(start + std::chrono::milliseconds(tick + 1));
    }
    for (const auto settle = Clock::now() + std::chrono::seconds(2); Clock::now() < settle; usleep(1000)) drain();
    const bool gate_alive = alive();
    const long rss_end = gate_alive ? test_support::proc_status(gate.pid(), "VmRSS:") : -1;
    if (gate_alive) kill(gate.pid(), SIGTERM), gate.wait_exit();

    unsigned long long once = 0, lost = 0, duplicated = 0;
    for (const auto& s : seen) {
        for (uint32_t i = 0; i < sent; i++) {
            once += s[i] == 1;
            lost += s[i] == 0;
            duplicated += s[i] > 1;
        }
    }
    std::printf("soak: %d s, %d frames/s per flow\n", seconds, rate);
    std::printf("valid frames sent %llu, forwarded once %llu, lost %llu, duplicated %llu\n",
                static_cast<unsigned long long>(sent) * FLOWS, once, lost, duplicated);
    std::printf("garbage sent %llu, foreign frames forwarded by the gateway %llu\n", garbage_sent, foreign);
    std::printf("RSS after warm-up %ld kB, at end %ld kB\n", rss_warm, rss_end);
    const bool rss_flat = rss_warm > 0 && rss_end > 0 && rss_end - rss_warm <= RSS_GROWTH_LIMIT_KB;
    const bool ok = gate_alive && lost == 0 && duplicated == 0 && rss_flat;
    std::printf("%s\n", ok ? "soak passed" : "soak FAILED");
    if (!gate_alive) std::printf("the gateway died; its output:\n%s", gate.log().c_str());
    return ok ? 0 : 1;
}
