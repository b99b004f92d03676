// fwd-sink: receives probe frames (ProbeFrame.h) on one UDP endpoint and
// prints, as one line of key=value, how many arrived, how many were lost or
// reordered, the delivered rate and the one-way latency percentiles.
//
//   fwd-sink --listen 127.0.0.1:47003 --expect 40000
//   fwd-sink --listen 127.0.0.1:47003 --format udpserial --seconds 5
//
// It prints "listening" once its socket is bound, so that a driver knows
// when to start sending. It stops when every expected frame has arrived, when
// nothing has arrived for --idle-ms after the first frame, or after --seconds.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "ProbeFrame.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace {

constexpr size_t BATCH_DATAGRAMS = 64;
constexpr size_t MAX_DATAGRAM_SIZE = 4096;
constexpr int RECEIVE_POLL_MS = 20;
constexpr int RECEIVE_BUFFER_BYTES = 4 * 1024 * 1024;
constexpr uint64_t MAX_TRACKED_SEQUENCE = 200000000;

struct Options {
    sockaddr_in listen{};
    probe::Format format = probe::Format::UDP;
    uint64_t expect = 0;  // 0: unknown, judged by the highest sequence seen
    double seconds = 60;
    int64_t idle_ms = 300;
};

const char* const USAGE =
    "usage: fwd-sink --listen HOST:PORT [--format udp|udpserial] [--expect FRAMES]\n"
    "                [--seconds MAX_S] [--idle-ms MS]\n"
    "example: fwd-sink --listen 127.0.0.1:47003 --expect 40000\n"
    "prints:  listening\n"
    "         received=40000 unique=40000 lost=0 reordered=0 duplicates=0 rate=20000.1 "
    "p50_us=21.3 p99_us=48.0 p999_us=95.2 max_us=180.4\n";

bool parse_options(int argc, char** argv, Options& options) {
    bool have_listen = false;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const std::string value = argv[i + 1];
        if (key == "--listen") {
            auto endpoint = probe::parse_endpoint(value);
            if (!endpoint) return false;
            options.listen = *endpoint;
            have_listen = true;
        } else if (key == "--format") {
            auto format = probe::parse_format(value);
            if (!format) return false;
            options.format = *format;
        } else if (key == "--expect") {
            options.expect = std::stoull(value);
        } else if (key == "--seconds") {
            options.seconds = std::stod(value);
        } else if (key == "--idle-ms") {
            options.idle_ms = std::stoll(value);
        } else {
            return false;
        }
    }
    return have_listen && argc % 2 == 1 && options.expect <= MAX_TRACKED_SEQUENCE;
}

class Tally {
public:
    explicit Tally(uint64_t expect) {
        seen.reserve(expect);
        latencies_ns.reserve(expect);
    }

    void on_probe(const uint8_t* payload, uint64_t size, int64_t receive_ns) {
        if (size < probe::MIN_PAYLOAD_SIZE) return;
        const uint64_t sequence = probe::get_u64(payload + probe::SEQUENCE_OFFSET);
        const int64_t send_ns = static_cast<int64_t>(probe::get_u64(payload + probe::SEND_TIME_OFFSET));
        if (sequence >= MAX_TRACKED_SEQUENCE) return;
        ++received;
        if (received == 1) first_ns = receive_ns;
        last_ns = receive_ns;
        if (sequence >= seen.size()) seen.resize(sequence + 1, false);
        if (seen[sequence]) {
            ++duplicates;
            return;
        }
        seen[sequence] = true;
        ++unique;
        if (unique > 1 && sequence < highest) ++reordered;
        highest = std::max(highest, sequence);
        latencies_ns.push_back(receive_ns - send_ns);
    }

    void print(uint64_t expect) {
        const uint64_t offered = expect != 0 ? expect : (unique == 0 ? 0 : highest + 1);
        const double span_s = static_cast<double>(last_ns - first_ns) / probe::NS_PER_S;
        const double rate = received > 1 && span_s > 0 ? static_cast<double>(received - 1) / span_s : 0;
        std::sort(latencies_ns.begin(), latencies_ns.end());
        std::printf(
            "received=%llu unique=%llu lost=%llu reordered=%llu duplicates=%llu rate=%.1f p50_us=%.1f p99_us=%.1f "
            "p999_us=%.1f max_us=%.1f\n",
            static_cast<unsigned long long>(received), static_cast<unsigned long long>(unique),
            static_cast<unsigned long long>(offered - std::min(offered, unique)),
            static_cast<unsigned long long>(reordered), static_cast<unsigned long long>(duplicates), rate,
            percentile_us(0.5), percentile_us(0.99), percentile_us(0.999),
            latencies_ns.empty() ? 0.0 : static_cast<double>(latencies_ns.back()) / 1000.0);
    }

    uint64_t received = 0;
    uint64_t unique = 0;
    int64_t last_ns = 0;

private:
    // Nearest rank: the smallest sample with at least `fraction` of all samples at or below it.
    double percentile_us(double fraction) const {
        if (latencies_ns.empty()) return 0;
        size_t rank = static_cast<size_t>(fraction * static_cast<double>(latencies_ns.size()) + 0.999999);
        rank = std::clamp<size_t>(rank, 1, latencies_ns.size());
        return static_cast<double>(latencies_ns[rank - 1]) / 1000.0;
    }

    std::vector<bool> seen;
    std::vector<int64_t> latencies_ns;
    uint64_t duplicates = 0;
    uint64_t reordered = 0;
    uint64_t highest = 0;
    int64_t first_ns = 0;
};

// Serial-framed datagrams go through the library's own decoder, state kept
// between datagrams as a device keeps it.
class SerialProbeDecoder : public vostrelka::net_device::SerialEncoderHandlerI {
public:
    explicit SerialProbeDecoder(Tally& tally_) : tally(tally_) {}

    void decode(const uint8_t* data, size_t size, int64_t receive_ns) {
        current_receive_ns = receive_ns;
        encoder.decode(vostrelka::ConstSlice<unsigned char>(data, size), stats);
    }
    void on_frame(const vostrelka::net_device::Frame& frame) override {
        tally.on_probe(frame.payload.data, frame.payload.size, current_receive_ns);
    }

private:
    Tally& tally;
    int64_t current_receive_ns = 0;
    uint8_t tx_storage[1]{};
    uint8_t rx_storage[MAX_DATAGRAM_SIZE]{};
    vostrelka::Slice<unsigned char> tx{tx_storage, 0, sizeof(tx_storage)};
    vostrelka::Slice<unsigned char> rx{rx_storage, 0, sizeof(rx_storage)};
    vostrelka::net_device::SerialEncoder encoder{tx, rx, *this};
    vostrelka::net_device::SerialEncoderErrorStats stats;
};

int open_socket(const Options& options) {
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return -1;
    // A deep queue keeps the sink from being the place where frames are lost.
    const int size = RECEIVE_BUFFER_BYTES;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) < 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    const timeval poll{0, RECEIVE_POLL_MS * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &poll, sizeof(poll));
    if (bind(fd, reinterpret_cast<const sockaddr*>(&options.listen), sizeof(options.listen)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!probe::parse_command_line(argc, argv, options, parse_options, USAGE)) return 2;
    const int fd = open_socket(options);
    if (fd < 0) {
        std::perror("fwd-sink: socket");
        return 1;
    }
    std::printf("listening\n");
    std::fflush(stdout);

    static uint8_t datagrams[BATCH_DATAGRAMS][MAX_DATAGRAM_SIZE];
    mmsghdr messages[BATCH_DATAGRAMS]{};
    iovec vectors[BATCH_DATAGRAMS]{};
    for (size_t i = 0; i < BATCH_DATAGRAMS; ++i) {
        vectors[i] = iovec{datagrams[i], MAX_DATAGRAM_SIZE};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }

    Tally tally(options.expect);
    SerialProbeDecoder serial(tally);
    const int64_t end_ns = probe::now_ns() + static_cast<int64_t>(options.seconds * probe::NS_PER_S);
    const int64_t idle_ns = options.idle_ms * 1000000;
    for (;;) {
        const int count = recvmmsg(fd, messages, BATCH_DATAGRAMS, MSG_WAITFORONE, nullptr);
        const int64_t now = probe::now_ns();
        for (int i = 0; i < count; ++i) {
            const uint8_t* data = datagrams[i];
            const size_t size = messages[i].msg_len;
            if (options.format == probe::Format::UDPSERIAL) {
                serial.decode(data, size, now);
            } else if (size > probe::UDP_HEADER_SIZE) {
                tally.on_probe(data + probe::UDP_HEADER_SIZE, size - probe::UDP_HEADER_SIZE, now);
            }
        }
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            std::perror("fwd-sink: recvmmsg");
            break;
        }
        if (options.expect != 0 && tally.unique >= options.expect) break;
        if (tally.received > 0 && now - tally.last_ns > idle_ns) break;
        if (now > end_ns) break;
    }
    tally.print(options.expect);
    close(fd);
    return 0;
}
