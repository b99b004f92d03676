// fwd-loadgen: sends probe frames (ProbeFrame.h) to one UDP endpoint, paced
// at a rate or flat out, and prints what it sent as one line of key=value.
//
//   fwd-loadgen --to 127.0.0.1:47001 --rate 20000 --seconds 2
//   fwd-loadgen --to 127.0.0.1:47001 --format udpserial --rate 0 --seconds 1
//
// Paced sending sleeps until the next frame is due and then sends every frame
// that is due, so it leaves the core to a sink sharing it; each frame is
// stamped just before its batch goes out. Flat out sends batches of
// BATCH_FRAMES with sendmmsg, the cheapest way to offer more than a relay
// can take.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ProbeFrame.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace {

constexpr size_t BATCH_FRAMES = 64;
constexpr size_t MAX_DATAGRAM_SIZE = 2 * probe::MAX_PAYLOAD_SIZE + 16;

struct Options {
    sockaddr_in to{};
    sockaddr_in from{};
    probe::Format format = probe::Format::UDP;
    double rate = 0;  // frames/s; 0 = flat out
    double seconds = 1;
    size_t payload_size = 32;
    uint8_t proto_id = 7;
    uint8_t src = 0x01;
    uint8_t dst = 0x02;
};

const char* const USAGE =
    "usage: fwd-loadgen --to HOST:PORT [--from HOST:PORT] [--format udp|udpserial]\n"
    "                   [--rate FRAMES_PER_S (0 = flat out)] [--seconds S] [--size PAYLOAD_BYTES]\n"
    "                   [--proto N] [--src ADDR] [--dst ADDR]\n"
    "example: fwd-loadgen --to 127.0.0.1:47001 --from 127.0.0.1:47004 --rate 20000 --seconds 2\n"
    "prints:  sent=40000 seconds=2.000 rate=20000.0\n";

bool parse_options(int argc, char** argv, Options& options) {
    bool have_to = false;
    options.from.sin_family = AF_INET;
    options.from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const std::string value = argv[i + 1];
        if (key == "--to" || key == "--from") {
            auto endpoint = probe::parse_endpoint(value);
            if (!endpoint) return false;
            (key == "--to" ? options.to : options.from) = *endpoint;
            have_to |= key == "--to";
        } else if (key == "--format") {
            auto format = probe::parse_format(value);
            if (!format) return false;
            options.format = *format;
        } else if (key == "--rate") {
            options.rate = std::stod(value);
        } else if (key == "--seconds") {
            options.seconds = std::stod(value);
        } else if (key == "--size") {
            options.payload_size = std::stoul(value);
        } else if (key == "--proto") {
            options.proto_id = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
        } else if (key == "--src") {
            options.src = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
        } else if (key == "--dst") {
            options.dst = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
        } else {
            return false;
        }
    }
    return have_to && argc % 2 == 1 && options.payload_size >= probe::MIN_PAYLOAD_SIZE &&
           options.payload_size <= probe::MAX_PAYLOAD_SIZE && options.rate >= 0 && options.seconds > 0;
}

// Builds datagrams in place; the payload template is filled once and only
// the sequence number and the send time change per frame.
class DatagramWriter {
public:
    explicit DatagramWriter(const Options& options_) : options(options_), payload(options_.payload_size) {
        for (size_t i = probe::MIN_PAYLOAD_SIZE; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    }

    // Writes frame `sequence` into `out`; returns its length.
    size_t write(uint8_t* out, uint64_t sequence, int64_t send_time_ns) {
        probe::put_u64(payload.data() + probe::SEQUENCE_OFFSET, sequence);
        probe::put_u64(payload.data() + probe::SEND_TIME_OFFSET, static_cast<uint64_t>(send_time_ns));
        if (options.format == probe::Format::UDP) {
            out[0] = options.proto_id;
            out[1] = options.src;
            out[2] = options.dst;
            std::memcpy(out + probe::UDP_HEADER_SIZE, payload.data(), payload.size());
            return probe::UDP_HEADER_SIZE + payload.size();
        }
        vostrelka::net_device::Frame frame;
        frame.proto_id = options.proto_id;
        frame.src = options.src;
        frame.dst = options.dst;
        frame.payload = vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size());
        vostrelka::Slice<unsigned char> tx(out, 0, MAX_DATAGRAM_SIZE);
        vostrelka::Slice<unsigned char> unused_rx;
        vostrelka::net_device::SerialEncoder encoder(tx, unused_rx, no_frames);
        return encoder.encode(frame, stats);
    }

private:
    struct NoFrames : vostrelka::net_device::SerialEncoderHandlerI {
        void on_frame(const vostrelka::net_device::Frame&) override {}
    };
    const Options& options;
    std::vector<uint8_t> payload;
    NoFrames no_frames;
    vostrelka::net_device::SerialEncoderErrorStats stats;
};

class Sender {
public:
    Sender(int fd_, const Options& options_) : fd(fd_), to(options_.to), writer(options_) {
        for (size_t i = 0; i < BATCH_FRAMES; ++i) {
            messages[i].msg_hdr.msg_name = &to;
            messages[i].msg_hdr.msg_namelen = sizeof(to);
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            vectors[i].iov_base = datagrams[i];
        }
    }

    // Sends frames next_sequence .. next_sequence + count - 1; false on a send error.
    bool send_batch(size_t count) {
        const int64_t now = probe::now_ns();
        for (size_t i = 0; i < count; ++i) vectors[i].iov_len = writer.write(datagrams[i], next_sequence + i, now);
        size_t done = 0;
        while (done < count) {
            const int sent = sendmmsg(fd, messages + done, static_cast<unsigned>(count - done), 0);
            if (sent < 0) {
                if (errno == EINTR || errno == ENOBUFS || errno == EAGAIN) continue;
                std::perror("fwd-loadgen: sendmmsg");
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        next_sequence += count;
        return true;
    }

    uint64_t sent() const { return next_sequence; }

private:
    int fd;
    sockaddr_in to;
    DatagramWriter writer;
    uint64_t next_sequence = 0;
    mmsghdr messages[BATCH_FRAMES]{};
    iovec vectors[BATCH_FRAMES]{};
    uint8_t datagrams[BATCH_FRAMES][MAX_DATAGRAM_SIZE]{};
};

bool run_flat_out(Sender& sender, int64_t end_ns) {
    while (probe::now_ns() < end_ns) {
        if (!sender.send_batch(BATCH_FRAMES)) return false;
    }
    return true;
}

bool run_paced(Sender& sender, const Options& options, int64_t start_ns) {
    const uint64_t total = static_cast<uint64_t>(options.rate * options.seconds);
    const double interval_ns = probe::NS_PER_S / options.rate;
    while (sender.sent() < total) {
        const int64_t elapsed = probe::now_ns() - start_ns;
        uint64_t due = static_cast<uint64_t>(static_cast<double>(elapsed) / interval_ns) + 1;
        if (due > total) due = total;
        while (sender.sent() < due) {
            const uint64_t batch = std::min<uint64_t>(due - sender.sent(), BATCH_FRAMES);
            if (!sender.send_batch(static_cast<size_t>(batch))) return false;
        }
        if (sender.sent() >= total) break;
        const int64_t next_ns = start_ns + static_cast<int64_t>(static_cast<double>(sender.sent()) * interval_ns);
        const timespec wake{static_cast<time_t>(next_ns / probe::NS_PER_S),
                            static_cast<long>(next_ns % probe::NS_PER_S)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!probe::parse_command_line(argc, argv, options, parse_options, USAGE)) return 2;
    // The default 50 us of timer slack would bunch paced frames together.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);

    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&options.from), sizeof(options.from)) < 0) {
        std::perror("fwd-loadgen: socket");
        return 1;
    }
    static Sender sender(fd, options);  // static: the batch buffers are large
    const int64_t start_ns = probe::now_ns();
    const int64_t end_ns = start_ns + static_cast<int64_t>(options.seconds * probe::NS_PER_S);
    const bool ok = options.rate == 0 ? run_flat_out(sender, end_ns) : run_paced(sender, options, start_ns);
    const double elapsed_s = static_cast<double>(probe::now_ns() - start_ns) / probe::NS_PER_S;
    std::printf("sent=%llu seconds=%.3f rate=%.1f\n", static_cast<unsigned long long>(sender.sent()), elapsed_s,
                static_cast<double>(sender.sent()) / elapsed_s);
    close(fd);
    return ok ? 0 : 1;
}
