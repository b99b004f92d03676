// Scale benchmark: how the gateway's forwarding cost grows with its tables.
//
// For 1, 8 and 32 "udp" interfaces, the gateway first gets MANet packets
// from 0, 1,000, 10,000 and 40,000 made-up sources on interface 1 (each
// offers a learned link; the gateway keeps at most 4,096), then forwards
// plain frames 0x01 -> 0x02 from interface 1 to the local peer 0x02 on the
// last interface, with a window of WINDOW frames in flight. Printed per
// case: delivered frames/s, the gateway's CPU us per frame (utime + stime
// from /proc/PID/stat), its peak RSS (VmHWM) and its threads. A last case
// runs the same stream while new sources keep coming, one per stream frame.
//
// Usage: fwd-scale GATE_BINARY [QUICK]   (QUICK=1: 0.3 s per case, else 1 s)
// Only 127.0.0.1 is used; only the gateways started here are stopped.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int WINDOW = 64;
constexpr uint8_t MANET_PROTO = 10;
constexpr uint8_t PLAIN_PROTO = 7;

double now_s() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

struct Socket {
    Socket() {
        const sockaddr_in addr = loopback(0);
        bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    }
    ~Socket() { close(fd); }
    uint16_t port() const {
        sockaddr_in addr{};
        socklen_t size = sizeof(addr);
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size);
        return ntohs(addr.sin_port);
    }
    void send_to(uint16_t port, const std::vector<uint8_t>& bytes) const {
        const sockaddr_in to = loopback(port);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
    bool receive(int timeout_ms) const {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0) return false;
        uint8_t buffer[2048];
        return recv(fd, buffer, sizeof(buffer), 0) > 0;
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

uint16_t free_port() {
    return Socket().port();
}

std::string proc_field(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return line.substr(field.size());
    return "?";
}

// utime + stime of `pid`, in seconds.
double cpu_s(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i) fields >> skip;
    double utime = 0, stime = 0;
    fields >> utime >> stime;
    return (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Gateway {
    Gateway(const std::string& binary, int ifaces, uint16_t sink_port) {
        for (int i = 0; i < ifaces; ++i) ports.push_back(free_port());
        std::string config = R"({"ifaces": [)";
        for (int i = 0; i < ifaces; ++i) {
            config += (i ? ", " : "") + std::string(R"({"iface": "udp://127.0.0.1:)") + std::to_string(ports[i]) +
                      R"(", "id": )" + std::to_string(i + 1) + "}";
        }
        config += R"(], "local_peers": [{"netdev_addr": "0x02", "iface_id": )" + std::to_string(ifaces) +
                  R"(, "inet_addr": "127.0.0.1:)" + std::to_string(sink_port) + R"("}]})";
        char path[] = "/tmp/fwd-scale-XXXXXX";
        const int fd = mkstemp(path);
        if (write(fd, config.data(), config.size()) != static_cast<ssize_t>(config.size())) std::abort();
        close(fd);
        config_path = path;
        pid = fork();
        if (pid == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            execl(binary.c_str(), binary.c_str(), "--config", path, "--debug", "0", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Gateway() {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        unlink(config_path.c_str());
    }
    pid_t pid;
    std::vector<uint16_t> ports;
    std::string config_path;
};

std::vector<uint8_t> manet_frame(uint32_t src_addr) {
    std::vector<uint8_t> bytes{MANET_PROTO, 0x05, 0x30};
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(src_addr >> (8 * i)));
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(0x0C000000u >> (8 * i)));
    bytes.push_back(0), bytes.push_back(0);
    return bytes;
}

struct Figures {
    double rate = 0;
    double cpu_us = 0;
};

// Frames 0x01 -> 0x02 for `seconds` with WINDOW in flight; with `flood`,
// a MANet packet from a new source goes before each.
Figures forward(const Gateway& gate, const Socket& node, const Socket& sink, double seconds, bool flood,
                uint32_t& next_source) {
    const std::vector<uint8_t> plain{PLAIN_PROTO, 0x01, 0x02, 1, 2, 3, 4, 5, 6, 7, 8};
    const Socket flooder;
    for (int i = 0; i < WINDOW; ++i) node.send_to(gate.ports[0], plain);
    long delivered = 0;
    const double cpu_start = cpu_s(gate.pid);
    const double start = now_s();
    while (now_s() - start < seconds) {
        if (!sink.receive(200)) {  // a lost frame: put it back in flight
            node.send_to(gate.ports[0], plain);
            continue;
        }
        ++delivered;
        if (flood) flooder.send_to(gate.ports[0], manet_frame(next_source++));
        node.send_to(gate.ports[0], plain);
    }
    const double elapsed = now_s() - start;
    Figures figures;
    figures.rate = static_cast<double>(delivered) / elapsed;
    figures.cpu_us = (cpu_s(gate.pid) - cpu_start) * 1e6 / static_cast<double>(delivered ? delivered : 1);
    while (sink.receive(50)) {
    }
    return figures;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: fwd-scale GATE_BINARY [QUICK]\n");
        return 2;
    }
    const std::string binary = argv[1];
    const bool quick = argc > 2 && std::string(argv[2]) == "1";
    const double seconds = quick ? 0.3 : 1.0;

    std::printf("Scale benchmark (%s): gateway forwarding against table size\n", quick ? "quick" : "full");
    std::printf("%-7s %-14s %12s %10s %10s %8s\n", "ifaces", "links offered", "frames/s", "cpu us/fr", "VmHWM",
                "threads");
    uint32_t next_source = 0x0B000000;
    for (int ifaces : {1, 8, 32}) {
        double empty_rate = 0;
        for (int links : {0, 1000, 10000, 40000, -1}) {
            Socket node, sink;
            Gateway gate(binary, ifaces, sink.port());
            // Ready once a frame comes through.
            const std::vector<uint8_t> hello{PLAIN_PROTO, 0x01, 0x02, 0};
            for (int tries = 0; tries < 100; ++tries) {
                node.send_to(gate.ports[0], hello);
                if (sink.receive(50)) break;
            }
            // Offered paced in windows, so that the socket does not drop them.
            const Socket source;
            for (int i = 0; i < links; ++i) {
                source.send_to(gate.ports[0], manet_frame(next_source++));
                if (i % WINDOW == WINDOW - 1) {
                    node.send_to(gate.ports[0], hello);
                    sink.receive(200);
                }
            }
            const Figures figures = forward(gate, node, sink, seconds, links < 0, next_source);
            if (links == 0) empty_rate = figures.rate;
            const std::string label = links < 0 ? "new per frame" : std::to_string(links);
            std::printf("%-7d %-14s %12.0f %10.2f %10s %8s   x%.2f of empty\n", ifaces, label.c_str(), figures.rate,
                        figures.cpu_us, proc_field(gate.pid, "VmHWM:").c_str() + 1,
                        proc_field(gate.pid, "Threads:").c_str() + 1,
                        empty_rate > 0 ? figures.rate / empty_rate : 0.0);
        }
    }
    return 0;
}
