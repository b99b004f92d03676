// The real gate under floods from many 127.x source addresses and ports:
// made-up MANet sources on a local link, and device_config frames naming
// ever new UTM servers. A low-rate stream on another local link must get
// every frame through meanwhile; memory, threads and log lines stay bounded
// (read from /proc and from the gate's own output).
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "support/GateLink.h"
#include "support/GateProcess.h"
#include "support/InProcessGate.h"
#include "support/ProcessCpu.h"
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
// interface 2 to local peer 0x02 (the sink); local peer 0x04 on interface 2
// is a socket nobody reads; interface 3 is a MANet one.
class GateFloodTest : public testing::Test {
protected:
    void start() {
        auto iface = [](uint16_t port, int id, const char* extra = "") {
            return R"({"iface": "udp://127.0.0.1:)" + std::to_string(port) + R"(", "id": )" + std::to_string(id) +
                   extra + "}";
        };
        const std::string config = R"({"ifaces": [)" + iface(flood_port, 1) + ", " + iface(stream_port, 2) + ", " +
                                   iface(free_udp_port(), 3, R"(, "type": "manet")") +
                                   R"(], "local_peers": [{"netdev_addr": "0x02", "iface_id": 2, "inet_addr": ")" +
                                   sink.address() + R"("}, {"netdev_addr": "0x04", "iface_id": 2, "inet_addr": ")" +
                                   flood_sink.address() + R"("}]})";
        gate = std::make_unique<GateProcess>(std::vector<std::string>{"--config", dir.write_file("gate.json", config)});
        ASSERT_TRUE(gate->wait_for_prefix("add local peer on iface 2: 0x04")) << gate->log();
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
            EXPECT_TRUE(node.send_to(stream_port, datagram({7, 0x01, 0x02, {static_cast<uint8_t>(streamed++)}})));
            figures.max_threads = std::max(figures.max_threads, proc_status(gate->pid(), "Threads:"));
        }
        for (int expected = 0; expected < streamed; ++expected) {
            const std::optional<Bytes> got = sink.receive(5000);
            if (got != datagram({7, 0x01, 0x02, {static_cast<uint8_t>(expected)}})) {
                ADD_FAILURE() << "stream frame " << expected << " of " << streamed << " lost";
                break;
            }
        }
        // Interface 1 has taken in the flood once a frame sent after it comes
        // through. It is sent again while the socket may still be full.
        bool drained = false;
        for (int attempt = 0; attempt < 20 && !drained; ++attempt) {
            EXPECT_TRUE(senders[0]->send_to(flood_port, datagram({7, 0x03, 0x02, {0xEE}})));
            drained = sink.receive(500) == datagram({7, 0x03, 0x02, {0xEE}});
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
    UdpEndpoint node, sink, flood_sink;
    std::vector<std::unique_ptr<UdpEndpoint>> senders = [] {
        std::vector<std::unique_ptr<UdpEndpoint>> made;
        for (int host = 2; host < 2 + SENDERS; ++host) made.push_back(std::make_unique<UdpEndpoint>(host));
        return made;
    }();
    std::unique_ptr<GateProcess> gate;
};

TEST_F(GateFloodTest, MadeUpManetSourcesFillTheLearnedCapAndNoMore) {
    start();
    const FloodFigures figures = flood_with_stream(20000, [](int i) {
        return datagram({vostrelka::MANET_PROTO_ID, static_cast<uint8_t>(0x10 + i % 200), 0x30,
                         manet_payload(0x0B000000u + static_cast<uint32_t>(i), 0x0C000000)});
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
    start();
    const FloodFigures figures = flood_with_stream(2000, [](int i) {
        return datagram({vostrelka::SERVICE_PROTO_ID, static_cast<uint8_t>(0x10 + i % 200), 0x30,
                         device_config(0x0E000000u + static_cast<uint32_t>(i))});
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
    start();
    const Bytes flood = datagram({7, 0x03, 0x04, Bytes(32, 0x42)});
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
        ASSERT_TRUE(node.send_to(stream_port, datagram({7, 0x01, 0x02, {static_cast<uint8_t>(streamed++)}})));
    }
    ASSERT_EQ(streamed, STREAM_FRAMES) << "the flood never overflowed interface 1";
    EXPECT_GT(receive_queue_drops(flood_port), drops_at_first_stream_frame)
        << "the flood stopped overflowing interface 1 while the stream ran";
    for (int expected = 0; expected < streamed; ++expected) {
        ASSERT_EQ(sink.receive(5000), datagram({7, 0x01, 0x02, {static_cast<uint8_t>(expected)}}))
            << "stream frame " << expected << " of " << streamed << ", " << flooded << " flood frames";
    }
    EXPECT_EQ(receive_queue_drops(stream_port), 0);
    std::printf("fairness: %d flood frames, %ld dropped at interface 1, %d stream frames through\n", flooded,
                receive_queue_drops(flood_port), streamed);
}

}  // namespace
