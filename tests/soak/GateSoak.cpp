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
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/net_device/SerialEncoder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;
using test_support::Bytes;
using test_support::UdpEndpoint;

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t MAGIC = 0x534F414B;  // marks valid soak payloads
constexpr int FLOWS = 3;
constexpr long RSS_GROWTH_LIMIT_KB = 512;
constexpr int WARM_UP_SECONDS = 12;  // learned MANet links age out after 10 s
constexpr uint8_t PROTO = 7;

struct Flow {
    uint8_t src;
    uint8_t dst;
    uint32_t sent = 0;
    std::vector<uint8_t> seen;  // times each sequence number arrived
};

Bytes valid_payload(int flow, uint32_t seq) {
    Bytes p(12);
    std::memcpy(p.data(), &MAGIC, 4);
    std::memcpy(p.data() + 4, &flow, 4);
    std::memcpy(p.data() + 8, &seq, 4);
    return p;
}

// Serial framing of one frame, with the library's own encoder.
class Framer : public SerialEncoderHandlerI {
public:
    Framer() : tx(tx_storage, 0, sizeof tx_storage), rx(rx_storage, 0, sizeof rx_storage), codec(tx, rx, *this) {}
    Bytes encode(uint8_t proto, uint8_t src, uint8_t dst, const Bytes& payload) {
        Frame f;
        f.proto_id = proto;
        f.src = src;
        f.dst = dst;
        f.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
        tx.clear();
        codec.encode(f, stats);
        return Bytes(tx.data, tx.data + tx.size);
    }
    // Decodes a stream chunk; valid frames go to `sink`.
    template <typename Sink>
    void decode(const uint8_t* data, size_t len, Sink&& sink) {
        on_decoded = sink;
        codec.decode(ConstSlice<unsigned char>(data, len), stats);
    }
    void on_frame(const Frame& frame) override {
        if (on_decoded) on_decoded(frame.payload.data, frame.payload.size);
    }

private:
    uint8_t tx_storage[8192];
    uint8_t rx_storage[4096];
    Slice<unsigned char> tx;
    Slice<unsigned char> rx;
    SerialEncoder codec;
    SerialEncoderErrorStats stats;
    std::function<void(const uint8_t*, size_t)> on_decoded;
};

long rss_kb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

bool alive(pid_t pid) {
    return waitpid(pid, nullptr, WNOHANG) == 0;
}

// The whole of `data` onto the line, waiting for room for up to a second.
bool write_all(int fd, const Bytes& data) {
    size_t done = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    while (done < data.size() && Clock::now() < deadline) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else {
            pollfd p{fd, POLLOUT, 0};
            poll(&p, 1, 10);
        }
    }
    return done == data.size();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s GATE_BINARY [SECONDS] [FRAMES_PER_SECOND_PER_FLOW]\n", argv[0]);
        return 2;
    }
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 60;
    const int rate = argc > 3 ? std::atoi(argv[3]) : 2000;
    if (seconds <= WARM_UP_SECONDS) {
        std::fprintf(stderr, "a soak needs more than %d seconds\n", WARM_UP_SECONDS);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);

    UdpEndpoint udp_device;        // 0x01
    UdpEndpoint udpserial_device;  // 0x02
    UdpEndpoint garbage;
    int master = -1;
    int slave = -1;
    char slave_path[128];
    if (openpty(&master, &slave, slave_path, nullptr, nullptr) != 0) return 1;
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);

    // Two ports for the gateway: bind and release, then hand them over.
    uint16_t gate_udp_port;
    uint16_t gate_udpserial_port;
    {
        UdpEndpoint a;
        UdpEndpoint b;
        gate_udp_port = a.port();
        gate_udpserial_port = b.port();
    }
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
                  gate_udp_port, gate_udpserial_port, slave_path, udp_device.port(), udpserial_device.port());
    const std::string config_path = dir.write_file("soak.json", config);
    const std::string log_path = dir.path() + "/gate.log";

    const pid_t gate = fork();
    if (gate == 0) {
        const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(log, STDOUT_FILENO);
        for (int fd = STDERR_FILENO + 1; fd < 1024; fd++) close(fd);
        execl(argv[1], argv[1], "--config", config_path.c_str(), "--debug", "0", static_cast<char*>(nullptr));
        _exit(127);
    }
    usleep(300000);  // the gateway binds its sockets and opens the line

    Flow flows[FLOWS] = {{0x01, 0x02, 0, {}}, {0x02, 0x03, 0, {}}, {0x03, 0x01, 0, {}}};
    const uint32_t per_flow = static_cast<uint32_t>(rate) * static_cast<uint32_t>(seconds);
    for (Flow& f : flows) f.seen.assign(per_flow, 0);
    Framer out_framer;
    Framer line_reader;
    Framer udpserial_reader;
    std::mt19937 rng(12345);
    uint64_t garbage_sent = 0;
    uint64_t foreign = 0;  // frames the gateway sent that are not ours (caused by garbage)

    const auto record = [&](const uint8_t* data, size_t len) {
        uint32_t magic, flow, seq;
        if (len != 12) return void(foreign++);
        std::memcpy(&magic, data, 4);
        std::memcpy(&flow, data + 4, 4);
        std::memcpy(&seq, data + 8, 4);
        if (magic != MAGIC || flow >= FLOWS || seq >= per_flow) return void(foreign++);
        flows[flow].seen[seq]++;
    };
    const auto drain = [&]() {
        while (auto d = udp_device.receive(0)) {
            if (d->size() >= 3) record(d->data() + 3, d->size() - 3);
        }
        while (auto d = udpserial_device.receive(0)) udpserial_reader.decode(d->data(), d->size(), record);
        uint8_t buf[4096];
        ssize_t n;
        while ((n = read(master, buf, sizeof buf)) > 0) line_reader.decode(buf, static_cast<size_t>(n), record);
    };
    const auto garbage_src = [&]() { return static_cast<uint8_t>(0x40 + rng() % 0x40); };
    const auto send_garbage = [&]() {
        Bytes junk(1 + rng() % 64);
        for (uint8_t& b : junk) b = static_cast<uint8_t>(rng());
        switch (rng() % 6) {
            case 0:  // a random datagram on the udp interface, from another socket
                junk.resize(std::max<size_t>(junk.size(), 3));
                junk[1] = garbage_src();
                garbage.send_to(gate_udp_port, junk);
                break;
            case 1:  // random bytes on the line and in a udpserial datagram
                write_all(master, junk);
                garbage.send_to(gate_udpserial_port, junk);
                break;
            case 2: {  // a frame with a broken CRC
                Bytes f = out_framer.encode(PROTO, garbage_src(), 0x02, junk);
                f[2] ^= 0x01;
                if (f[2] == 0x42 || f[2] == 0x55) f[2] ^= 0x02;
                garbage.send_to(gate_udpserial_port, f);
                break;
            }
            case 3: {  // a truncated frame, then the line carries on
                Bytes f = out_framer.encode(PROTO, garbage_src(), 0x01, junk);
                f.resize(f.size() / 2);
                write_all(master, f);
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
    const int ticks_per_second = 1000;
    const double per_tick = static_cast<double>(rate) / ticks_per_second;
    double due = 0;
    for (int tick = 0; tick < seconds * ticks_per_second && alive(gate); tick++) {
        due += per_tick;
        while (due >= 1.0) {
            due -= 1.0;
            Flow& a = flows[0];
            Flow& b = flows[1];
            Flow& c = flows[2];
            Bytes udp_frame = {PROTO, a.src, a.dst};
            const Bytes pa = valid_payload(0, a.sent++);
            udp_frame.insert(udp_frame.end(), pa.begin(), pa.end());
            udp_device.send_to(gate_udp_port, udp_frame);
            udpserial_device.send_to(gate_udpserial_port,
                                     out_framer.encode(PROTO, b.src, b.dst, valid_payload(1, b.sent++)));
            const Bytes line = out_framer.encode(PROTO, c.src, c.dst, valid_payload(2, c.sent++));
            write_all(master, line);
            if (rng() % 4 == 0) send_garbage();  // garbage at a quarter of the valid rate
        }
        drain();
        if (tick == WARM_UP_SECONDS * ticks_per_second) rss_warm = rss_kb(gate);
        std::this_thread::sleep_until(start + std::chrono::milliseconds(tick + 1));
    }
    const auto settle = Clock::now() + std::chrono::seconds(2);
    while (Clock::now() < settle) {
        drain();
        usleep(1000);
    }
    const bool gate_alive = alive(gate);
    const long rss_end = gate_alive ? rss_kb(gate) : -1;
    if (gate_alive) kill(gate, SIGTERM);
    waitpid(gate, nullptr, 0);

    uint64_t sent = 0, once = 0, lost = 0, duplicated = 0;
    for (const Flow& f : flows) {
        sent += f.sent;
        for (uint32_t s = 0; s < f.sent; s++) {
            once += f.seen[s] == 1;
            lost += f.seen[s] == 0;
            duplicated += f.seen[s] > 1;
        }
    }
    std::printf("soak: %d s, %d frames/s per flow\n", seconds, rate);
    std::printf("valid frames sent %llu, forwarded once %llu, lost %llu, duplicated %llu\n",
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(once),
                static_cast<unsigned long long>(lost), static_cast<unsigned long long>(duplicated));
    std::printf("garbage sent %llu, foreign frames forwarded by the gateway %llu\n",
                static_cast<unsigned long long>(garbage_sent), static_cast<unsigned long long>(foreign));
    std::printf("RSS after warm-up %ld kB, at end %ld kB\n", rss_warm, rss_end);
    const bool rss_flat = rss_warm > 0 && rss_end > 0 && rss_end - rss_warm <= RSS_GROWTH_LIMIT_KB;
    const bool ok = gate_alive && lost == 0 && duplicated == 0 && rss_flat;
    std::printf("%s\n", ok ? "soak passed" : "soak FAILED");
    if (!gate_alive) std::printf("the gateway died; its log: %s\n", log_path.c_str());
    return ok ? 0 : 1;
}
