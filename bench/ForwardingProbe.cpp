// fwd-probe: load generator and sink in one thread that never sleeps. It
// sends probe frames (ProbeFrame.h) to one or more forwarders, paced or flat
// out, takes them back on a socket per forwarder and prints, per forwarder,
// one line of key=value: what was sent and what came back (loss,
// reordering, delivered rate, one-way latency percentiles) and, given the
// forwarder's pid, the CPU time it spent on them.
//
//   fwd-probe --to 127.0.0.1:47001 --listen 127.0.0.1:47003 --rate 20000 --seconds 2
//   fwd-probe --to 127.0.0.1:47001,127.0.0.1:47011 --listen 127.0.0.1:47003,127.0.0.1:47013
//             --format udpserial,udp --pids 812,813 --rate 0 --seconds 1
//
// Why one spinning thread: with a generator and a sink as two processes on
// one core, a frame coming back waits until the generator gives up the core,
// and that wait, tens of microseconds, depends on how the forwarder's timing
// falls against the generator's rather than on the forwarder. Spinning, the
// probe takes a frame within one pass of its loop (a send at most) of its
// arrival, and the forwarder's sends never have a sleeping sink to wake.
// It needs a core of its own: the forwarders belong on the other.
//
// Why slices: on a shared or virtual machine the cost of the same work
// drifts by several per cent over seconds, and the core stalls for
// milliseconds now and then. Several forwarders measured one after the
// other each meet a different machine; taking turns in short slices
// (--slice-ms), each meets the same one. Between slices the probe pauses
// (--gap-ms) so that a forwarder's backlog is drained, and its CPU time
// counted, before the next one starts.
//
// Fairness (--flood, --flood-listen, one address each per forwarder): while
// a forwarder's paced frames go to it, the probe also floods another of its
// inputs flat out with frames 0x03 -> 0x04 and takes back on the flood sink
// what the forwarder got through of them. The line then also gives
// flood_sent, flood_received and flood_rate (delivered flood frames/s).
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ProbeReceiver.h"
#include "ProbeSender.h"

namespace {

constexpr size_t MAX_TARGETS = 8;
constexpr int64_t NS_PER_MS = 1000000;
constexpr int64_t FLOOD_LEAD_NS = 10 * NS_PER_MS;

struct Options {
    std::vector<sockaddr_in> to;
    std::vector<sockaddr_in> listen;
    std::vector<sockaddr_in> flood;
    std::vector<sockaddr_in> flood_listen;
    std::vector<probe::Format> formats;
    std::vector<int> pids;
    std::vector<double> rates;  // frames/s per forwarder; 0 = flat out
    sockaddr_in from{};
    double seconds = 1;  // per forwarder
    size_t payload_size = 32;
    int64_t slice_ms = 100;
    int64_t gap_ms = 5;
    int64_t idle_ms = 300;
};

const char* const USAGE =
    "usage: fwd-probe --to HOST:PORT[,...] --listen HOST:PORT[,...] [--format udp|udpserial[,...]]\n"
    "                 [--pids PID[,...]] [--from HOST:PORT] [--rate FRAMES_PER_S[,...] (0 = flat out)]\n"
    "                 [--seconds S (per forwarder)] [--size PAYLOAD_BYTES] [--slice-ms MS] [--gap-ms MS]\n"
    "                 [--idle-ms MS (wait for stragglers after the last send)]\n"
    "                 [--flood HOST:PORT[,...] --flood-listen HOST:PORT[,...] (flat out beside each target)]\n"
    "example: fwd-probe --to 127.0.0.1:47001 --from 127.0.0.1:47004 --listen 127.0.0.1:47003 --rate 20000\n"
    "prints:  target=0 sent=20000 cpu_ns=0 received=20000 unique=20000 lost=0 reordered=0 duplicates=0 "
    "rate=20000.1 p50_us=18.3 p99_us=41.0 p999_us=95.2 max_us=180.4\n";

template <typename Parse>
bool parse_list(const std::string& text, Parse parse) {
    size_t begin = 0;
    for (;;) {
        const size_t comma = text.find(',', begin);
        if (!parse(text.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin))) return false;
        if (comma == std::string::npos) return true;
        begin = comma + 1;
    }
}

bool parse_endpoints(const std::string& text, std::vector<sockaddr_in>& out) {
    return parse_list(text, [&](const std::string& item) {
        auto endpoint = probe::parse_endpoint(item);
        if (endpoint) out.push_back(*endpoint);
        return endpoint.has_value();
    });
}

bool parse_options(int argc, char** argv, Options& options) {
    options.from.sin_family = AF_INET;
    options.from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const std::string value = argv[i + 1];
        bool ok = true;
        if (key == "--to") {
            ok = parse_endpoints(value, options.to);
        } else if (key == "--listen") {
            ok = parse_endpoints(value, options.listen);
        } else if (key == "--flood") {
            ok = parse_endpoints(value, options.flood);
        } else if (key == "--flood-listen") {
            ok = parse_endpoints(value, options.flood_listen);
        } else if (key == "--from") {
            auto endpoint = probe::parse_endpoint(value);
            ok = endpoint.has_value();
            if (ok) options.from = *endpoint;
        } else if (key == "--format") {
            ok = parse_list(value, [&](const std::string& item) {
                auto format = probe::parse_format(item);
                if (format) options.formats.push_back(*format);
                return format.has_value();
            });
        } else if (key == "--pids") {
            ok = parse_list(value, [&](const std::string& item) {
                options.pids.push_back(std::stoi(item));
                return true;
            });
        } else if (key == "--rate") {
            ok = parse_list(value, [&](const std::string& item) {
                options.rates.push_back(std::stod(item));
                return options.rates.back() >= 0;
            });
        } else if (key == "--seconds") {
            options.seconds = std::stod(value);
        } else if (key == "--size") {
            options.payload_size = std::stoul(value);
        } else if (key == "--slice-ms") {
            options.slice_ms = std::stoll(value);
        } else if (key == "--gap-ms") {
            options.gap_ms = std::stoll(value);
        } else if (key == "--idle-ms") {
            options.idle_ms = std::stoll(value);
        } else {
            ok = false;
        }
        if (!ok) return false;
    }
    const size_t targets = options.to.size();
    if (options.formats.empty()) options.formats.push_back(probe::Format::UDP);
    if (options.formats.size() == 1) options.formats.resize(targets, options.formats.front());
    if (options.rates.empty()) options.rates.push_back(0);
    if (options.rates.size() == 1) options.rates.resize(targets, options.rates.front());
    return argc % 2 == 1 && targets >= 1 && targets <= MAX_TARGETS && options.listen.size() == targets &&
           options.formats.size() == targets && options.rates.size() == targets &&
           (options.flood.empty() || options.flood.size() == targets) &&
           options.flood_listen.size() == options.flood.size() &&
           (options.pids.empty() || options.pids.size() == targets) &&
           options.payload_size >= probe::MIN_PAYLOAD_SIZE && options.payload_size <= probe::MAX_PAYLOAD_SIZE &&
           options.seconds > 0 && options.slice_ms > 0 && options.gap_ms >= 0 &&
           *std::max_element(options.rates.begin(), options.rates.end()) * options.seconds <=
               static_cast<double>(probe::MAX_TRACKED_SEQUENCE);
}

// CPU time the kernel has charged to process `pid`'s main thread, in ns; 0
// when unknown. Finer than the clock ticks of /proc/PID/stat.
int64_t cpu_time_ns(int pid) {
    if (pid <= 0) return 0;
    std::ifstream schedstat("/proc/" + std::to_string(pid) + "/schedstat");
    int64_t on_cpu_ns = 0;
    schedstat >> on_cpu_ns;
    return on_cpu_ns;
}

// Frames 0x03 -> 0x04 sent flat out beside a target's own, and what of them
// came back.
struct Flood {
    Flood(int send_fd, const sockaddr_in& to, int receive_fd_, probe::Format format, size_t payload_size)
        : receive_fd(receive_fd_),
          tally(0),
          sender(std::make_unique<probe::Sender>(send_fd, to, probe::FrameHeader{format, 7, 0x03, 0x04}, payload_size)),
          receiver(std::make_unique<probe::Receiver>(receive_fd_, format, tally)) {}
    ~Flood() { close(receive_fd); }

    int receive_fd;
    probe::Tally tally;
    std::unique_ptr<probe::Sender> sender;
    std::unique_ptr<probe::Receiver> receiver;
};

// One forwarder under test, with what the probe keeps for it.
struct Target {
    Target(int send_fd, int receive_fd_, const sockaddr_in& to, probe::Format format, size_t payload_size, double rate_,
           uint64_t expect_, int pid_)
        : receive_fd(receive_fd_),
          pid(pid_),
          rate(rate_),
          expect(expect_),
          tally(expect_),
          sender(std::make_unique<probe::Sender>(send_fd, to, probe::FrameHeader{format}, payload_size)),
          receiver(std::make_unique<probe::Receiver>(receive_fd_, format, tally)) {}

    int receive_fd;
    int pid;
    double rate;      // frames/s; 0 = flat out
    uint64_t expect;  // 0 when flat out
    int64_t cpu_ns = 0;
    probe::Tally tally;
    std::unique_ptr<probe::Sender> sender;
    std::unique_ptr<probe::Receiver> receiver;
    std::unique_ptr<Flood> flood;  // null without --flood
};

// Takes every frame waiting on any target's socket.
void drain(std::vector<std::unique_ptr<Target>>& targets) {
    for (auto& target : targets) {
        while (target->receiver->receive_batch(MSG_DONTWAIT) > 0) {
        }
        if (!target->flood) continue;
        while (target->flood->receiver->receive_batch(MSG_DONTWAIT) > 0) {
        }
    }
}

// Drains for `duration_ns`, spinning.
void drain_for(std::vector<std::unique_ptr<Target>>& targets, int64_t duration_ns) {
    const int64_t end_ns = probe::now_ns() + duration_ns;
    while (probe::now_ns() < end_ns) drain(targets);
}

// One slice of `duration_ns` for `target`, paced at its rate or flat out,
// while draining every socket. False on a send error.
bool run_slice(std::vector<std::unique_ptr<Target>>& targets, Target& target, int64_t duration_ns) {
    const double rate = target.rate;
    const int64_t start_ns = probe::now_ns();
    const uint64_t first = target.sender->sent();
    const uint64_t total = static_cast<uint64_t>(rate * static_cast<double>(duration_ns) / probe::NS_PER_S);
    for (;;) {
        const int64_t now = probe::now_ns();
        if (rate == 0) {
            if (now - start_ns >= duration_ns) return true;
            if (!target.sender->send_batch(probe::SEND_BATCH_FRAMES)) return false;
        } else {
            const uint64_t done = target.sender->sent() - first;
            if (done >= total && now - start_ns >= duration_ns) return true;
            // Beside a flood, the first paced frame waits until the flood has
            // filled the forwarder's input.
            const int64_t paced_ns = now - start_ns - (target.flood ? FLOOD_LEAD_NS : 0);
            const uint64_t due = paced_ns < 0 ? 0 : probe::frames_due(paced_ns, rate, total);
            if (due > done && !target.sender->send_batch(static_cast<size_t>(due - done))) return false;
            if (target.flood && !target.flood->sender->send_batch(probe::SEND_BATCH_FRAMES)) return false;
        }
        drain(targets);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!probe::parse_command_line(argc, argv, options, parse_options, USAGE)) return 2;
    const int send_fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (send_fd < 0 || bind(send_fd, reinterpret_cast<sockaddr*>(&options.from), sizeof(options.from)) < 0) {
        std::perror("fwd-probe: sending socket");
        return 1;
    }
    const size_t count = options.to.size();
    const int64_t total_ns = static_cast<int64_t>(options.seconds * probe::NS_PER_S);
    const int64_t slice_ns = count == 1 ? total_ns : std::min(total_ns, options.slice_ms * NS_PER_MS);
    std::vector<std::unique_ptr<Target>> targets;
    for (size_t i = 0; i < count; ++i) {
        const int receive_fd = probe::open_receive_socket(options.listen[i]);
        if (receive_fd < 0) {
            std::perror("fwd-probe: receiving socket");
            return 1;
        }
        targets.push_back(std::make_unique<Target>(
            send_fd, receive_fd, options.to[i], options.formats[i], options.payload_size, options.rates[i],
            static_cast<uint64_t>(options.rates[i] * options.seconds), options.pids.empty() ? 0 : options.pids[i]));
        if (options.flood.empty()) continue;
        const int flood_fd = probe::open_receive_socket(options.flood_listen[i]);
        if (flood_fd < 0) {
            std::perror("fwd-probe: flood sink");
            return 1;
        }
        targets.back()->flood =
            std::make_unique<Flood>(send_fd, options.flood[i], flood_fd, options.formats[i], options.payload_size);
    }

    // Every forwarder gets the same number of slices, in turn.
    bool ok = true;
    for (int64_t done_ns = 0; ok && done_ns < total_ns; done_ns += slice_ns) {
        const int64_t this_slice_ns = std::min(slice_ns, total_ns - done_ns);
        for (size_t i = 0; ok && i < count; ++i) {
            Target& target = *targets[i];
            const int64_t cpu_before = cpu_time_ns(target.pid);
            ok = run_slice(targets, target, this_slice_ns);
            drain_for(targets, options.gap_ms * NS_PER_MS);
            target.cpu_ns += cpu_time_ns(target.pid) - cpu_before;
            target.tally.end_slice();
            if (target.flood) target.flood->tally.end_slice();
        }
    }
    // Stragglers: until every paced frame is back or nothing came for a while.
    const int64_t idle_ns = options.idle_ms * NS_PER_MS;
    int64_t last_ns = probe::now_ns();
    for (;;) {
        drain(targets);
        bool complete = true;
        for (auto& target : targets) {
            last_ns = std::max(last_ns, target->tally.last_ns);
            complete = complete && target->expect != 0 && target->tally.unique >= target->sender->sent();
        }
        if (complete || probe::now_ns() - last_ns > idle_ns) break;
    }

    for (size_t i = 0; i < count; ++i) {
        Target& target = *targets[i];
        std::printf("target=%zu sent=%llu cpu_ns=%lld ", i, static_cast<unsigned long long>(target.sender->sent()),
                    static_cast<long long>(target.cpu_ns));
        if (target.flood) {
            std::printf("flood_sent=%llu flood_received=%llu flood_rate=%.1f ",
                        static_cast<unsigned long long>(target.flood->sender->sent()),
                        static_cast<unsigned long long>(target.flood->tally.received),
                        target.flood->tally.delivered_rate());
        }
        target.tally.print(target.sender->sent());
        close(target.receive_fd);
    }
    close(send_fd);
    return ok ? 0 : 1;
}
