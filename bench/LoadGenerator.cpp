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

#include <cstdio>
#include <string>

#include "ProbeSender.h"

namespace {

struct Options {
    sockaddr_in to{};
    sockaddr_in from{};
    probe::FrameHeader header;
    double rate = 0;  // frames/s; 0 = flat out
    double seconds = 1;
    size_t payload_size = 32;
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
            options.header.format = *format;
        } else if (key == "--rate") {
            options.rate = std::stod(value);
        } else if (key == "--seconds") {
            options.seconds = std::stod(value);
        } else if (key == "--size") {
            options.payload_size = std::stoul(value);
        } else if (key == "--proto") {
            options.header.proto_id = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
        } else if (key == "--src") {
            options.header.src = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
        } else if (key == "--dst") {
            options.header.dst = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
        } else {
            return false;
        }
    }
    return have_to && argc % 2 == 1 && options.payload_size >= probe::MIN_PAYLOAD_SIZE &&
           options.payload_size <= probe::MAX_PAYLOAD_SIZE && options.rate >= 0 && options.seconds > 0;
}

bool run_flat_out(probe::Sender& sender, int64_t end_ns) {
    while (probe::now_ns() < end_ns) {
        if (!sender.send_batch(probe::SEND_BATCH_FRAMES)) return false;
    }
    return true;
}

bool run_paced(probe::Sender& sender, const Options& options, int64_t start_ns) {
    const uint64_t total = static_cast<uint64_t>(options.rate * options.seconds);
    const double interval_ns = probe::NS_PER_S / options.rate;
    while (sender.sent() < total) {
        const uint64_t due = probe::frames_due(probe::now_ns() - start_ns, options.rate, total);
        while (sender.sent() < due) {
            if (!sender.send_batch(static_cast<size_t>(due - sender.sent()))) return false;
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
    static probe::Sender sender(fd, options.to, options.header,
                                options.payload_size);  // static: the batch buffers are large
    const int64_t start_ns = probe::now_ns();
    const int64_t end_ns = start_ns + static_cast<int64_t>(options.seconds * probe::NS_PER_S);
    const bool ok = options.rate == 0 ? run_flat_out(sender, end_ns) : run_paced(sender, options, start_ns);
    const double elapsed_s = static_cast<double>(probe::now_ns() - start_ns) / probe::NS_PER_S;
    std::printf("sent=%llu seconds=%.3f rate=%.1f\n", static_cast<unsigned long long>(sender.sent()), elapsed_s,
                static_cast<double>(sender.sent()) / elapsed_s);
    close(fd);
    return ok ? 0 : 1;
}
