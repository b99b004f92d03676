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

#include <cerrno>
#include <cstdio>
#include <string>

#include "ProbeReceiver.h"

namespace {

constexpr int RECEIVE_POLL_MS = 20;

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
    return have_listen && argc % 2 == 1 && options.expect <= probe::MAX_TRACKED_SEQUENCE;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!probe::parse_command_line(argc, argv, options, parse_options, USAGE)) return 2;
    const int fd = probe::open_receive_socket(options.listen);
    if (fd < 0) {
        std::perror("fwd-sink: socket");
        return 1;
    }
    const timeval poll{0, RECEIVE_POLL_MS * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &poll, sizeof(poll));
    std::printf("listening\n");
    std::fflush(stdout);

    probe::Tally tally(options.expect);
    static probe::Receiver receiver(fd, options.format, tally);  // static: the batch buffers are large
    const int64_t end_ns = probe::now_ns() + static_cast<int64_t>(options.seconds * probe::NS_PER_S);
    const int64_t idle_ns = options.idle_ms * 1000000;
    for (;;) {
        const int count = receiver.receive_batch(MSG_WAITFORONE);
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            std::perror("fwd-sink: recvmmsg");
            break;
        }
        const int64_t now = probe::now_ns();
        if (options.expect != 0 && tally.unique >= options.expect) break;
        if (tally.received > 0 && now - tally.last_ns > idle_ns) break;
        if (now > end_ns) break;
    }
    tally.print(options.expect);
    close(fd);
    return 0;
}
