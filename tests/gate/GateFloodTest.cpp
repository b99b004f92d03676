// The real gate under floods from many 127.x source addresses and ports:
// made-up MANet sources on a local link, and device_config frames naming
// ever new UTM servers. A low-rate stream on another local link must get
// every frame through meanwhile; memory, threads and log lines stay bounded
// (read from /proc and from the gate's own output).
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "support/GateProcess.h"
#include "support/InProcessGate.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/ResolverPool.h"

using namespace test_support;
using vostrelka::Gate;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int SENDERS = 64;
constexpr int STREAM_EVERY = 500;  // flood frames between two stream frames
constexpr long RSS_LIMIT_KB = 16 * 1024;
// A sanitizer's shadow memory dwarfs the gate's own: there the bound on
// memory is left to the tables' caps, which the other checks pin.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool RSS_IS_THE_GATES_OWN = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool RSS_IS_THE_GATES_OWN = false;
#else
constexpr bool RSS_IS_THE_GATES_OWN = true;
#endif
#else
constexpr bool RSS_IS_THE_GATES_OWN = true;
#endif

// A UDP socket on 127.0.0.`host`, port chosen by the system.
struct Sender {
    explicit Sender(int host) {
        sockaddr_in addr = loopback(0);
        addr.sin_addr.s_addr = htonl(0x7F000000u | static_cast<uint32_t>(host));
        if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) fd = -1;
    }
    ~Sender() { close(fd); }
    bool send_to(uint16_t port, const Bytes& bytes) const {
        const sockaddr_in to = loopback(port);
        return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
               static_cast<ssize_t>(bytes.size());
    }
    // `count` (at most 64) copies of `bytes` with one call; how many went.
    int send_burst(uint16_t port, const Bytes& bytes, int count) const {
        sockaddr_in to = loopback(port);
        iovec vector{const_cast<uint8_t*>(bytes.data()), bytes.size()};
        mmsghdr messages[64]{};
        for (mmsghdr& message : messages) message.msg_hdr = msghdr{&to, sizeof(to), &vector, 1, nullptr, 0, 0};
        return sendmmsg(fd, messages, static_cast<unsigned>(std::min(count, 64)), 0);
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

Bytes datagram(uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
    Bytes bytes(3 + payload.size());
    bytes[0] = proto_id, bytes[1] = src, bytes[2] = dst;
    std::copy(payload.begin(), payload.end(), bytes.begin() + 3);
    return bytes;
}

// A number from /proc/PID/status ("VmRSS:" in kB, "Threads:"), -1 if absent.
long proc_status(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + field.size(), nullptr, 10);
    return -1;
}

// Datagrams the kernel dropped at the full receive queue of the socket
// bound to 127.0.0.1:`port` (/proc/net/udp), -1 if there is none.
long receive_queue_drops(uint16_t port) {
    std::ifstream table("/proc/net/udp");
    char local[32];
    std::snprintf(local, sizeof(local), "0100007F:%04X", port);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string slot, address, column;
        fields >> slot >> address;
        if (address != local) continue;
        while (fields >> column) {
        }
        return std::stol(column);
    }
    return -1;
}

struct FloodFigures {
    long max_threads = 0;
    long rss_kb = 0;
    double seconds = 0;
};

// Flood frames come in on "udp" interface 1, the stream from node 0x01 on
// interface 2 to local peer 0x02 (the sink); gateway 0x0A000001 is
// configured on the MANet interface 3, and local peer 0x04 on interface 2 is
// a socket nobody reads.
class GateFloodTest : public testing::Test {
protected:
    void start(int debug_level) {
        auto iface = [](uint16_t port, int id, const char* extra = "") {
            return R"({"iface": "udp://127.0.0.1:)" + std::to_string(port) + R"(", "id": )" + std::to_string(id) +
                   extra + "}";
        };
        const std::string config = R"({"ifaces": [)" + iface(flood_port, 1) + ", " + iface(stream_port, 2) + ", " +
                                   iface(manet_port, 3, R"(, "type": "manet")") +
                                   R"(], "local_peers": [{"netdev_addr": "0x02", "iface_id": 2, "inet_addr": ")" +
                                   sink.address() + R"("}, {"netdev_addr": "0x04", "iface_id": 2, "inet_addr": ")" +
                                   flood_sink.address() +
                                   R"("}], "manet_peers": [{"manet_addr": "0x0A000001", "netdev_addr": "0x22", )"
                                   R"("iface_id": 3, "inet_addr": ")" +
                                   gateway.address() + R"("}]})";
        gate = std::make_unique<GateProcess>(std::vector<std::string>{"--config", dir.write_file("gate.json", config),
                                                                      "--debug", std::to_string(debug_level)});
        ASSERT_TRUE(gate->wait_for_line("MANet peer on iface 3 retrieved addrinfo '" + gateway.address() + "': '" +
                                        gateway.address() + "'"))
            << gate->log();
    }

    // Sends flood(i) for i < count from the senders in turn, with a stream
    // frame after every STREAM_EVERY of them; then checks that the sink got
    // every stream frame, in order, and waits until interface 1 has taken in
    // the whole flood.
    FloodFigures flood_with_stream(int count, const std::function<Bytes(int)>& flood) {
        FloodFigures figures;
        const auto began = Clock::now();
        int streamed = 0;
        for (int i = 0; i < count; ++i) {
            senders[i % SENDERS]->send_to(flood_port, flood(i));
            if (i % STREAM_EVERY != STREAM_EVERY - 1) continue;
            EXPECT_TRUE(node.send_to(stream_port, datagram(7, 0x01, 0x02, {static_cast<uint8_t>(streamed++)})));
            figures.max_threads = std::max(figures.max_threads, proc_status(gate->pid(), "Threads:"));
        }
        for (int expected = 0; expected < streamed; ++expected) {
            const std::optional<Bytes> got = sink.receive(5000);
            if (got != datagram(7, 0x01, 0x02, {static_cast<uint8_t>(expected)})) {
                ADD_FAILURE() << "stream frame " << expected << " of " << streamed << " lost";
                break;
            }
        }
        // Interface 1 has taken in the flood once a frame sent after it comes
        // through. It is sent again while the socket may still be full.
        bool drained = false;
        for (int attempt = 0; attempt < 20 && !drained; ++attempt) {
            EXPECT_TRUE(senders[0]->send_to(flood_port, datagram(7, 0x03, 0x02, {0xEE})));
            drained = sink.receive(500) == datagram(7, 0x03, 0x02, {0xEE});
        }
        EXPECT_TRUE(drained);
        figures.seconds = std::chrono::duration<double>(Clock::now() - began).count();
        figures.max_threads = std::max(figures.max_threads, proc_status(gate->pid(), "Threads:"));
        figures.rss_kb = proc_status(gate->pid(), "VmRSS:");
        return figures;
    }

    // Checks the bounds common to every flood and prints the figures.
    void expect_bounded(const char* what, const FloodFigures& figures) {
        // The lines a flood may print: 100 a second, a summary a second,
        // and the one-time warnings.
        const std::regex table_line("^(add |remove old |Replace |Remove |WARNING: [0-9]+ peer table lines).*");
        long table_lines = 0;
        for (const std::string& line : gate->lines()) table_lines += std::regex_match(line, table_line);
        EXPECT_LE(table_lines, static_cast<long>(101 * (figures.seconds + 2)) + 5);
        if (RSS_IS_THE_GATES_OWN) {
            EXPECT_LT(figures.rss_kb, RSS_LIMIT_KB);
        }
        EXPECT_LE(figures.max_threads, 1 + vostrelka::ResolverPool::POOL_SIZE);
        std::printf("%s: %.2f s, max threads %ld, RSS %ld kB, %ld peer table lines\n", what, figures.seconds,
                    figures.max_threads, figures.rss_kb, table_lines);
    }

    TempDir dir;
    uint16_t flood_port = free_udp_port();
    uint16_t stream_port = free_udp_port();
    uint16_t manet_port = free_udp_port();
    UdpEndpoint node, sink, gateway, flood_sink;
    std::vector<std::unique_ptr<Sender>> senders = [] {
        std::vector<std::unique_ptr<Sender>> made;
        for (int host = 2; host < 2 + SENDERS; ++host) made.push_back(std::make_unique<Sender>(host));
        return made;
    }();
    std::unique_ptr<GateProcess> gate;
};

TEST_F(GateFloodTest, MadeUpManetSourcesFillTheLearnedCapAndNoMore) {
    start(0);
    const FloodFigures figures = flood_with_stream(20000, [](int i) {
        return datagram(vostrelka::MANET_PROTO_ID, static_cast<uint8_t>(0x10 + i % 200), 0x30,
                        manet_payload(0x0B000000u + static_cast<uint32_t>(i), 0x0C000000));
    });
    const std::string cap =
        "WARNING: 4096 learned MANet links, the most kept: a new one now replaces the one seen longest ago";
    EXPECT_TRUE(gate->wait_for_line(cap)) << gate->log();
    // What was not shown is summed up, at the latest in the pass after the
    // flood, which an idle gate makes within 5 s.
    const std::regex summary("WARNING: [0-9]+ peer table lines not shown \\(more than 100 a second\\)");
    EXPECT_TRUE(gate->wait_for([&](const std::string& line) { return std::regex_match(line, summary); },
                               std::chrono::milliseconds(7000)));
    const Lines lines = gate->lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), cap), 1);
    expect_bounded("learned-link flood, 20000 frames", figures);
}

TEST_F(GateFloodTest, DeviceConfigsWithNumericHostsFillTheAnnouncedCapAndNoMore) {
    start(0);
    const FloodFigures figures = flood_with_stream(2000, [](int i) {
        return datagram(vostrelka::SERVICE_PROTO_ID, static_cast<uint8_t>(0x10 + i % 200), 0x30,
                        device_config(0x0E000000u + static_cast<uint32_t>(i)));
    });
    const std::string cap =
        "WARNING: 16 MANet links announced by device_config, the most kept: a new one now "
        "replaces the one seen longest ago";
    EXPECT_TRUE(gate->wait_for_line(cap)) << gate->log();
    expect_bounded("device_config flood, 2000 frames", figures);
}

// Interface 1, read first in every pass, is flooded with frames the gate
// forwards, faster than it can: its socket's queue overflows. A stream
// through interface 2 still gets every frame through, in order. Counted,
// not timed: a stream frame after every STREAM_EVERY flood frames, until
// the kernel has dropped flood frames for a while.
TEST_F(GateFloodTest, AnInterfaceFloodedBeyondWhatTheGateForwardsCostsAnotherInterfaceNothing) {
    start(0);
    const Bytes flood = datagram(7, 0x03, 0x04, Bytes(32, 0x42));
    constexpr int STREAM_FRAMES = 100;
    constexpr int MAX_FLOOD_FRAMES = 20000000;
    int flooded = 0, streamed = 0;
    long drops_at_first_stream_frame = -1;
    while (streamed < STREAM_FRAMES && flooded < MAX_FLOOD_FRAMES) {
        const int sent = senders[0]->send_burst(flood_port, flood, 64);
        ASSERT_GT(sent, 0);
        flooded += sent;
        if (flooded / STREAM_EVERY <= streamed) continue;
        // The stream starts once the flood overflows interface 1.
        const long drops = receive_queue_drops(flood_port);
        if (drops <= 0) continue;
        if (drops_at_first_stream_frame < 0) drops_at_first_stream_frame = drops;
        ASSERT_TRUE(node.send_to(stream_port, datagram(7, 0x01, 0x02, {static_cast<uint8_t>(streamed++)})));
    }
    ASSERT_EQ(streamed, STREAM_FRAMES) << "the flood never overflowed interface 1";
    EXPECT_GT(receive_queue_drops(flood_port), drops_at_first_stream_frame)
        << "the flood stopped overflowing interface 1 while the stream ran";
    for (int expected = 0; expected < streamed; ++expected) {
        ASSERT_EQ(sink.receive(5000), datagram(7, 0x01, 0x02, {static_cast<uint8_t>(expected)}))
            << "stream frame " << expected << " of " << streamed << ", " << flooded << " flood frames";
    }
    EXPECT_EQ(receive_queue_drops(stream_port), 0);
    std::printf("fairness: %d flood frames, %ld dropped at interface 1, %d stream frames through\n", flooded,
                receive_queue_drops(flood_port), streamed);
}

TEST_F(GateFloodTest, ADeviceCannotRedirectAConfiguredGateway) {
    start(1);
    ASSERT_TRUE(
        node.send_to(stream_port, datagram(vostrelka::SERVICE_PROTO_ID, 0x01, 0xFF, device_config(0x0A000001))));
    EXPECT_TRUE(
        gate->wait_for_line("WARNING: device_config does not replace configured MANet peer on iface 3: "
                            "0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR"))
        << gate->log();
    const Bytes packet = manet_payload(0x0B000001, 0x0A000001, {1, 2, 3});
    ASSERT_TRUE(node.send_to(stream_port, datagram(vostrelka::MANET_PROTO_ID, 0x01, 0xFF, packet)));
    EXPECT_EQ(gateway.receive(), datagram(vostrelka::MANET_PROTO_ID, 0x01, 0x22, packet));
}

}  // namespace
